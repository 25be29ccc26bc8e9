/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The platform's calls on tokens. */
#include <iterator>
#include <new>

#include "platform/offline/base/handles.h"
#include "platform/offline/base/status.h"
#include "platform/offline/base/unicode.h"
#include "platform/offline/security/token.h"

namespace offline {
namespace {

/* All handles are on the one token; each has its own rights on it. */
struct TokenHandle {
    ACCESS_MASK granted;
};

void closeToken(void* object) {
    delete static_cast<TokenHandle*>(object);
}
const HandleType tokenType = {closeToken};

constexpr GenericMapping tokenMapping = {0x20008, 0x200E0, 0x20000, 0xF01FF};

NTSTATUS openToken(HANDLE process, DWORD access, PHANDLE token) {
    if (process != GetCurrentProcess()) return STATUS_INVALID_HANDLE;
    if (token == nullptr) return STATUS_ACCESS_VIOLATION;
    *token = nullptr;
    if ((access & MAXIMUM_ALLOWED) != 0) access = (access & ~MAXIMUM_ALLOWED) | tokenMapping.all;
    auto* object = new (std::nothrow) TokenHandle{mapGeneric(access, tokenMapping)};
    if (object == nullptr) return STATUS_NO_MEMORY;
    *token = handleCreate(tokenType, object);
    if (*token != nullptr) return STATUS_SUCCESS;
    delete object;
    return STATUS_NO_MEMORY;
}

NTSTATUS tokenAccess(HANDLE token, ACCESS_MASK needed) {
    const auto* handle = static_cast<const TokenHandle*>(handleObject(token, tokenType));
    if (handle == nullptr) return STATUS_INVALID_HANDLE;
    return (handle->granted & needed) == needed ? STATUS_SUCCESS : STATUS_ACCESS_DENIED;
}

/* The record in the caller's buffer, of which the first field points to the SID after it; what follows that
 * pointer in it is 0. */
NTSTATUS sidRecord(Bytes sid, size_t recordSize, void* buffer, DWORD size, LPDWORD resultLength) {
    *resultLength = static_cast<DWORD>(recordSize + sid.size());
    if (size < *resultLength) return STATUS_BUFFER_TOO_SMALL;
    if (buffer == nullptr) return STATUS_ACCESS_VIOLATION;
    auto* bytes = static_cast<uint8_t*>(buffer);
    uint8_t* const after = bytes + recordSize;
    memset(bytes, 0, recordSize);
    memcpy(bytes, &after, sizeof after);
    memcpy(after, sid.data(), sid.size());
    return STATUS_SUCCESS;
}

NTSTATUS tokenInformation(HANDLE token, TOKEN_INFORMATION_CLASS infoClass, void* buffer, DWORD size,
                          LPDWORD resultLength) {
    const NTSTATUS status = tokenAccess(token, TOKEN_QUERY);
    if (status < 0) return status;
    if (resultLength == nullptr) return STATUS_ACCESS_VIOLATION;
    if (infoClass == TokenUser) {
        return sidRecord(currentToken().user, sizeof(TOKEN_USER), buffer, size, resultLength);
    }
    if (infoClass == TokenOwner) {
        return sidRecord(currentToken().owner, sizeof(TOKEN_OWNER), buffer, size, resultLength);
    }
    return STATUS_INVALID_PARAMETER;
}

/* By number, from firstPrivilege. */
const std::u16string_view privilegeNames[] = {
    u"SeCreateTokenPrivilege",
    u"SeAssignPrimaryTokenPrivilege",
    u"SeLockMemoryPrivilege",
    u"SeIncreaseQuotaPrivilege",
    u"SeMachineAccountPrivilege",
    u"SeTcbPrivilege",
    u"SeSecurityPrivilege",
    u"SeTakeOwnershipPrivilege",
    u"SeLoadDriverPrivilege",
    u"SeSystemProfilePrivilege",
    u"SeSystemtimePrivilege",
    u"SeProfileSingleProcessPrivilege",
    u"SeIncreaseBasePriorityPrivilege",
    u"SeCreatePagefilePrivilege",
    u"SeCreatePermanentPrivilege",
    u"SeBackupPrivilege",
    u"SeRestorePrivilege",
    u"SeShutdownPrivilege",
    u"SeDebugPrivilege",
    u"SeAuditPrivilege",
    u"SeSystemEnvironmentPrivilege",
    u"SeChangeNotifyPrivilege",
    u"SeRemoteShutdownPrivilege",
    u"SeUndockPrivilege",
    u"SeSyncAgentPrivilege",
    u"SeEnableDelegationPrivilege",
    u"SeManageVolumePrivilege",
    u"SeImpersonatePrivilege",
    u"SeCreateGlobalPrivilege",
    u"SeTrustedCredManAccessPrivilege",
    u"SeRelabelPrivilege",
    u"SeIncreaseWorkingSetPrivilege",
    u"SeTimeZonePrivilege",
    u"SeCreateSymbolicLinkPrivilege",
};
static_assert(std::size(privilegeNames) == lastPrivilege - firstPrivilege + 1);

uint32_t privilegeNamed(std::u16string_view name) {
    for (uint32_t i = 0; i < std::size(privilegeNames); i++) {
        if (equalFolded(name, privilegeNames[i])) return firstPrivilege + i;
    }
    return 0;
}

/* ---- Adjusting privileges ---- */

/* More than any token has; a larger count is refused before it is used. */
constexpr DWORD mostPrivileges = 60;
constexpr DWORD removedAttribute = 0x4;

/* One change of one privilege. */
struct Adjustment {
    uint32_t luid;
    DWORD attributes;
};

struct Adjustments {
    Adjustment list[mostPrivileges];
    size_t count = 0;
    bool lacked = false; /* one that the token doesn't have was named */
};

/* Whether it makes a difference to the token as it stands. */
bool changes(const Adjustment& adjustment) {
    const bool enable = (adjustment.attributes & SE_PRIVILEGE_ENABLED) != 0;
    return (adjustment.attributes & removedAttribute) != 0 || privilegeEnabled(adjustment.luid) != enable;
}

void gather(Adjustments& adjustments, const Adjustment& adjustment) {
    if (!privilegeHeld(adjustment.luid)) {
        adjustments.lacked = true;
    } else {
        adjustments.list[adjustments.count++] = adjustment;
    }
}

NTSTATUS gatherState(Adjustments& adjustments, const void* state) {
    if (state == nullptr) return STATUS_INVALID_PARAMETER;
    const DWORD count = loadNumber<uint32_t>(state);
    if (count > mostPrivileges) return STATUS_INVALID_PARAMETER;
    const auto* at = static_cast<const uint8_t*>(state) + offsetof(TOKEN_PRIVILEGES, Privileges);
    for (DWORD i = 0; i < count; i++) {
        LUID_AND_ATTRIBUTES entry = {};
        memcpy(&entry, at + i * sizeof entry, sizeof entry);
        gather(adjustments, {entry.Luid.HighPart == 0 ? entry.Luid.LowPart : 0, entry.Attributes});
    }
    return STATUS_SUCCESS;
}

/* What the changed ones were before, in the caller's buffer. */
NTSTATUS reportPrevious(const Adjustments& adjustments, uint8_t* previous, DWORD size, DWORD* resultLength) {
    if (resultLength == nullptr) return STATUS_ACCESS_VIOLATION;
    LUID_AND_ATTRIBUTES entries[mostPrivileges];
    DWORD count = 0;
    for (size_t i = 0; i < adjustments.count; i++) {
        if (!changes(adjustments.list[i])) continue;
        const uint32_t luid = adjustments.list[i].luid;
        entries[count++] = {{luid, 0}, privilegeEnabled(luid) ? SE_PRIVILEGE_ENABLED : 0};
    }
    constexpr size_t head = offsetof(TOKEN_PRIVILEGES, Privileges);
    *resultLength = static_cast<DWORD>(head + count * sizeof *entries);
    if (size < *resultLength) return STATUS_BUFFER_TOO_SMALL;
    memcpy(previous, &count, sizeof count);
    memcpy(previous + head, entries, count * sizeof *entries);
    return STATUS_SUCCESS;
}

NTSTATUS adjust(HANDLE token, bool disableAll, const void* state, DWORD size, void* previous,
                DWORD* resultLength) {
    NTSTATUS status = tokenAccess(token, TOKEN_ADJUST_PRIVILEGES | (previous == nullptr ? 0 : TOKEN_QUERY));
    if (status < 0) return status;
    Adjustments adjustments = {};
    if (disableAll) {
        for (uint32_t luid = firstPrivilege; luid <= lastPrivilege; luid++) {
            if (privilegeHeld(luid)) gather(adjustments, {luid, 0});
        }
    } else {
        status = gatherState(adjustments, state);
    }
    if (status >= 0 && previous != nullptr) {
        status = reportPrevious(adjustments, static_cast<uint8_t*>(previous), size, resultLength);
    }
    if (status < 0) return status;
    for (size_t i = 0; i < adjustments.count; i++) {
        const Adjustment& adjustment = adjustments.list[i];
        enablePrivilege(adjustment.luid, (adjustment.attributes & SE_PRIVILEGE_ENABLED) != 0);
        if ((adjustment.attributes & removedAttribute) != 0) removePrivilege(adjustment.luid);
    }
    return adjustments.lacked ? STATUS_NOT_ALL_ASSIGNED : STATUS_SUCCESS;
}

} /* namespace */
} /* namespace offline */

