/* SPDX-License-Identifier: GPL-2.0-or-later */
#define OMBRA_UNIT "sidchng/sid"
#include "sidchng/sid.h"

#include <cstring>

#include "common/last_error.h"
#include "common/log.h"
#include "common/wide.h"
#include "regtk/regtk.h"
#include "sidchng/sidchng.h"

/* ---- SID values ---- */

/* The SID image. */
enum : uint32_t {
    SID_REVISION_AT = 0,
    SID_COUNT_AT = 1,
    SID_AUTHORITY_AT = 2,
    SID_AUTHORITY_SIZE = 6,
    SID_SUBAUTHORITIES_AT = 8,
    SID_MOST_SUBAUTHORITIES = 15
};
static const uint8_t _ntAuthority[SID_AUTHORITY_SIZE] = {0, 0, 0, 0, 0, 5};
static constexpr uint32_t _accountSubAuthority =
    21;  // the first one of every SID that a machine or domain issues

/* The value "V" of the SAM's account key: a header, then a variable area. The machine SID's offset is in the
 * header. */
enum : uint32_t { SAM_SID_OFFSET_AT = 12, SAM_SID_LENGTH_AT = 16, SAM_VARIABLE_AT = 48 };
static const WCHAR _accountKey[] = TEXT("Domains\\Account");
static const WCHAR _accountValue[] = TEXT("V");

static uint32_t _read32(const uint8_t* bytes) {
    uint32_t number;
    memcpy(&number, bytes, sizeof number);  // both platforms are little-endian, as the formats are
    return number;
}

static uint32_t _sidSize(const uint8_t* sid) {
    return SID_SUBAUTHORITIES_AT + 4u * sid[SID_COUNT_AT];
}

static uint32_t _lastSubAuthority(const uint8_t* sid) {
    return _read32(sid + _sidSize(sid) - 4);
}

static bool _isMachineSid(const uint8_t* sid) {
    return sid[SID_REVISION_AT] == 1 && sid[SID_COUNT_AT] == 4 &&
           memcmp(sid + SID_AUTHORITY_AT, _ntAuthority, SID_AUTHORITY_SIZE) == 0 &&
           _read32(sid + SID_SUBAUTHORITIES_AT) == _accountSubAuthority;
}

/* The operation that reads the SAM, under whose name its helpers report. */
static const char _reading[] = "sidGetMachineSID";

static DWORD _queryAccount(HKEY key, DWORD* type, uint8_t* data, DWORD* size) {
    const LSTATUS error = RegQueryValueExW(key, _accountValue, nullptr, type, data, size);
    const bool fine = error == ERROR_SUCCESS || (data == nullptr && error == ERROR_MORE_DATA);
    if (fine) return 0;
    OMBRA_LOG_AS(_reading, OMBRA_ERROR, "Win API call %hs returned %d for %ws\\%ws", "RegQueryValueEx", error,
                 _accountKey, _accountValue);
    return static_cast<DWORD>(error);
}

static DWORD _invalidAccount(const char* message) {
    OMBRA_LOG_AS(_reading, OMBRA_ERROR, message);
    return ERROR_INVALID_DATA;
}

/* Takes the SID out of size bytes of account data. */
static DWORD _sidFromAccount(const uint8_t* data, DWORD size, uint8_t* sid) {
    if (size < SAM_VARIABLE_AT) return _invalidAccount("SAM data is invalid");
    const uint32_t offset = _read32(data + SAM_SID_OFFSET_AT);
    const uint32_t room = size - SAM_VARIABLE_AT;
    const bool inside = room >= SID_MACHINE_SIZE && offset <= room - SID_MACHINE_SIZE;
    if (_read32(data + SAM_SID_LENGTH_AT) != SID_MACHINE_SIZE || !inside) {
        return _invalidAccount("SAM data is invalid");
    }
    memcpy(sid, data + SAM_VARIABLE_AT + offset, SID_MACHINE_SIZE);
    return _isMachineSid(sid) ? 0 : _invalidAccount("Machine SID is invalid");
}

