/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The platform's calls that concern the machine and the process as a whole. */
#include <sys/random.h>

#include <cerrno>
#include <ctime>

#include "platform/nt.h"
#include "platform/offline/base/guarded.h"
#include "platform/offline/security/security.h"
#include "platform/offline/system/system.h"
#include "platform/offline/system/system_state.h"

std::string offline::restartAsked() {
    const Restart asked = systemState().restartAsked;
    if (asked == Restart::none || systemInstallation() == nullptr) return {};
    const Installation& installation = *systemInstallation();
    return guardedOr(std::string(), [&] {
        const std::string disk = diskPath(*installation.volumes[installation.systemVolume].disk);
        return asked == Restart::reboot
                   ? "a restart was asked for; the system is at rest: start the machine from " + disk
                   : "a power-off was asked for; the system is at rest: " + disk + " is ready to be started";
    });
}

/* Nothing is running, so there is nothing to do now; what was asked for is reported when the disks are
 * closed. */
BOOL InitiateSystemShutdownW(LPWSTR, LPWSTR, DWORD, BOOL, BOOL reboot) {
    if (!offline::privilegeEnabled(offline::shutdownPrivilege)) {
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    }
    offline::systemState().restartAsked = reboot != 0 ? offline::Restart::reboot : offline::Restart::powerOff;
    return TRUE;
}

NTSTATUS ZwShutdownSystem(SHUTDOWN_ACTION action) {
    if (!offline::privilegeEnabled(offline::shutdownPrivilege)) return STATUS_PRIVILEGE_NOT_HELD;
    offline::systemState().restartAsked =
        action == ShutdownReboot ? offline::Restart::reboot : offline::Restart::powerOff;
    return STATUS_SUCCESS;
}

VOID Sleep(DWORD milliseconds) {
    timespec left = {static_cast<time_t>(milliseconds / 1000),
                     static_cast<long>(milliseconds % 1000) * 1000000};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

/* A random UUID, version 4. */
RPC_STATUS UuidCreate(UUID* uuid) {
    if (getrandom(uuid, sizeof *uuid, 0) != static_cast<ssize_t>(sizeof *uuid)) return ERROR_GEN_FAILURE;
    uuid->Data3 = static_cast<WORD>((uuid->Data3 & 0x0FFF) | 0x4000);
    uuid->Data4[0] = static_cast<BYTE>((uuid->Data4[0] & 0x3F) | 0x80);
    return RPC_S_OK;
}

/* Text is UTF-8 here whatever the console is set to. */
UINT GetConsoleOutputCP() {
    return CP_UTF8;
}

BOOL SetConsoleOutputCP(UINT codePage) {
    return codePage == CP_UTF8;
}

/* No handler is ever called: what ends a program here are signals (base/ending_signals.h). */
BOOL SetConsoleCtrlHandler(PHANDLER_ROUTINE, BOOL) {
    return TRUE;
}
