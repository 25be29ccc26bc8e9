/* SPDX-License-Identifier: GPL-2.0-or-later */
#define OMBRA_UNIT "regtk/regtk_open"
#include "common/log.h"
#include "regtk/regtk.h"

/* The predefined roots that native calls can't take, and the keys that they stand for. */
struct regPredefinedKey {
    ULONG_PTR handle;
    UNICODE_STRING path;
};

static const WCHAR _machinePath[] = TEXT("\\Registry\\Machine");
static const WCHAR _userPath[] = TEXT("\\Registry\\User");

static const regPredefinedKey regPredefinedKeys[] = {
    {0xFFFFFFFF80000002,
     {sizeof _machinePath - sizeof(WCHAR), sizeof _machinePath, const_cast<WCHAR*>(_machinePath)}},
    {0xFFFFFFFF80000003, {sizeof _userPath - sizeof(WCHAR), sizeof _userPath, const_cast<WCHAR*>(_userPath)}},
    {0, {0, 0, nullptr}},
};

static bool _isMissing(NTSTATUS status) {
    return status == STATUS_OBJECT_PATH_NOT_FOUND || status == STATUS_OBJECT_NAME_NOT_FOUND;
}

static ombraLevel _failureLevel(NTSTATUS status, uint32_t flags) {
    if ((flags & REG_QUIET) != 0) return OMBRA_DEBUG;
    if ((flags & REG_IGNORE_MISSING) != 0 && _isMissing(status)) return OMBRA_DEBUG;
    if ((flags & REG_TAKE_OWNERSHIP) != 0 && status == STATUS_ACCESS_DENIED) return OMBRA_DEBUG;
    return OMBRA_ERROR;
}

/* One attempt. OBJ_OPENIF is decided here alone, whatever the record says. */
static NTSTATUS _doOpenCreateKey(HANDLE* key, ACCESS_MASK access, const OBJECT_ATTRIBUTES* attributes,
                                 ULONG titleIndex, const UNICODE_STRING* className, ULONG createOptions,
                                 uint32_t flags) {
    OBJECT_ATTRIBUTES own = *attributes;
    if ((flags & REG_NO_OPENIF) != 0) {
        own.Attributes &= ~static_cast<ULONG>(OBJ_OPENIF);
    } else {
        own.Attributes |= OBJ_OPENIF;
    }
    const bool create = (flags & REG_CREATE) != 0;
    const NTSTATUS status = create
                                ? ZwCreateKey(key, access, &own, titleIndex,
                                              const_cast<UNICODE_STRING*>(className), createOptions, nullptr)
                                : ZwOpenKey(key, access, &own);
    if (status >= 0) return status;
    OMBRA_LOG(_failureLevel(status, flags), "Native API call %hs returned %#X for %wZ, access=%#x",
              create ? "ZwCreateKey" : "ZwOpenKey", status, own.ObjectName, access);
    return status;
}

/* A real handle for a predefined one. */
static NTSTATUS _regOpenPredefinedKey(HANDLE* key, HANDLE predefined) {
    const ULONG_PTR value = reinterpret_cast<ULONG_PTR>(predefined);
    for (const regPredefinedKey* row = regPredefinedKeys; row->handle != 0; row++) {
        if (row->handle != value) continue;
        UNICODE_STRING path = row->path;
        OBJECT_ATTRIBUTES attributes = {};
        attributes.Length = sizeof attributes;
        attributes.ObjectName = &path;
        attributes.Attributes = OBJ_CASE_INSENSITIVE;
        const NTSTATUS status = ZwOpenKey(key, KEY_ALL_ACCESS, &attributes);
        if (status < 0) {
            OMBRA_LOG(OMBRA_ERROR, "Native API call %hs returned %#X for %wZ", "ZwOpenKey", status,
                      &row->path);
        }
        return status;
    }
    OMBRA_LOG(OMBRA_ERROR, "Unrecognized handle %#Ix", value);
    return STATUS_INVALID_HANDLE;
}

static const char _road[] = "_regOpenCreateKey";  // what the recovery reports as

static NTSTATUS _openAgain(HANDLE* key, ACCESS_MASK access, const OBJECT_ATTRIBUTES* attributes) {
    OBJECT_ATTRIBUTES own = *attributes;
    const NTSTATUS status = ZwOpenKey(key, access, &own);
    if (status < 0) {
        OMBRA_LOG_AS(_road, OMBRA_WARN, "Native API call %hs returned %#X for %wZ", "ZwOpenKey", status,
                     own.ObjectName);
    }
    return status;
}

/* An open or create as its caller asked for it. */
struct _request {
    HANDLE* key;
    ACCESS_MASK access;
    const OBJECT_ATTRIBUTES* attributes; /* a real root */
    ULONG titleIndex;
    const UNICODE_STRING* className;
    ULONG createOptions;
    uint32_t flags;
};

static NTSTATUS _attempt(const _request* request, uint32_t flags) {
    return _doOpenCreateKey(request->key, request->access, request->attributes, request->titleIndex,
                            request->className, request->createOptions, flags);
}

/* The key's descriptor as it is now, in secBuf; null when it can't be read. */
static void* _readOldSec(const OBJECT_ATTRIBUTES* attributes, memBuf* secBuf) {
    HANDLE key = nullptr;
    if (_openAgain(&key, READ_CONTROL, attributes) < 0) return nullptr;
    const DWORD error = regGetKeySec(key, REG_SEC_ALL, secBuf);
    ZwClose(key);
    return error == 0 ? secBuf->data : nullptr;
}