static DWORD _readAccount(HKEY key, uint8_t* sid) {
    DWORD type = REG_NONE;
    DWORD size = 0;
    DWORD error = _queryAccount(key, &type, nullptr, &size);
    if (error != 0) return error;
    if (size < SAM_VARIABLE_AT || type != REG_BINARY) return _invalidAccount("SAM data is invalid");
    uint8_t* data = static_cast<uint8_t*>(ombraMalloc(size));
    if (data == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    error = _queryAccount(key, &type, data, &size);
    if (error == 0) error = _sidFromAccount(data, size, sid);
    ombraFree(data);
    return error;
}

DWORD sidGetMachineSID(HANDLE samKey, uint8_t* sid, DWORD* size) {
    const DWORD capacity = *size;
    *size = SID_MACHINE_SIZE;
    if (capacity < SID_MACHINE_SIZE) return ERROR_BUFFER_OVERFLOW;
    HANDLE key = nullptr;
    DWORD error = 0;
    if (!regOpenKey(samKey, _accountKey, KEY_QUERY_VALUE, REG_TAKE_OWNERSHIP, &key, &error)) return error;
    error = _readAccount(static_cast<HKEY>(key), sid);
    RegCloseKey(static_cast<HKEY>(key));
    return error;
}

DWORD sidCreateRandom(uint8_t* sid, DWORD* size) {
    const DWORD capacity = *size;
    *size = SID_MACHINE_SIZE;
    if (capacity < SID_MACHINE_SIZE) return ERROR_BUFFER_OVERFLOW;
    UUID uuid;
    const RPC_STATUS status = UuidCreate(&uuid);
    if (status != RPC_S_OK && status != RPC_S_UUID_LOCAL_ONLY) {
        OMBRA_LOG(OMBRA_ERROR, "Win API call %hs returned %d", "UuidCreate", status);
        return static_cast<DWORD>(status);
    }
    sid[SID_REVISION_AT] = 1;
    sid[SID_COUNT_AT] = 4;
    memcpy(sid + SID_AUTHORITY_AT, _ntAuthority, SID_AUTHORITY_SIZE);
    memcpy(sid + SID_SUBAUTHORITIES_AT, &_accountSubAuthority, 4);
    memcpy(sid + SID_SUBAUTHORITIES_AT + 4, &uuid, 12);
    return 0;
}

static int _sidCheck(const uint8_t* sid, uint32_t size, const char* label) {
    if (sid == nullptr) return 0;
    if (size < SID_SUBAUTHORITIES_AT + 4) {
        OMBRA_LOG(OMBRA_ERROR, "%s SID too small (%d bytes)", label, size);
        return 0;
    }
    if (size != _sidSize(sid)) {
        OMBRA_LOG(OMBRA_ERROR, "%s SID has invalid size (%d, expected %d)", label, size, _sidSize(sid));
        return 0;
    }
    if (sid[SID_REVISION_AT] != 1) {
        OMBRA_LOG(OMBRA_ERROR, "%s SID has invalid revision (%d, expected %d)", label, sid[SID_REVISION_AT],
                  1);
        return 0;
    }
    if (memcmp(sid + SID_AUTHORITY_AT, _ntAuthority, SID_AUTHORITY_SIZE) != 0) {
        OMBRA_LOG(OMBRA_ERROR, "%s SID has invalid authority", label);
        return 0;
    }
    const uint32_t first = _read32(sid + SID_SUBAUTHORITIES_AT);
    if (first != _accountSubAuthority) {
        OMBRA_LOG(OMBRA_ERROR, "%s SID has invalid subauthority (%d, expected %d)", label, first,
                  _accountSubAuthority);
        return 0;
    }
    return 1;
}

int sidCheckPair(const uint8_t* sidOld, uint32_t sidOldSize, const uint8_t* sidNew, uint32_t sidNewSize) {
    if (!_sidCheck(sidOld, sidOldSize, "Old") || !_sidCheck(sidNew, sidNewSize, "New")) return 0;
    if (sidOld[SID_COUNT_AT] == sidNew[SID_COUNT_AT]) return 1;
    OMBRA_LOG(OMBRA_ERROR, "Incompatible SIDs (%d and %d subauthorities)", sidOld[SID_COUNT_AT],
              sidNew[SID_COUNT_AT]);
    return 0;
}

/* ---- Matching and patching ---- */

/* What prefix mode compares and overwrites: all after the count. */
static bool _samePrefix(const uint8_t* sid, const uint8_t* sidOld, uint32_t size) {
    return memcmp(sid + SID_AUTHORITY_AT, sidOld + SID_AUTHORITY_AT, size - SID_AUTHORITY_AT) == 0;
}

static void _putPrefix(uint8_t* sid, const uint8_t* sidNew, uint32_t size) {
    memcpy(sid + SID_AUTHORITY_AT, sidNew + SID_AUTHORITY_AT, size - SID_AUTHORITY_AT);
}

int sidReplace(uint8_t* target, const uint8_t* sidOld, const uint8_t* sidNew, uint32_t size, int exact,
               const char* place) {
    if (target[SID_COUNT_AT] < sidOld[SID_COUNT_AT]) return 0;
    if (exact) {
        if (target[SID_COUNT_AT] != sidOld[SID_COUNT_AT] || memcmp(target, sidOld, size) != 0) return 0;
        memcpy(target, sidNew, size);
        return 1;
    }
    if (!_samePrefix(target, sidOld, size)) return 0;
    OMBRA_LOG(OMBRA_DEBUG, "Matching SID [%d]..-%u in %hs", target[SID_COUNT_AT], _lastSubAuthority(target),
              place);
    _putPrefix(target, sidNew, size);
    return 1;
}

/* Whether a SID that is or begins with the old one lies at the head of room bytes, at least size of them. */
static bool _matchesInData(const uint8_t* candidate, uint32_t room, const uint8_t* sidOld, uint32_t size) {
    const uint8_t count = candidate[SID_COUNT_AT];
    return _samePrefix(candidate, sidOld, size) && candidate[SID_REVISION_AT] == sidOld[SID_REVISION_AT] &&
           count >= sidOld[SID_COUNT_AT] && count <= SID_MOST_SUBAUTHORITIES && _sidSize(candidate) <= room;
}

/* The search goes by the low byte of the old SID's last sub-authority, which is rarer in data than a SID's
 * first bytes are. */
int sidReplaceInData(uint8_t* data, uint32_t length, const uint8_t* sidOld, const uint8_t* sidNew,
                     uint32_t size, int exact) {
    if (length < size) return 0;
    const uint32_t anchor = 4 + 4u * sidOld[SID_COUNT_AT];
    const uint8_t anchorByte = sidOld[anchor];
    uint8_t* const end = data + anchor + (length - size) + 1;  // beyond the last offset of an anchor
    uint8_t* at = data + anchor;
    int result = 0;
    while (at < end) {
        at = static_cast<uint8_t*>(memchr(at, anchorByte, static_cast<size_t>(end - at)));
        if (at == nullptr) break;
        uint8_t* const candidate = at - anchor;
        const uint32_t room = length - static_cast<uint32_t>(candidate - data);
        uint32_t step = 1;
        if (exact) {
            if (memcmp(candidate, sidOld, size) == 0) {
                memcpy(candidate, sidNew, size);
                step = size;
            }
        } else if (_matchesInData(candidate, room, sidOld, size)) {
            const uint8_t* last = candidate + _sidSize(candidate) - 4;
            OMBRA_LOG(OMBRA_DEBUG, "Matching SID [%d]..-0x%02x%02x%02x%02x", candidate[SID_COUNT_AT], last[3],
                      last[2], last[1], last[0]);
            _putPrefix(candidate, sidNew, size);
            step = _sidSize(candidate);
        }
        if (step > 1) result = 1;
        if (step >= static_cast<size_t>(end - at)) break;
        at += step;
    }
    return result;
}

int sidMatchesText(const void* text, uint32_t length, const UNICODE_STRING* oldText, int exact) {
    const uint32_t head = oldText->Length;
    if (length < head || (exact && length != head) || memcmp(text, oldText->Buffer, head) != 0) return 0;
    if (length == head) return 1;
    static const WCHAR hyphen = '-';
    const bool whole = length - head >= sizeof hyphen;
    return whole && memcmp(static_cast<const uint8_t*>(text) + head, &hyphen, sizeof hyphen) == 0 ? 1 : 0;
}

DWORD sidReplaceInName(const UNICODE_STRING* name, UNICODE_STRING* result, const UNICODE_STRING* oldText,
                       const UNICODE_STRING* newText, int exact, int* changed, memBuf* buffer) {
    if (!sidMatchesText(name->Buffer, name->Length, oldText, exact)) return 0;
    UNICODE_STRING tail;
    tail.Length = static_cast<USHORT>(name->Length - oldText->Length);
    tail.MaximumLength = tail.Length;
    tail.Buffer = name->Buffer + oldText->Length / sizeof(WCHAR);
    const uint32_t total = uint32_t{newText->Length} + tail.Length;
    if (total > UINT16_MAX) {
        OMBRA_LOG(OMBRA_WARN, "Too long a name with the new SID (%u bytes), left alone", total);
        return 0;
    }
    if (!exact) OMBRA_LOG(OMBRA_DEBUG, "Matching SID ..%wZ", &tail);
    if (buffer->size < total && !memBufResize(buffer, total)) return ERROR_NOT_ENOUGH_MEMORY;
    memcpy(buffer->data, newText->Buffer, newText->Length);
    memcpy(buffer->data + newText->Length, tail.Buffer, tail.Length);
    result->Length = static_cast<USHORT>(total);
    result->MaximumLength = result->Length;
    result->Buffer = reinterpret_cast<WCHAR*>(buffer->data);
    *changed = 1;
    return 0;
}

/* ---- Descriptors ---- */

/* The SIDs to replace, and what to call the object in messages. */
struct _patch {
    const uint8_t* sidOld;
    const uint8_t* sidNew;
    uint32_t size;
    int exact;
    const UNICODE_STRING* name;
};

enum : uint32_t { ACE_SID_AT = 8 };  // after the header and the access mask

/* Reports a failed call under the name of the operation that made it; gives the last error. */
static DWORD _failedFor(const char* function, const char* call, const UNICODE_STRING* name) {
    const DWORD error = ombraLastError();
    OMBRA_LOG_AS(function, OMBRA_ERROR, "Win API call %hs returned %d for %wZ", call, error, name);
    return error;
}

static bool _isPlainAce(uint8_t type) {
    return type == ACCESS_ALLOWED_ACE_TYPE || type == ACCESS_DENIED_ACE_TYPE ||
           type == SYSTEM_AUDIT_ACE_TYPE || type == SYSTEM_ALARM_ACE_TYPE;
}

static DWORD sidReplaceInAcl(PACL acl, const _patch* patch, int* touched, const char* place) {
    ACL_SIZE_INFORMATION information;
    if (!GetAclInformation(acl, &information, sizeof information, AclSizeInformation)) {
        return _failedFor(__func__, "GetAclInformation", patch->name);
    }
    for (DWORD index = information.AceCount; index-- > 0;) {
        void* ace = nullptr;
        if (!GetAce(acl, index, &ace)) return _failedFor(__func__, "GetAce", patch->name);
        uint8_t* const bytes = static_cast<uint8_t*>(ace);
        if (!_isPlainAce(bytes[0])) continue;
        if (sidReplace(bytes + ACE_SID_AT, patch->sidOld, patch->sidNew, patch->size, patch->exact, place))
            *touched = 1;
    }
    return 0;
}

/* The parts of a descriptor image; each null when it is not there. */
struct _parts {
    PSID owner;
    PSID group;
    PACL dacl;
    PACL sacl;
};

static DWORD _fetchParts(PSECURITY_DESCRIPTOR descriptor, const UNICODE_STRING* name, _parts* parts) {
    static const char function[] = "sidReplaceInSDInternal";
    BOOL present;
    BOOL defaulted;
    if (!GetSecurityDescriptorOwner(descriptor, &parts->owner, &defaulted)) {
        return _failedFor(function, "GetSecurityDescriptorOwner", name);
    }
    if (parts->owner == nullptr) OMBRA_LOG_AS(function, OMBRA_DEBUG, "%wZ has no owner", name);
    if (!GetSecurityDescriptorGroup(descriptor, &parts->group, &defaulted)) {
        return _failedFor(function, "GetSecurityDescriptorGroup", name);
    }
    if (parts->group == nullptr) OMBRA_LOG_AS(function, OMBRA_DEBUG, "%wZ has no primary group", name);
    if (!GetSecurityDescriptorDacl(descriptor, &present, &parts->dacl, &defaulted)) {
        return _failedFor(function, "GetSecurityDescriptorDacl", name);
    }
    if (!GetSecurityDescriptorSacl(descriptor, &present, &parts->sacl, &defaulted)) {
        return _failedFor(function, "GetSecurityDescriptorSacl", name);
    }
    return 0;
}

DWORD sidReplaceInSDInternal(void* descriptor, const uint8_t* sidOld, const uint8_t* sidNew, uint32_t size,
                             const UNICODE_STRING* name, int exact, int* touched) {
    const _patch patch = {sidOld, sidNew, size, exact, name};
    _parts parts = {};
    DWORD error = _fetchParts(descriptor, name, &parts);
    if (error == 0 && parts.dacl != nullptr) error = sidReplaceInAcl(parts.dacl, &patch, touched, "DACL");
    if (error == 0 && parts.sacl != nullptr) error = sidReplaceInAcl(parts.sacl, &patch, touched, "SACL");
    if (error != 0) return error;
    uint8_t* const owner = static_cast<uint8_t*>(parts.owner);
    uint8_t* const group = static_cast<uint8_t*>(parts.group);
    const bool patched = (owner != nullptr && sidReplace(owner, sidOld, sidNew, size, exact, "owner")) ||
                         (group != nullptr && sidReplace(group, sidOld, sidNew, size, exact, "group"));
    if (patched) *touched = 1;
    return 0;
}

/* ---- Descriptors of files ---- */

static constexpr SECURITY_INFORMATION _wholeDescriptor =
    OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION |
    SACL_SECURITY_INFORMATION;
static constexpr uint32_t _growthRoom = 256;  // bytes beyond what a read asks for
static constexpr int _mostWrites = 2;         // what an owner and a group that both match take

/* The operations, under whose names their helpers report. */
static const char _replacingInFile[] = "sidReplaceInFileSD";
static const char _replacingInKey[] = "sidReplaceInKeySD";

static DWORD _failedForFile(const char* call, DWORD error, const WCHAR* path) {
    OMBRA_LOG_AS(_replacingInFile, OMBRA_ERROR, "Win API call %hs returned %d for %ws", call, error, path);
    return error;
}

static DWORD _getFileSecurity(const WCHAR* path, const memBuf* buffer, DWORD* needed) {
    return GetFileSecurityW(path, _wholeDescriptor, buffer->data, buffer->size, needed) ? 0
                                                                                        : ombraLastError();
}

/* The states READ, READ DENIED and GROW: the file's descriptor in the buffer. */
static DWORD _readFileSD(const WCHAR* path, int simulate, memBuf* buffer) {
    for (;;) {
        DWORD needed = 0;
        DWORD error = _getFileSecurity(path, buffer, &needed);
        if (error == ERROR_ACCESS_DENIED && !simulate && takeFileOwnership(path) == 0) {
            OMBRA_LOG_AS(_replacingInFile, OMBRA_WARN, "Original security attributes lost for %ws", path);
            error = _getFileSecurity(path, buffer, &needed);
        }
        if (error == 0) return 0;
        if (error != ERROR_INSUFFICIENT_BUFFER || needed <= buffer->size ||
            needed > UINT32_MAX - _growthRoom) {
            return _failedForFile("GetFileSecurity", error, path);
        }
        if (!memBufResize(buffer, needed + _growthRoom)) return ERROR_NOT_ENOUGH_MEMORY;
    }
}

static DWORD _setFileSecurity(const WCHAR* path, const memBuf* buffer) {
    return SetFileSecurityW(path, _wholeDescriptor, buffer->data) ? 0 : ombraLastError();
}

/* The states WRITE and WRITE DENIED. The buffer still holds what the file had, patched, so nothing is lost
 * when the file has to be seized. */
static DWORD _writeFileSD(const WCHAR* path, const memBuf* buffer) {
    DWORD error = _setFileSecurity(path, buffer);
    if (error == ERROR_ACCESS_DENIED && takeFileOwnership(path) == 0) error = _setFileSecurity(path, buffer);
    if (error != 0) return _failedForFile("SetFileSecurity", error, path);
    OMBRA_LOG_AS(_replacingInFile, OMBRA_DEBUG, "Replaced old SID in file SD %ws", path);
    return 0;
}

/* A counted string over a path, for messages; a path beyond its reach is shown as far as it goes. */
static UNICODE_STRING _counted(const WCHAR* path) {
    const size_t length = wideLength(path);
    constexpr size_t most = UINT16_MAX / sizeof(WCHAR);
    UNICODE_STRING counted;
    counted.Length = static_cast<USHORT>((length < most ? length : most) * sizeof(WCHAR));
    counted.MaximumLength = counted.Length;
    counted.Buffer = const_cast<WCHAR*>(path);
    return counted;
}

/* ---- Descriptors of keys ---- */

DWORD sidQueryKeySD(HANDLE key, const UNICODE_STRING* name, memBuf* buffer) {
    for (;;) {
        DWORD length = buffer->size;
        const LSTATUS error =
            RegGetKeySecurity(static_cast<HKEY>(key), _wholeDescriptor, buffer->data, &length);
        if (error == ERROR_SUCCESS) return 0;
        if (error != ERROR_INSUFFICIENT_BUFFER || length <= buffer->size ||
            length > UINT32_MAX - _growthRoom) {
            OMBRA_LOG(OMBRA_ERROR, "Win API call %hs returned %d for %wZ", "RegGetKeySecurity", error, name);
            return static_cast<DWORD>(error);
        }
        if (!memBufResize(buffer, length + _growthRoom)) return ERROR_NOT_ENOUGH_MEMORY;
    }
}

static DWORD _writeKeySD(HANDLE key, const UNICODE_STRING* name, const memBuf* buffer) {
    const LSTATUS error = RegSetKeySecurity(static_cast<HKEY>(key), _wholeDescriptor, buffer->data);
    if (error != ERROR_SUCCESS) {
        OMBRA_LOG_AS(_replacingInKey, OMBRA_ERROR, "Win API call %hs returned %d for %wZ",
                     "RegSetKeySecurity", error, name);
        return static_cast<DWORD>(error);
    }
    OMBRA_LOG_AS(_replacingInKey, OMBRA_DEBUG, "Replaced old SID in key SD %wZ", name);
    return 0;
}

/* ---- Reading, patching and writing ---- */

/* An object whose descriptor is patched: a file or directory by its path, or an open key. */
struct _object {
    const WCHAR* path;  // null for a key
    HANDLE key;
    const UNICODE_STRING* name;
    int simulate;
};

/* Reports of two lines the one for this kind of object; both take its name. */
static void _report(const _object* object, ombraLevel level, const char* ofFile, const char* ofKey) {
    if (object->path != nullptr) {
        OMBRA_LOG_AS(_replacingInFile, level, ofFile, object->path);
    } else {
        OMBRA_LOG_AS(_replacingInKey, level, ofKey, object->name);
    }
}

/* Reads, patches and writes until a reading finds nothing left to patch. */
static DWORD _replaceInSD(const _object* object, const uint8_t* sidOld, const uint8_t* sidNew, uint32_t size,
                          int exact, memBuf* buffer) {
    for (int writes = 0;;) {
        int touched = 0;
        DWORD error = object->path != nullptr ? _readFileSD(object->path, object->simulate, buffer)
                                              : sidQueryKeySD(object->key, object->name, buffer);
        if (error == 0)
            error = sidReplaceInSDInternal(buffer->data, sidOld, sidNew, size, object->name, exact, &touched);
        if (error != 0 || !touched) return error;
        if (object->simulate) {
            _report(object, OMBRA_INFO, "Found old SID in file SD %ws (simulation mode)",
                    "Found old SID in key SD %wZ (simulation mode)");
            return 0;
        }
        if (++writes > _mostWrites) {
            _report(object, OMBRA_ERROR, "Failed to replace old SID in file SD %ws",
                    "Failed to replace old SID in key SD %wZ");
            return ERROR_INTERNAL_ERROR;
        }
        error = object->path != nullptr ? _writeFileSD(object->path, buffer)
                                        : _writeKeySD(object->key, object->name, buffer);
        if (error != 0) return error;
    }
}

DWORD sidReplaceInFileSD(const WCHAR* path, const uint8_t* sidOld, const uint8_t* sidNew, uint32_t size,
                         int exact, int simulate, memBuf* buffer) {
    const UNICODE_STRING name = _counted(path);
    const _object file = {path, nullptr, &name, simulate};
    return _replaceInSD(&file, sidOld, sidNew, size, exact, buffer);
}

DWORD sidReplaceInKeySD(HANDLE key, const UNICODE_STRING* name, const uint8_t* sidOld, const uint8_t* sidNew,
                        uint32_t size, int exact, int simulate, memBuf* buffer) {
    const _object object = {nullptr, key, name, simulate};
    return _replaceInSD(&object, sidOld, sidNew, size, exact, buffer);
}
