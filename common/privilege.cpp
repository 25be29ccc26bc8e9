/* SPDX-License-Identifier: GPL-2.0-or-later */
#define OMBRA_UNIT "common/privilege"
#include "common/privilege.h"

#include "common/last_error.h"
#include "common/log.h"

/* Enables or disables it in an open token. The adjusting call reports success even where it assigned nothing,
 * so the last error alone says what came of it. */
static DWORD _modifyInToken(HANDLE token, const WCHAR* name, int enable) {
    TOKEN_PRIVILEGES state;
    state.PrivilegeCount = 1;
    state.Privileges[0].Attributes = enable != 0 ? SE_PRIVILEGE_ENABLED : 0;
    if (!LookupPrivilegeValueW(nullptr, name, &state.Privileges[0].Luid)) {
        const DWORD error = ombraLastError();
        OMBRA_LOG_AS("ombraModifyPrivilege", OMBRA_ERROR, "Win API call %hs returned %d for %ws",
                     "LookupPrivilegeValue", error, name);
        return error;
    }
    AdjustTokenPrivileges(token, FALSE, &state, sizeof state, nullptr, nullptr);
    const DWORD error = GetLastError();
    if (error != 0) {
        OMBRA_LOG_AS("ombraModifyPrivilege", OMBRA_ERROR, "Win API call %hs returned %d for %ws",
                     "AdjustTokenPrivileges", error, name);
    }
    return error;
}

DWORD ombraModifyPrivilege(const WCHAR* name, int enable) {
    HANDLE token = nullptr;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES, &token)) {
        const DWORD error = ombraLastError();
        OMBRA_LOG(OMBRA_ERROR, "Win API call %hs returned %d", "OpenProcessToken", error);
        return error;
    }
    const DWORD error = _modifyInToken(token, name, enable);
    CloseHandle(token);
    return error;
}

DWORD ombraEnablePrivilege(const WCHAR* name) {
    return ombraModifyPrivilege(name, 1);
}
