/* SPDX-License-Identifier: GPL-2.0-or-later */
#include <cstdio>

#include "common/wide.h"
#include "tool/run.h"
#include "tool/text_format.h"

static const WCHAR _listKey[] = TEXT("Software\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList");

/* What is known of one profile. Every text has room for nameRoom characters and a last one that is always 0.
 */
struct _profile {
    WCHAR profileName[nameRoom + 1];  // of its key below the list
    WCHAR imagePath[nameRoom + 1];    // as stored
    WCHAR hivePath[nameRoom + 1];     // of the hive file
    WCHAR hiveName[nameRoom + 1];     // what it is mounted as
};

/* Appends text within the room; what does not fit is cut. */
static void _append(WCHAR* target, const WCHAR* text) {
    size_t length = wideLength(target);
    while (*text != 0 && length < nameRoom) target[length++] = *text++;
    target[length] = 0;
}

static bool _readImagePath(HKEY key, _profile* profile) {
    DWORD type = REG_NONE;
    DWORD size = nameRoom * sizeof(WCHAR);
    const LSTATUS error = RegQueryValueExW(key, TEXT("ProfileImagePath"), nullptr, &type,
                                           reinterpret_cast<BYTE*>(profile->imagePath), &size);
    if (error != ERROR_SUCCESS) {
        writeText(stderr, "RegQueryValueEx(%ws\\%ws) failed with code %d\n", _listKey, profile->profileName,
                  error);
        return false;
    }
    profile->imagePath[size / sizeof(WCHAR)] = 0;  // a stored text need not have its terminator
    if (type != REG_SZ && type != REG_EXPAND_SZ) {
        writeText(stderr, "Unexpected type of image path (%u) for %ws\n", type, profile->profileName);
        return false;
    }
    return true;
}

/* The hive file's path from the image path: that of a directory gets the file name, and so does one whose
 * attributes can't be read. */
static void _makeNames(_profile* profile) {
    profile->hivePath[0] = 0;  // or a call that fails would leave the last profile's
    ExpandEnvironmentStringsW(profile->imagePath, profile->hivePath, nameRoom);
    if ((GetFileAttributesW(profile->hivePath) & FILE_ATTRIBUTE_DIRECTORY) != 0) {
        _append(profile->hivePath, TEXT("\\ntuser.dat"));
    }
    profile->hiveName[0] = 0;
    _append(profile->hiveName, TEXT("User."));
    _append(profile->hiveName, profile->profileName);
}

/* Treats a hive that is mounted. When it can't be opened it stays mounted. */
static void _updateMounted(const runState* run, const _profile* profile) {
    HKEY mounted = nullptr;
    LSTATUS error = RegOpenKeyExW(HKEY_LOCAL_MACHINE, profile->hiveName, 0, KEY_ENUMERATE_SUB_KEYS, &mounted);
    if (error != ERROR_SUCCESS) {
        writeText(stderr, "RegOpenKeyExW(%ws) failed with code %d\n", profile->hiveName, error);
        return;
    }
    PROGRESS("loaded profile hive %ws <- %ws\n", profile->hiveName, profile->hivePath);
    updateKey(run, profile->hiveName);
    RegCloseKey(mounted);
    error = RegUnLoadKeyW(HKEY_LOCAL_MACHINE, profile->hiveName);
    if (error != ERROR_SUCCESS) {
        writeText(stderr, "RegUnloadKey(%ws) failed with code %d\n", profile->hiveName, error);
    }
}

static void _updateProfile(const runState* run, HKEY key, _profile* profile) {
    if (!_readImagePath(key, profile)) return;
    _makeNames(profile);
    const LSTATUS error = RegLoadKeyW(HKEY_LOCAL_MACHINE, profile->hiveName, profile->hivePath);
    if (error == ERROR_SHARING_VIOLATION) return;  // the user is logged on; the sweep has treated the hive
    if (error != ERROR_SUCCESS) {
        writeText(stderr, "RegLoadKey(%ws, %ws) failed with code %d\n", profile->hiveName, profile->hivePath,
                  error);
        return;
    }
    _updateMounted(run, profile);
}

static void _updateListed(const runState* run, HKEY list) {
    _profile profile = {};
    for (DWORD index = 0;; index++) {
        DWORD capacity = nameRoom;
        LSTATUS error =
            RegEnumKeyExW(list, index, profile.profileName, &capacity, nullptr, nullptr, nullptr, nullptr);
        if (error == ERROR_NO_MORE_ITEMS) return;
        if (error != ERROR_SUCCESS) {
            writeText(stderr, "RegEnumKeyEx(%ws, %u) failed with code %d\n", _listKey, index, error);
            return;
        }
        HKEY key = nullptr;
        error = RegOpenKeyExW(list, profile.profileName, 0, KEY_QUERY_VALUE, &key);
        if (error != ERROR_SUCCESS) {
            writeText(stderr, "RegOpenKeyExW(%ws\\%ws) failed with code %d\n", _listKey, profile.profileName,
                      error);
            continue;
        }
        _updateProfile(run, key, &profile);
        RegCloseKey(key);
    }
}

DWORD updateProfiles(const runState* run) {
    HKEY list = nullptr;
    const LSTATUS error = RegOpenKeyExW(HKEY_LOCAL_MACHINE, _listKey, 0, KEY_ENUMERATE_SUB_KEYS, &list);
    if (error != ERROR_SUCCESS) {
        writeText(stderr, "RegOpenKeyExW(%ws) failed with code %d\n", _listKey, error);
        return static_cast<DWORD>(error);
    }
    _updateListed(run, list);
    RegCloseKey(list);
    return 0;
}
