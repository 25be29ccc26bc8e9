/* SPDX-License-Identifier: GPL-2.0-or-later */
#include <cstdarg>
#include <cstdio>

#include "sidchng/sidflags.h"
#include "tool/run.h"
#include "tool/text_format.h"

static const char _usage[] =
    "Tarvane SID change tool\n"
    "Usage:\n"
    "  quillet -[f][r][s][d][q][v][h]\n"
    "Options:\n"
    "  -f       perform fast registry scan\n"
    "  -b       reboot on completion\n"
    "  -r       shutdown on completion\n"
    "  -s       simulate dry run, do not change anything\n"
    "  -q       quiet mode\n"
    "  -v[v]    verbose mode\n"
    "  -h       this help\n";

/* Acts on one letter. */
static optionsOutcome _takeLetter(runState* run, WCHAR letter) {
    switch (letter) {
        case 'f':
            run->fastScan = true;
            return OPTIONS_RUN;
        case 'b':
            run->rebootWhenDone = true;
            return OPTIONS_RUN;
        case 'r':
            run->powerOffWhenDone = true;
            return OPTIONS_RUN;
        case 's':
            run->sidFlags |= SID_SIMULATE;
            return OPTIONS_RUN;
        case 'q':
            verbosity--;
            return OPTIONS_RUN;
        case 'v':
            verbosity++;
            return OPTIONS_RUN;
        case 'h':
            return OPTIONS_HELP;
        default:
            return OPTIONS_INVALID;
    }
}

static optionsOutcome _takeArgument(runState* run, const WCHAR* argument) {
    if (argument[0] != '-') return OPTIONS_INVALID;
    for (const WCHAR* letter = argument + 1; *letter != 0; letter++) {
        const optionsOutcome outcome = _takeLetter(run, *letter);
        if (outcome != OPTIONS_RUN) return outcome;
    }
    return OPTIONS_RUN;
}

optionsOutcome parseOptions(runState* run, int argc, WCHAR** argv) {
    for (int i = 1; i < argc; i++) {
        const optionsOutcome outcome = _takeArgument(run, argv[i]);
        if (outcome == OPTIONS_RUN) continue;
        if (outcome == OPTIONS_INVALID) writeText(stderr, "invalid option: %ws\n", argv[i]);
        writeText(stdout, "%s", _usage);
        return outcome;
    }
    return OPTIONS_RUN;
}

void writeProgress(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    writeTextV(stdout, format, arguments);
    va_end(arguments);
}
