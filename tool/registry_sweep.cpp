/* SPDX-License-Identifier: GPL-2.0-or-later */
#include <cstdio>

#include "regtk/regtk.h"
#include "sidchng/sidchng.h"
#include "tool/run.h"
#include "tool/text_format.h"

static constexpr ACCESS_MASK _sweepAccess = ACCESS_SYSTEM_SECURITY | WRITE_OWNER | WRITE_DAC | READ_CONTROL |
                                            KEY_ENUMERATE_SUB_KEYS | KEY_CREATE_SUB_KEY | KEY_SET_VALUE;

static void _replaceIn(HANDLE key, const runState* run) {
    sidReplaceInKey(key, run->sidFlags, nullptr, run->sidOld, run->sidOldSize, run->sidNew, run->sidNewSize);
    RegCloseKey(static_cast<HKEY>(key));
}

DWORD updateSubkeys(const runState* run, HKEY root, const WCHAR* rootName) {
    WCHAR name[nameRoom + 1];
    name[nameRoom] = 0;
    for (DWORD index = 0;; index++) {
        DWORD capacity = nameRoom;
        const LSTATUS error = RegEnumKeyExW(root, index, name, &capacity, nullptr, nullptr, nullptr, nullptr);
        if (error == ERROR_NO_MORE_ITEMS) return 0;
        if (error != ERROR_SUCCESS) {
            writeText(stderr, "RegEnumKeyEx(%ws, %u) failed with code %d\n", rootName, index, error);
            return 0;
        }
        HANDLE key = nullptr;
        DWORD refused = 0;
        if (!regOpenKey(root, name, _sweepAccess, REG_TAKE_OWNERSHIP, &key, &refused)) continue;
        PROGRESS("updating SIDs in %ws\\%ws ...\n", rootName, name);
        _replaceIn(key, run);
    }
}

DWORD updateKey(const runState* run, const WCHAR* name) {
    HANDLE key = nullptr;
    DWORD status = 0;
    if (!regOpenKey(HKEY_LOCAL_MACHINE, name, _sweepAccess, REG_TAKE_OWNERSHIP, &key, &status)) {
        writeText(stderr, "regOpenKey(%ws) failed with code %d\n", name, status);
        return status;
    }
    PROGRESS("updating SIDs in %ws ...\n", name);
    _replaceIn(key, run);
    return status;
}
