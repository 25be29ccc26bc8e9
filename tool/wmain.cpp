/* SPDX-License-Identifier: GPL-2.0-or-later */
#include <cstdio>

#include "common/last_error.h"
#include "common/log.h"
#include "common/privilege.h"
#include "regtk/regtk.h"
#include "sidchng/sid.h"
#include "sidchng/sidchng.h"
#include "tool/run.h"
#include "tool/text_format.h"

static DWORD _enablePrivileges(const runState* run) {
    static const WCHAR* const always[] = {TEXT("SeTakeOwnershipPrivilege"), TEXT("SeSecurityPrivilege"),
                                          TEXT("SeBackupPrivilege"), TEXT("SeRestorePrivilege")};
    for (const WCHAR* name : always) {
        const DWORD error = ombraEnablePrivilege(name);
        if (error != 0) return error;
    }
    return run->rebootWhenDone ? ombraEnablePrivilege(TEXT("SeShutdownPrivilege")) : 0;
}

/* Reads the old machine SID and makes the new one. */
static DWORD _getSids(runState* run) {
    DWORD error = 0;
    if (!regOpenKey(HKEY_LOCAL_MACHINE, TEXT("SAM\\SAM"), KEY_READ, REG_TAKE_OWNERSHIP, &run->samKey,
                    &error)) {
        return error;
    }
    error = sidGetMachineSID(run->samKey, run->sidOld, &run->sidOldSize);
    if (error != 0) return error;
    return sidCreateRandom(run->sidNew, &run->sidNewSize);
}

static DWORD _makeTexts(runState* run) {
    if (ConvertSidToStringSidA(run->sidOld, &run->sidOldText) &&
        ConvertSidToStringSidA(run->sidNew, &run->sidNewText)) {
        return 0;
    }
    const DWORD error = ombraLastError();
    writeText(stderr, "ConvertSidToStringSid() failed with code %d\n", error);
    return error;
}

/* The registry's phases. The first that fails ends the run. */
static DWORD _treatRegistry(const runState* run) {
    PROGRESS("scanning selected registry paths ...\n");
    DWORD error = sidReplaceInSelectedKeys(HKEY_LOCAL_MACHINE, run->sidFlags, run->sidOld, run->sidOldSize,
                                           run->sidNew, run->sidNewSize);
    if (error != 0) return error;
    PROGRESS("changing lanman server GUID ...\n");
    error = lanmanServerReplaceGuid(HKEY_LOCAL_MACHINE);
    if (error != 0 || run->fastScan) return error;
    error = updateSubkeys(run, HKEY_LOCAL_MACHINE, TEXT("HKEY_LOCAL_MACHINE"));
    if (error == 0) error = updateSubkeys(run, HKEY_USERS, TEXT("HKEY_USERS"));
    if (error == 0) error = updateProfiles(run);
    return error;
}

/* The run, step by step; a step that fails is the run's end, but for the volume sweep, which keeps its first
 * error and goes on. */
static void _performRun(runState* run) {
    DWORD error = _getSids(run);
    if (error == 0) error = _makeTexts(run);
    if (error == 0) {
        PROGRESS("%s -> %s\n", run->sidOldText, run->sidNewText);
        error = _treatRegistry(run);
    }
    if (error != 0) {
        run->runStatus = static_cast<int32_t>(error);
        return;
    }
    sweepVolumes(run);
    completeRun(run);
}

static void _cleanUp(runState* run) {
    if (run->samKey != nullptr) RegCloseKey(static_cast<HKEY>(run->samKey));
    if (run->sidOldText != nullptr) LocalFree(run->sidOldText);
    if (run->sidNewText != nullptr) LocalFree(run->sidNewText);
}

static int _run(int argc, WCHAR** argv) {
    runState run = {};
    run.sidFlags = SID_RECURSIVE | SID_REPLACE_SD;
    run.sidOldSize = sizeof run.sidOld;
    run.sidNewSize = sizeof run.sidNew;
    const optionsOutcome outcome = parseOptions(&run, argc, argv);
    if (outcome != OPTIONS_RUN) return outcome == OPTIONS_HELP ? 0 : -1;
    ombraSetLogger(logToConsole);
    if (_enablePrivileges(&run) != 0) return -1;
    _performRun(&run);
    _cleanUp(&run);
    return run.runStatus;
}

extern "C" int wmain(int argc, WCHAR** argv, WCHAR**) {
    beginConsole();
    const int status = _run(argc, argv);
    endConsole();
    return status;
}
