/* SPDX-License-Identifier: GPL-2.0-or-later */
#include <cstdio>

#include "common/last_error.h"
#include "sidchng/sidflags.h"
#include "tool/run.h"
#include "tool/text_format.h"

/* Writes the line for a call that failed and gives the last error. */
static DWORD _failed(const char* call) {
    const DWORD error = ombraLastError();
    writeText(stderr, "%s() failed with code %d\n", call, error);
    return error;
}

/* Enables the shutdown privilege. That a token lacks it shows in the shutdown itself, not here. */
static DWORD _enableShutdown() {
    HANDLE token = nullptr;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY, &token)) {
        return _failed("OpenProcessToken");
    }
    TOKEN_PRIVILEGES state;
    state.PrivilegeCount = 1;
    state.Privileges[0].Attributes = SE_PRIVILEGE_ENABLED;
    DWORD error = 0;
    if (!LookupPrivilegeValueW(nullptr, TEXT("SeShutdownPrivilege"), &state.Privileges[0].Luid)) {
        error = _failed("LookupPrivilegeValue");
    } else if (!AdjustTokenPrivileges(token, FALSE, &state, sizeof state, nullptr, nullptr)) {
        error = _failed("AdjustTokenPrivileges");
    }
    CloseHandle(token);
    return error;
}

/* The road for a system that refuses the orderly shutdown. */
static NTSTATUS _shutDownNow(bool reboot) {
    constexpr DWORD pause = 5000;  // milliseconds
    Sleep(pause);
    const NTSTATUS status = ZwShutdownSystem(reboot ? ShutdownReboot : ShutdownPowerOff);
    if (status != 0) writeText(stderr, "ZwShutdownSystem() failed with code %08X\n", status);
    return status;
}

static void _restart(runState* run) {
    const DWORD error = _enableShutdown();
    if (error != 0) {
        run->runStatus = static_cast<int32_t>(error);
        return;
    }
    WCHAR message[] = TEXT("Machine ID changed");
    if (InitiateSystemShutdownW(nullptr, message, 0, TRUE, run->rebootWhenDone)) return;
    _failed("InitiateSystemShutdown");
    run->runStatus = _shutDownNow(run->rebootWhenDone);
}

void completeRun(runState* run) {
    if (run->runStatus == 0) PROGRESS("completed successfully\n");
    if (!run->rebootWhenDone && !run->powerOffWhenDone) return;
    if ((run->sidFlags & SID_SIMULATE) != 0) return;
    _restart(run);
}