static bool _writeOldSec(const OBJECT_ATTRIBUTES* attributes, void* saved) {
    HANDLE key = nullptr;
    if (_openAgain(&key, WRITE_DAC | WRITE_OWNER, attributes) < 0) return false;
    const DWORD error = regSetKeySec(key, REG_SEC_ALL, saved);
    ZwClose(key);
    return error == 0;
}

/* Opens a key that refuses access: the old descriptor is read, the running user made owner with a null DACL,
 * the attempt made again, and the old descriptor put back or handed over. The status is that of the second
 * attempt. */
static NTSTATUS _recover(const _request* request, memBuf* secBuf, void** savedSec) {
    const OBJECT_ATTRIBUTES* attributes = request->attributes;
    void* saved = _readOldSec(attributes, secBuf);
    if ((request->flags & REG_QUIET) == 0) {
        OMBRA_LOG_AS(_road, OMBRA_INFO, "Taking ownership of %wZ", attributes->ObjectName);
    }
    const bool taken = regTakesOwnershipU(attributes->RootDirectory, attributes->ObjectName) == 0;
    constexpr uint32_t firstOnly = REG_IGNORE_MISSING | REG_QUIET | REG_TAKE_OWNERSHIP;
    const NTSTATUS status = _attempt(request, request->flags & ~firstOnly);
    if (status >= 0) {
        OMBRA_LOG_AS(_road, OMBRA_DEBUG, "Finally open %wZ, access=%#x", attributes->ObjectName,
                     request->access);
    }
    if (!taken) return status;
    bool settled = false;
    if (savedSec != nullptr && status >= 0) {
        *savedSec = saved;
        settled = saved != nullptr;
    } else if (saved != nullptr) {
        settled = _writeOldSec(attributes, saved);
    }
    if (!settled) {
        OMBRA_LOG_AS(_road, OMBRA_WARN, "Original security attributes lost for %wZ", attributes->ObjectName);
    }
    return status;
}

/* The road of every open and create. Without secBuf a refusal stands. */
static NTSTATUS _regOpenCreateKey(HANDLE* key, ACCESS_MASK access, const OBJECT_ATTRIBUTES* attributes,
                                  ULONG titleIndex, const UNICODE_STRING* className, ULONG createOptions,
                                  uint32_t flags, memBuf* secBuf, void** savedSec) {
    OBJECT_ATTRIBUTES own = *attributes;
    if (savedSec != nullptr) *savedSec = nullptr;
    const bool predefined = regIsPredefined(own.RootDirectory);
    if (predefined) {
        const NTSTATUS status = _regOpenPredefinedKey(&own.RootDirectory, attributes->RootDirectory);
        if (status < 0) return status;
    }
    const _request request = {key, access, &own, titleIndex, className, createOptions, flags};
    NTSTATUS status = _attempt(&request, flags);
    if (status == STATUS_ACCESS_DENIED && (flags & REG_TAKE_OWNERSHIP) != 0 && secBuf != nullptr) {
        status = _recover(&request, secBuf, savedSec);
    }
    if (predefined) ZwClose(own.RootDirectory);
    return status;
}

NTSTATUS regNtOpenKey(HANDLE* key, ACCESS_MASK access, const OBJECT_ATTRIBUTES* attributes, uint32_t flags) {
    memBuf secBuf = {};
    const NTSTATUS status = regNtOpenKeySaveSec(key, access, attributes, flags, &secBuf, nullptr);
    memBufFree(&secBuf);
    return status;
}

NTSTATUS regNtOpenKeySaveSec(HANDLE* key, ACCESS_MASK access, const OBJECT_ATTRIBUTES* attributes,
                             uint32_t flags, memBuf* secBuf, void** savedSec) {
    return _regOpenCreateKey(key, access, attributes, 0, nullptr, 0, flags & ~REG_CREATE, secBuf, savedSec);
}

NTSTATUS regNtCreateKey(HANDLE* key, ACCESS_MASK access, const OBJECT_ATTRIBUTES* attributes,
                        ULONG titleIndex, const UNICODE_STRING* className, ULONG createOptions,
                        uint32_t flags) {
    memBuf secBuf = {};
    const NTSTATUS status = _regOpenCreateKey(key, access, attributes, titleIndex, className, createOptions,
                                              flags | REG_CREATE, &secBuf, nullptr);
    memBufFree(&secBuf);
    return status;
}

int regOpenKeyU(HANDLE root, const UNICODE_STRING* name, ACCESS_MASK access, uint32_t flags, HANDLE* key,
                DWORD* error) {
    UNICODE_STRING ownName = *name;
    const OBJECT_ATTRIBUTES attributes = regAttributesBelow(root, &ownName);
    memBuf secBuf = {};
    const NTSTATUS status =
        _regOpenCreateKey(key, access, &attributes, 0, nullptr, 0, flags, &secBuf, nullptr);
    memBufFree(&secBuf);
    if (status >= 0) {
        if (error != nullptr) *error = 0;
        return 1;
    }
    const bool silent = (flags & REG_IGNORE_MISSING) != 0 && _isMissing(status);
    if (error != nullptr && !silent) *error = RtlNtStatusToDosError(status);
    return 0;
}

int regOpenKey(HANDLE root, const WCHAR* name, ACCESS_MASK access, uint32_t flags, HANDLE* key,
               DWORD* error) {
    UNICODE_STRING counted;
    RtlInitUnicodeString(&counted, name);
    return regOpenKeyU(root, &counted, access, flags, key, error);
}
