/* The platform's calls that concern the machine and the process as a whole. */
#include <sys/random.h>

#include <cerrno>
#include <cstdio>
#include <ctime>

#include "platform/nt.h"
#include "platform/offline/base/text.h"
#include "platform/offline/security/security.h"
#include "platform/offline/system/system.h"

namespace {

/* Nothing is running, so all there is to do is to say what was asked for. */
void sayRestart(bool reboot) {
    std::string names;
    const offline::Installation* installation = offline::systemInstallation();
    if (installation != nullptr)
        names =
            offline::printable(offline::diskPath(*installation->volumes[installation->systemVolume].disk));
    if (reboot) {
        fprintf(stderr,
                "quillet: a restart was asked for; the system is at rest: start the machine from %s\n",
                names.c_str());
    } else {
        fprintf(stderr,
                "quillet: a power-off was asked for; the system is at rest: %s is ready to be started\n",
                names.c_str());
    }
}

} /* namespace */

BOOL InitiateSystemShutdownW(LPWSTR, LPWSTR, DWORD, BOOL, BOOL reboot) {
    if (!offline::privilegeEnabled(offline::shutdownPrivilege)) {
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    }
    sayRestart(reboot != 0);
    return TRUE;
}

NTSTATUS ZwShutdownSystem(SHUTDOWN_ACTION action) {
    if (!offline::privilegeEnabled(offline::shutdownPrivilege)) return STATUS_PRIVILEGE_NOT_HELD;
    sayRestart(action == ShutdownReboot);
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
