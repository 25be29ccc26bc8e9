/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "tool/log_sink.h"

#include <climits>
#include <cstdarg>
#include <cstdio>

#include "common/log.h"
#include "tool/text_format.h"

int32_t verbosity = 0;

struct _level {
    const char* word;
    int level;
    int32_t gate; /* lowest verbosity at which the line passes */
};

static const _level _levels[] = {
    {"CRITICAL", OMBRA_CRITICAL, INT32_MIN},
    {"ALERT   ", OMBRA_ALERT, INT32_MIN},
    {"ERROR   ", OMBRA_ERROR, INT32_MIN},
    {"WARN    ", OMBRA_WARN, 0},
    {"NOTICE  ", OMBRA_NOTICE, 1},
    {"INFO    ", OMBRA_INFO, 1},
    {"DEBUG   ", OMBRA_DEBUG, 2},
    {"TRACE   ", OMBRA_TRACE, 2},
};
static const _level _unknownLevel = {"UNKNOWN ", 0, INT32_MIN};

static const _level* _findLevel(int level) {
    for (const _level& row : _levels) {
        if (row.level == level) return &row;
    }
    return &_unknownLevel;
}

void logToConsole(const char* file, const char* function, int line, int level, ULONG_PTR, const char* format,
                  ...) {
    const _level* const row = _findLevel(level);
    if (verbosity < row->gate) return;
    textOutput output;
    beginText(&output, stderr);
    addText(&output, "%s [%s:%d] %s ", row->word, file, line, function);
    va_list arguments;
    va_start(arguments, format);
    addTextV(&output, format, arguments);
    va_end(arguments);
    addText(&output, "\n");
    endText(&output);
}
