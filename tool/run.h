/* SPDX-License-Identifier: GPL-2.0-or-later */
/* One run of the tool. */
#ifndef QUILLET_TOOL_RUN_H
#define QUILLET_TOOL_RUN_H

#include <cstdint>

#include "platform/nt.h"
#include "tool/log_sink.h"

struct runState {
    uint32_t sidFlags;
    bool fastScan;
    bool rebootWhenDone;
    bool powerOffWhenDone;
    uint8_t sidOld[68];
    uint8_t sidNew[68];
    DWORD sidOldSize; /* the buffer's capacity, then the SID's size, in bytes */
    DWORD sidNewSize;
    LPSTR sidOldText; /* released with LocalFree */
    LPSTR sidNewText;
    HANDLE samKey;
    int32_t runStatus; /* what the run will return */
};

/* Has the console show UTF-8, and standard output kept in no buffer, until endConsole or the console's own
 * end of the process (Ctrl-C) gives it its code page back. */
void beginConsole();
void endConsole();

/* What option parsing says about the run. */
enum optionsOutcome { OPTIONS_RUN, OPTIONS_HELP, OPTIONS_INVALID };

/* Reads the command line into the run and verbosity. Help and errors are written here. */
optionsOutcome parseOptions(runState* run, int argc, WCHAR** argv);

/* Writes a progress line to standard output, unless verbosity is below 0. */
#define PROGRESS(...)                                   \
    do {                                                \
        if (verbosity >= 0) writeProgress(__VA_ARGS__); \
    } while (0)
void writeProgress(const char* format, ...);

/* Characters of a registry name or path that the sweeps can take. */
constexpr uint32_t nameRoom = 260;

/* Sweeps every child of a root; rootName serves the messages. Always 0: what fails is reported and passed
 * over. */
DWORD updateSubkeys(const runState* run, HKEY root, const WCHAR* rootName);

/* Sweeps one key below HKEY_LOCAL_MACHINE. The Win32 code of its opening. */
DWORD updateKey(const runState* run, const WCHAR* name);

/* Sweeps the hives of the users who are not logged on. A Win32 code; only the profile list itself can fail
 * it. */
DWORD updateProfiles(const runState* run);

/* Rewrites the descriptors on all fixed drives and flushes the volumes. runStatus becomes the first drive's
 * error. */
void sweepVolumes(runState* run);

/* Reports success and restarts the machine where that was asked for. */
void completeRun(runState* run);

#endif
