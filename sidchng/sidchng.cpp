/* SPDX-License-Identifier: GPL-2.0-or-later */
#define OMBRA_UNIT "sidchng/sidchng"
#include "sidchng/sidchng.h"

#include "common/last_error.h"
#include "common/log.h"
#include "common/wide.h"
#include "regtk/regtk.h"
#include "sidchng/reg.h"
#include "sidchng/sid.h"

/* ---- Seizing a file ---- */

static const char _seizing[] = "takeFileOwnership";  // what its helpers report as

/* The token's owner SID; *ownerRecord is filled with the record and the SID after it. */
static DWORD _readTokenOwner(HANDLE token, uint8_t* ownerRecord, DWORD size, PSID* owner) {
    DWORD needed = size;
    if (!GetTokenInformation(token, TokenOwner, ownerRecord, size, &needed)) {
        const DWORD error = ombraLastError();
        OMBRA_LOG_AS(_seizing, OMBRA_ERROR, "Win API call %hs returned %d", "GetTokenInformation", error);
        return error;
    }
    if (needed > size) {
        OMBRA_LOG_AS(_seizing, OMBRA_ERROR, "GetTokenInformation requested %d bytes of buffer (%d allocated)",
                     needed, size);
        return ERROR_INTERNAL_ERROR;
    }
    *owner = reinterpret_cast<const TOKEN_OWNER*>(ownerRecord)->Owner;
    return 0;
}

static DWORD _setFileInfo(const WCHAR* path, SECURITY_INFORMATION information, PSID owner) {
    const DWORD error = SetNamedSecurityInfoW(const_cast<WCHAR*>(path), SE_FILE_OBJECT, information, owner,
                                              nullptr, nullptr, nullptr);
    if (error != 0) {
        OMBRA_LOG_AS(_seizing, OMBRA_ERROR, "Win API call %hs returned %d for %ws", "SetNamedSecurityInfo",
                     error, path);
    }
    return error;
}

DWORD takeFileOwnership(const WCHAR* path) {
    HANDLE token = nullptr;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token)) {
        const DWORD error = ombraLastError();
        OMBRA_LOG(OMBRA_ERROR, "Win API call %hs returned %d", "OpenProcessToken", error);
        return error;
    }
    alignas(TOKEN_OWNER) uint8_t ownerRecord[88];
    PSID owner = nullptr;
    DWORD error = _readTokenOwner(token, ownerRecord, sizeof ownerRecord, &owner);
    if (error == 0) {
        OMBRA_LOG(OMBRA_INFO, "Taking ownership of %ws", path);
        // The DACL may be open to a user who can't be made the owner, so it is tried whatever came of the
        // owner.
        _setFileInfo(path, OWNER_SECURITY_INFORMATION, owner);
        error = _setFileInfo(path, DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION, nullptr);
    }
    CloseHandle(token);
    return error;
}

/* ---- The file tree walk ---- */

static constexpr int32_t _deepest = 256;          // levels below the start path
static constexpr uint32_t _pathRoom = 512;        // bytes of the path buffer beyond the start path
static constexpr uint32_t _descriptorRoom = 512;  // first size of the descriptor buffer, in bytes
static const WCHAR _longPathPrefix[] = TEXT("\\\\?\\");
static constexpr uint32_t _prefixLength = 4;
static const WCHAR _allEntries[] = TEXT("\\*.*");
static constexpr uint32_t _allEntriesLength = 4;

/* One walk: its buffers, and what it does at each entry. path holds the current entry's full path,
 * terminated; a resize may move it. */
struct _walk {
    memBuf path;
    memBuf descriptor;
    const uint8_t* sidOld;
    const uint8_t* sidNew;
    uint32_t size;
    uint32_t flags;
};

static WCHAR* _pathOf(const _walk* walk) {
    return reinterpret_cast<WCHAR*>(walk->path.data);
}

static bool _isDots(const WCHAR* name) {
    return wideEqual(name, TEXT(".")) || wideEqual(name, TEXT(".."));
}

/* Room for at least this many bytes of path. */
static bool _reservePath(_walk* walk, uint32_t bytes) {
    return walk->path.size >= bytes || memBufResize(&walk->path, bytes);
}

static DWORD sidReplaceInPathImpl(_walk* walk, uint32_t length, DWORD attributes, int32_t depth);

/* The entries of the directory whose path has length characters; the first is in the record. */
static DWORD _walkEntries(_walk* walk, uint32_t length, HANDLE search, WIN32_FIND_DATAW* record,
                          int32_t depth) {
    do {
        if (_isDots(record->cFileName)) continue;
        const uint32_t nameLength = static_cast<uint32_t>(wideLength(record->cFileName));
        if (!_reservePath(walk, 2 * (length + nameLength) + 4)) return ERROR_NOT_ENOUGH_MEMORY;
        WCHAR* const path = _pathOf(walk);
        path[length] = '\\';
        wideCopy(path + length + 1, record->cFileName, nameLength + 1);
        const DWORD error =
            sidReplaceInPathImpl(walk, length + nameLength + 1, record->dwFileAttributes, depth + 1);
        if (error != 0) return error;
    } while (FindNextFileW(search, record));
    return 0;
}