HANDLE GetCurrentProcess() {
    return reinterpret_cast<HANDLE>(static_cast<LONG_PTR>(-1));
}

BOOL OpenProcessToken(HANDLE process, DWORD access, PHANDLE token) {
    return offline::booleanResult(offline::openToken(process, access, token));
}

BOOL GetTokenInformation(HANDLE token, TOKEN_INFORMATION_CLASS infoClass, LPVOID buffer, DWORD size,
                         LPDWORD resultLength) {
    return offline::booleanResult(offline::tokenInformation(token, infoClass, buffer, size, resultLength));
}

BOOL LookupPrivilegeValueW(LPCWSTR system, LPCWSTR name, PLUID luid) {
    const bool here = system == nullptr || *system == 0;
    if (!here || name == nullptr || luid == nullptr) return offline::booleanResult(STATUS_INVALID_PARAMETER);
    const uint32_t number = offline::privilegeNamed(name);
    if (number == 0) {
        SetLastError(ERROR_NO_SUCH_PRIVILEGE);
        return FALSE;
    }
    *luid = {number, 0};
    return TRUE;
}

BOOL AdjustTokenPrivileges(HANDLE token, BOOL disableAll, PTOKEN_PRIVILEGES state, DWORD size,
                           PTOKEN_PRIVILEGES previous, LPDWORD resultLength) {
    const NTSTATUS status = offline::adjust(token, disableAll != FALSE, state, size, previous, resultLength);
    // Success sets the last error too: it alone tells whether every privilege was there.
    SetLastError(RtlNtStatusToDosError(status));
    return status >= 0 ? TRUE : FALSE;
}
