#include "tool/log_sink.h"

#include <climits>
#include <cstdarg>
#include <cstdio>

#include "common/log.h"
#include "tool/text_format.h"

int32_t verbosity = 0;

struct _level {
    int level;
    const char* word;
    int32_t gate; /* lowest verbosity at which the line passes */
};

static const _level _levels[] = {
    {OMBRA_CRITICAL, "CRITICAL", INT32_MIN},
    {OMBRA_ALERT, "ALERT   ", INT32_MIN},
    {OMBRA_ERROR, "ERROR   ", INT32_MIN},
    {OMBRA_WARN, "WARN    ", 0},
    {OMBRA_NOTICE, "NOTICE  ", 1},
    {OMBRA_INFO, "INFO    ", 1},
    {OMBRA_DEBUG, "DEBUG   ", 2},
    {OMBRA_TRACE, "TRACE   ", 2},
};
static const _level _unknownLevel = {0, "UNKNOWN ", INT32_MIN};

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
    writeText(stderr, "%s [%s:%d] %s ", row->word, file, line, function);
    va_list arguments;
    va_start(arguments, format);
    writeTextV(stderr, format, arguments);
    va_end(arguments);
    writeText(stderr, "\n");
}