/* One entry, whose path has length characters, and what lies below it. */
static DWORD sidReplaceInPathImpl(_walk* walk, uint32_t length, DWORD attributes, int32_t depth) {
    DWORD error = 0;
    if ((walk->flags & SID_REPLACE_SD) != 0) {
        error = sidReplaceInFileSD(_pathOf(walk), walk->sidOld, walk->sidNew, walk->size,
                                   (walk->flags & SID_EXACT) != 0, (walk->flags & SID_SIMULATE) != 0,
                                   &walk->descriptor);
    }
    if ((walk->flags & SID_RECURSIVE) == 0) return error;
    if (depth > _deepest) {
        OMBRA_LOG(OMBRA_ERROR, "Too deep recursion in %ws", _pathOf(walk));
        return ERROR_INTERNAL_ERROR;
    }
    const bool enter =
        (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0 && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0;
    if (!enter) return 0;
    if (!_reservePath(walk, 2 * length + 10)) return ERROR_NOT_ENOUGH_MEMORY;
    wideCopy(_pathOf(walk) + length, _allEntries, _allEntriesLength + 1);
    WIN32_FIND_DATAW record;
    const HANDLE search = FindFirstFileW(_pathOf(walk), &record);
    if (search == INVALID_HANDLE_VALUE) {
        OMBRA_LOG(OMBRA_WARN, "Win API call %hs returned %d for %ws, attr=%#x", "FindFirstFile",
                  GetLastError(), _pathOf(walk), attributes);
        return 0;
    }
    error = _walkEntries(walk, length, search, &record, depth);
    FindClose(search);
    return error;
}

/* Puts the start path into the walk in its long form, without trailing backslashes; gives its length in
 * characters. */
static uint32_t _startPath(_walk* walk, const WCHAR* path, uint32_t length) {
    WCHAR* const target = _pathOf(walk);
    const bool prefixed =
        length >= _prefixLength && memcmp(path, _longPathPrefix, _prefixLength * sizeof(WCHAR)) == 0;
    const uint32_t prefix = prefixed ? 0 : _prefixLength;
    wideCopy(target, _longPathPrefix, prefix);
    wideCopy(target + prefix, path, length + 1);
    uint32_t total = prefix + length;
    while (total > 0 && target[total - 1] == '\\') target[--total] = 0;
    return total;
}

static DWORD _walkFrom(_walk* walk, uint32_t length) {
    DWORD attributes = FILE_ATTRIBUTE_DIRECTORY;
    const WCHAR* const path = _pathOf(walk);
    const bool driveRoot = length > 0 && path[length - 1] == ':';
    if (!driveRoot) {
        attributes = GetFileAttributesW(path);
        if (attributes == INVALID_FILE_ATTRIBUTES) {
            const DWORD error = ombraLastError();
            const bool missing = error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND;
            if (missing && (walk->flags & SID_OPTIONAL) != 0) return 0;
            OMBRA_LOG_AS("sidReplaceInPath", OMBRA_ERROR, "Win API call %hs returned %d for %ws",
                         "GetFileAttributes", error, path);
            return error;
        }
    }
    return sidReplaceInPathImpl(walk, length, attributes, 0);
}

DWORD sidReplaceInPath(const WCHAR* path, uint32_t flags, const uint8_t* sidOld, uint32_t sidOldSize,
                       const uint8_t* sidNew, uint32_t sidNewSize) {
    if (!sidCheckPair(sidOld, sidOldSize, sidNew, sidNewSize)) return ERROR_INVALID_PARAMETER;
    const uint32_t length = static_cast<uint32_t>(wideLength(path));
    _walk walk = {{}, {}, sidOld, sidNew, sidNewSize, flags};
    DWORD error = ERROR_NOT_ENOUGH_MEMORY;
    if (memBufInit(&walk.path, 2 * length + _pathRoom) && memBufInit(&walk.descriptor, _descriptorRoom)) {
        error = _walkFrom(&walk, _startPath(&walk, path, length));
    }
    memBufFree(&walk.path);
    memBufFree(&walk.descriptor);
    return error;
}

/* ---- Keys ---- */

DWORD sidReplaceInKey(HANDLE key, uint32_t flags, const WCHAR* const* valueNames, const uint8_t* sidOld,
                      uint32_t sidOldSize, const uint8_t* sidNew, uint32_t sidNewSize) {
    if (!sidCheckPair(sidOld, sidOldSize, sidNew, sidNewSize)) return ERROR_INVALID_PARAMETER;
    sidCtx ctx;
    DWORD error = sidCtxInit(&ctx, sidOld, sidNew, sidNewSize, flags, valueNames);
    if (error != 0) return error;
    WCHAR nothing[] = TEXT("");
    const UNICODE_STRING noName = {0, 0, nothing};
    error = regReplaceSIDInKey(key, &noName, &ctx);
    if ((flags & SID_RECURSIVE) != 0) {
        ctx.lastError =
            error;  // logged where it was met; one bad key does not end a walk, nor show in its result
        error = regScan(key, regReplaceSIDCallback, 0, &ctx, REG_TAKE_OWNERSHIP);
    }
    sidCtxFree(&ctx);
    return error;
}

/* ---- Selected registry paths ---- */

static constexpr ACCESS_MASK _pathAccess = ACCESS_SYSTEM_SECURITY | WRITE_OWNER | WRITE_DAC | READ_CONTROL |
                                           KEY_QUERY_VALUE | KEY_SET_VALUE | KEY_CREATE_SUB_KEY |
                                           KEY_ENUMERATE_SUB_KEYS | KEY_NOTIFY;

static const WCHAR* const _versionValues[] = {TEXT("Sid"), TEXT("Security"), nullptr};
static const WCHAR* const _appIdValues[] = {TEXT("AccessPermission"), TEXT("LaunchPermission"), nullptr};

static constexpr uint32_t _valuesAndNames = SID_RECURSIVE | SID_REPLACE_VALUES | SID_REPLACE_NAMES;
static constexpr uint32_t _valuesOnly = SID_RECURSIVE | SID_REPLACE_VALUES;

static const sidKeyPath selectedKeyPaths[] = {
    {TEXT("SECURITY\\Policy"), _valuesAndNames, nullptr},
    {TEXT("SECURITY\\SAM\\Domains"), _valuesAndNames, nullptr},
    {TEXT("SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion"), _valuesAndNames, _versionValues},
    {TEXT("SOFTWARE\\Microsoft\\Windows\\CurrentVersion"), _valuesAndNames, nullptr},
    {TEXT("SYSTEM\\CurrentControlSet\\Services"), _valuesOnly, nullptr},
    {TEXT("SOFTWARE\\Classes\\AppID"), _valuesOnly, _appIdValues},
    {nullptr, 0, nullptr},
};

DWORD sidReplaceInKeyPath(HKEY root, uint32_t flags, const WCHAR* path, const WCHAR* const* valueNames,
                          const uint8_t* sidOld, uint32_t sidOldSize, const uint8_t* sidNew,
                          uint32_t sidNewSize) {
    DWORD error = 0;
    HANDLE key = nullptr;
    const uint32_t openFlags = REG_TAKE_OWNERSHIP | ((flags & SID_OPTIONAL) != 0 ? REG_IGNORE_MISSING : 0u);
    if (!regOpenKey(root, path, _pathAccess, openFlags, &key, &error)) return error;
    error = sidReplaceInKey(key, flags, valueNames, sidOld, sidOldSize, sidNew, sidNewSize);
    RegCloseKey(static_cast<HKEY>(key));
    return error;
}

DWORD sidReplaceInKeyPaths(HKEY root, uint32_t flags, const sidKeyPath* table, const uint8_t* sidOld,
                           uint32_t sidOldSize, const uint8_t* sidNew, uint32_t sidNewSize) {
    for (const sidKeyPath* row = table; row->flags != 0; row++) {
        const DWORD error = sidReplaceInKeyPath(root, row->flags | flags, row->path, row->valueNames, sidOld,
                                                sidOldSize, sidNew, sidNewSize);
        if (error != 0) return error;
    }
    return 0;
}

DWORD sidReplaceInSelectedKeys(HKEY root, uint32_t flags, const uint8_t* sidOld, uint32_t sidOldSize,
                               const uint8_t* sidNew, uint32_t sidNewSize) {
    return sidReplaceInKeyPaths(root, flags, selectedKeyPaths, sidOld, sidOldSize, sidNew, sidNewSize);
}

/* ---- The file server's GUID ---- */

static const WCHAR _serverKey[] = TEXT("SYSTEM\\CurrentControlSet\\Services\\lanmanserver\\Parameters");
static const WCHAR _serverValue[] = TEXT("Guid");

DWORD lanmanServerReplaceGuid(HKEY root) {
    UUID uuid;
    const RPC_STATUS status = UuidCreate(&uuid);
    if (status != RPC_S_OK && status != RPC_S_UUID_LOCAL_ONLY) {
        OMBRA_LOG(OMBRA_ERROR, "Win API call %hs returned %d", "UuidCreate", status);
        return static_cast<DWORD>(status);
    }
    HKEY key = nullptr;
    LSTATUS error = RegOpenKeyExW(root, _serverKey, 0, KEY_WRITE, &key);
    if (error != ERROR_SUCCESS) {
        OMBRA_LOG(OMBRA_ERROR, "Win API call %hs returned %d for %ws", "RegOpenKeyEx", error, _serverKey);
        return static_cast<DWORD>(error);
    }
    error =
        RegSetValueExW(key, _serverValue, 0, REG_BINARY, reinterpret_cast<const BYTE*>(&uuid), sizeof uuid);
    if (error != ERROR_SUCCESS) {
        OMBRA_LOG(OMBRA_ERROR, "Win API call %hs returned %d for %ws\\%ws", "RegSetValueEx", error,
                  _serverKey, _serverValue);
    }
    RegCloseKey(key);
    return static_cast<DWORD>(error);
}
