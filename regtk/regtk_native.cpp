/* SPDX-License-Identifier: GPL-2.0-or-later */
#define OMBRA_UNIT "regtk/regtk_native"
#include <cstring>

#include "common/log.h"
#include "common/wide.h"
#include "regtk/regtk.h"

/* ---- The scan engine ---- */

static constexpr int32_t _scanDepths = 256;         // levels below the scanned key
static constexpr uint32_t _scanRoom = 512;          // first size of info and of path, in bytes
static constexpr uint32_t _flagsOfTrees = 0xFFFFF;  // what of the flag word reaches a tree operation
static const char _scanning[] = "_regScanImpl";     // what the helpers of the scan report as

/* What all levels of one scan share. */
struct _scan {
    regScanCallback callback;
    void* data;
    uint32_t flags;
    UNICODE_STRING path;  // relative to the scanned key; its buffer is the scan's
    memBuf info;          // the record of the last enumeration or query, whatever level made it
};

/* One child of one level. */
struct _scanChild {
    HANDLE handle;          // null when there is none to close
    void* saved;            // its descriptor before it was taken over, inside the level's secBuf; or null
    USHORT savedLength;     // of the path, before the child was appended
    USHORT appendedLength;  // of the path, with the child; 0 while the path does not hold it
    uint64_t subscope[2];
    uint32_t lastResult;
};

static const KEY_NODE_INFORMATION* _node(const _scan* scan) {
    return reinterpret_cast<const KEY_NODE_INFORMATION*>(scan->info.data);
}

/* The next child's basic record into info. */
static NTSTATUS _enumerateChild(_scan* scan, HANDLE key, ULONG index) {
    for (;;) {
        ULONG length = 24;
        const NTSTATUS status =
            ZwEnumerateKey(key, index, KeyBasicInformation, scan->info.data, scan->info.size, &length);
        if (!regIsTooSmallOrMismatch(status)) return status;
        if (!memBufResize(&scan->info, length)) return STATUS_NO_MEMORY;
    }
}

/* The child's node record into info. */
static NTSTATUS _queryChild(_scan* scan, HANDLE child) {
    for (;;) {
        ULONG length = 32;
        const NTSTATUS status =
            ZwQueryKey(child, KeyNodeInformation, scan->info.data, scan->info.size, &length);
        if (!regIsTooSmallOrMismatch(status)) return status;
        if (!memBufResize(&scan->info, length)) return STATUS_NO_MEMORY;
    }
}

/* A handle in one of the scan's 64-bit words. */
static uint64_t _handleWord(HANDLE handle) {
    return reinterpret_cast<ULONG_PTR>(handle);
}
static HANDLE _wordHandle(uint64_t word) {
    return reinterpret_cast<HANDLE>(static_cast<ULONG_PTR>(word));
}

/* What the path's length is to be with the child, in bytes. */
static uint32_t _lengthWith(const _scanChild* child, const UNICODE_STRING* name) {
    return name->Length + (child->savedLength == 0 ? 0 : child->savedLength + 2u);
}

/* Appends the child's name to the path, which grows to exactly what it needs. */
static NTSTATUS _appendChild(_scan* scan, _scanChild* child, const UNICODE_STRING* name) {
    const uint32_t needed = _lengthWith(child, name);
    if (needed > UINT16_MAX) {
        OMBRA_LOG_AS(_scanning, OMBRA_ERROR, "Too long a path below %wZ", &scan->path);
        return STATUS_NAME_TOO_LONG;
    }
    if (scan->path.MaximumLength < needed) {
        scan->path.MaximumLength = static_cast<USHORT>(needed);
        scan->path.Buffer = static_cast<WCHAR*>(ombraRealloc(scan->path.Buffer, needed));
        if (scan->path.Buffer == nullptr) {
            scan->path.Length = scan->path.MaximumLength = 0;
            return STATUS_NO_MEMORY;
        }
    }
    static const WCHAR backslash[] = TEXT("\\");
    const UNICODE_STRING separator = regCounted(backslash, sizeof(WCHAR));
    if (child->savedLength != 0) RtlAppendUnicodeStringToString(&scan->path, &separator);
    RtlAppendUnicodeStringToString(&scan->path, name);
    child->appendedLength = scan->path.Length;
    return STATUS_SUCCESS;
}

/* Brings the path back to a length, unless a failed growth has left it without a buffer. */
static void _cutPath(_scan* scan, USHORT length) {
    if (scan->path.Buffer != nullptr) scan->path.Length = length;
}

/* What messages call the child: its path, or its name alone where there is no path that holds it. */
static const UNICODE_STRING* _calledAs(const _scan* scan, const _scanChild* child,
                                       const UNICODE_STRING* name) {
    return child->appendedLength != 0 && scan->path.Buffer != nullptr ? &scan->path : name;
}

static void _reportLost(const UNICODE_STRING* child) {
    OMBRA_LOG_AS(_scanning, OMBRA_WARN, "Original security attributes lost for %wZ", child);
}

/* Puts the descriptor back that taking ownership displaced. */
static void _writeBack(const _scanChild* child, const UNICODE_STRING* calledAs) {
    if (child->saved == nullptr) return;
    UNICODE_STRING self = {};
    OBJECT_ATTRIBUTES attributes = regAttributesBelow(child->handle, &self);
    HANDLE key = nullptr;
    const NTSTATUS status = ZwOpenKey(&key, WRITE_DAC | WRITE_OWNER, &attributes);
    if (status == STATUS_KEY_DELETED) return;
    bool lost = true;
    if (status < 0) {
        OMBRA_LOG_AS(_scanning, OMBRA_WARN, "Native API call %hs returned %#X for %wZ", "ZwOpenKey", status,
                     calledAs);
    } else {
        lost = regSetKeySec(key, REG_SEC_ALL, child->saved) != 0;
        ZwClose(key);
    }
    if (lost) _reportLost(calledAs);
}

static NTSTATUS _regScanImpl(_scan* scan, HANDLE key, uint64_t scope, int32_t depth);

static uint32_t _call(_scan* scan, HANDLE parent, const KEY_NODE_INFORMATION* record, uint64_t scope,
                      _scanChild* child, int32_t depth) {
    child->lastResult = scan->callback(parent, &scan->path, record, scope, child->subscope, scan->data,
                                       depth + 1, scan->flags);
    return child->lastResult;
}

/* The post-call, over the status that the descent gave. */
static NTSTATUS _postCall(_scan* scan, HANDLE parent, uint64_t scope, _scanChild* child, int32_t depth,
                          NTSTATUS status) {
    switch (_call(scan, parent, nullptr, scope, child, depth)) {
        case SCAN_NEXT:
        case SCAN_RESTART:
            return status;
        case SCAN_FAIL:
            return STATUS_UNSUCCESSFUL;
        default:
            OMBRA_LOG_AS(_scanning, OMBRA_ERROR, "callback returned unexpected code %d", child->lastResult);
            return STATUS_INTERNAL_ERROR;
    }
}

/* The pre-call, and what it asks for. */
static NTSTATUS _callAndDescend(_scan* scan, HANDLE parent, uint64_t scope, _scanChild* child, int32_t depth,
                                NTSTATUS status) {
    switch (_call(scan, parent, _node(scan), scope, child, depth)) {
        case SCAN_NEXT:
        case SCAN_RESTART:
            return status;
        case SCAN_DESCEND:
            status = _regScanImpl(scan, child->handle, child->subscope[0], depth + 1);
            _cutPath(scan, child->appendedLength);
            if (child->subscope[0] == 0) return status;
            return _postCall(scan, parent, scope, child, depth, status);
        case SCAN_FAIL:
            return STATUS_UNSUCCESSFUL;
        default: {
            const KEY_NODE_INFORMATION* const record = _node(scan);
            const UNICODE_STRING name = regCounted(record->Name, record->NameLength);
            OMBRA_LOG_AS(_scanning, OMBRA_ERROR, "callback on %wZ returned unexpected code %d", &name,
                         child->lastResult);
            return STATUS_INTERNAL_ERROR;
        }
    }
}

/* The callback and the descent for an open child whose record is in info. */
static NTSTATUS _treatChild(_scan* scan, HANDLE parent, uint64_t scope, _scanChild* child, int32_t depth,
                            NTSTATUS status) {
    const KEY_NODE_INFORMATION* const record = _node(scan);
    const UNICODE_STRING name = regCounted(record->Name, record->NameLength);
    const NTSTATUS appended = _appendChild(scan, child, &name);
    if (appended < 0) return appended;
    status = _callAndDescend(scan, parent, scope, child, depth, status);
    if (child->subscope[0] == 0 && child->subscope[1] == 0) return status;
    OMBRA_LOG_AS(_scanning, OMBRA_ERROR, "subscope is not cleaned");
    return STATUS_INTERNAL_ERROR;
}

/* Names a child that is passed over in the path, for what is to be said of its descriptor. */
static NTSTATUS _appendPassedOver(_scan* scan, _scanChild* child, const UNICODE_STRING* name) {
    if (child->saved == nullptr || _lengthWith(child, name) > UINT16_MAX) return STATUS_SUCCESS;
    return _appendChild(scan, child, name);
}

/* The open child whose enumerated name this is. */
static NTSTATUS _scanOpenChild(_scan* scan, HANDLE key, uint64_t scope, int32_t depth, _scanChild* child,
                               const UNICODE_STRING* name) {
    if (regIsPredefined(child->handle)) {
        const NTSTATUS status = _appendPassedOver(scan, child, name);
        if (child->saved != nullptr) _reportLost(_calledAs(scan, child, name));  // no key to put it back on
        return status;
    }
    NTSTATUS status = _queryChild(scan, child->handle);
    if (status < 0 && scan->info.data != nullptr) {  // lost when it could not grow
        OMBRA_LOG_AS(_scanning, OMBRA_WARN, "Native API call %hs returned %#X for %wZ %wZ %p", "ZwQueryKey",
                     status, &scan->path, name, child->handle);
        status = _appendPassedOver(scan, child, name);
    } else if (status >= 0) {
        status = _treatChild(scan, key, scope, child, depth, status);
    }
    _writeBack(child, _calledAs(scan, child, name));
    ZwClose(child->handle);
    return status;
}

/* The child whose basic record is in info. A negative status ends the level. */
static NTSTATUS _scanOneChild(_scan* scan, HANDLE key, uint64_t scope, int32_t depth, memBuf* secBuf,
                              _scanChild* child) {
    child->savedLength = scan->path.Length;
    const KEY_BASIC_INFORMATION* const basic =
        reinterpret_cast<const KEY_BASIC_INFORMATION*>(scan->info.data);
    WCHAR nameText[256];  // names have at most 255 characters; the query overwrites info
    const ULONG nameBytes = basic->NameLength < sizeof nameText ? basic->NameLength : ULONG{sizeof nameText};
    memcpy(nameText, basic->Name, nameBytes);
    UNICODE_STRING name = regCounted(nameText, nameBytes);
    const OBJECT_ATTRIBUTES attributes = regAttributesBelow(key, &name);
    const ACCESS_MASK access =
        (scan->flags & REG_SCAN_LIGHT) != 0
            ? KEY_QUERY_VALUE | KEY_ENUMERATE_SUB_KEYS
            : READ_CONTROL | KEY_QUERY_VALUE | KEY_SET_VALUE | KEY_CREATE_SUB_KEY | KEY_ENUMERATE_SUB_KEYS;
    NTSTATUS status =
        regNtOpenKeySaveSec(&child->handle, access, &attributes, scan->flags, secBuf, &child->saved);
    if (status < 0) {
        child->handle = nullptr;
        return status;
    }
    status = _scanOpenChild(scan, key, scope, depth, child, &name);
    _cutPath(scan, child->savedLength);
    return status;
}

static NTSTATUS _scanLevel(_scan* scan, HANDLE key, uint64_t scope, int32_t depth, memBuf* secBuf) {
    for (ULONG index = 0;;) {
        NTSTATUS status = _enumerateChild(scan, key, index);
        if (status == STATUS_NO_MORE_ENTRIES) return STATUS_SUCCESS;
        if (status < 0) {
            if (scan->info.data != nullptr) {  // lost when it could not grow, which has been reported
                OMBRA_LOG_AS(_scanning, OMBRA_ERROR, "Native API call %hs returned %#X for %wZ",
                             "ZwEnumerateKey", status, &scan->path);
            }
            return status;
        }
        _scanChild child = {};
        status = _scanOneChild(scan, key, scope, depth, secBuf, &child);
        if (status < 0) return status;
        index = child.lastResult == SCAN_RESTART ? 0 : index + 1;
    }
}

/* One level: everything below one key. */
static NTSTATUS _regScanImpl(_scan* scan, HANDLE key, uint64_t scope, int32_t depth) {
    if (depth >= _scanDepths) return STATUS_OBJECT_PATH_INVALID;
    memBuf secBuf = {};
    const NTSTATUS status = _scanLevel(scan, key, scope, depth, &secBuf);
    memBufFree(&secBuf);
    return status;
}

DWORD regScan(HANDLE key, regScanCallback callback, uint64_t scope, void* data, uint32_t flags) {
    _scan scan = {callback, data, flags & _flagsOfTrees, {}, {}};
    NTSTATUS status = STATUS_NO_MEMORY;
    if (memBufInit(&scan.info, _scanRoom)) {
        scan.path.Buffer = static_cast<WCHAR*>(ombraMalloc(_scanRoom));
        scan.path.MaximumLength = scan.path.Buffer == nullptr ? 0 : _scanRoom;
        if (scan.path.Buffer != nullptr) status = _regScanImpl(&scan, key, scope, 0);
    }
    memBufFree(&scan.info);
    ombraFree(scan.path.Buffer);
    return status < 0 ? RtlNtStatusToDosError(status) : 0;
}

/* ---- Deletion ---- */

static NTSTATUS _deleteAndReport(HANDLE key, const char* function, ombraLevel level,
                                 const UNICODE_STRING* name) {
    const NTSTATUS status = ZwDeleteKey(key);
    if (status < 0) {
        OMBRA_LOG_AS(function, level, "Native API call %hs returned %#X for %wZ", "ZwDeleteKey", status,
                     name);
    }
    return status;
}

/* Opens a child for its deletion before the descent, and deletes it after that. A link is deleted as itself,
 * never what it leads to. */
static uint32_t regScanDeleteCallback(HANDLE parent, const UNICODE_STRING* path,
                                      const KEY_NODE_INFORMATION* record, uint64_t, uint64_t* subscope, void*,
                                      int32_t, uint32_t flags) {
    if (record != nullptr) {
        UNICODE_STRING name = regCounted(record->Name, record->NameLength);
        const OBJECT_ATTRIBUTES attributes = regAttributesBelow(parent, &name);
        HANDLE key = nullptr;
        if (regNtOpenKey(&key, DELETE, &attributes, flags) < 0) return SCAN_FAIL;
        subscope[0] = _handleWord(key);
        return SCAN_DESCEND;
    }
    const HANDLE key = _wordHandle(subscope[0]);
    const NTSTATUS deleted = _deleteAndReport(key, __func__, OMBRA_ERROR, path);
    const NTSTATUS closed = ZwClose(key);
    subscope[0] = 0;
    if (deleted < 0) return SCAN_FAIL;
    if (closed < 0) {
        OMBRA_LOG(OMBRA_ERROR, "Native API call %hs returned %#X for %wZ", "ZwClose", closed, path);
        return SCAN_FAIL;
    }
    return SCAN_RESTART;
}

DWORD regDeleteKeyU(HANDLE root, const UNICODE_STRING* name, uint32_t flags) {
    flags &= _flagsOfTrees;
    DWORD error = 0;
    HANDLE key = nullptr;
    if (!regOpenKeyU(root, name, DELETE | KEY_ENUMERATE_SUB_KEYS, flags, &key, &error)) return error;
    if ((flags & REG_RECURSIVE) != 0) error = regScan(key, regScanDeleteCallback, 0, nullptr, flags);
    if (error == 0) {
        const ombraLevel level = (flags & REG_QUIET) != 0 ? OMBRA_DEBUG : OMBRA_ERROR;
        const NTSTATUS status = _deleteAndReport(key, __func__, level, name);
        if (status < 0) error = RtlNtStatusToDosError(status);
    }
    ZwClose(key);
    return error;
}

/* Deletes one key without children. */
static NTSTATUS _regKeyDelete(const OBJECT_ATTRIBUTES* attributes, uint32_t flags) {
    HANDLE key = nullptr;
    NTSTATUS status = regNtOpenKey(&key, DELETE, attributes, flags);
    if (status < 0) {
        const bool missing = status == STATUS_OBJECT_PATH_NOT_FOUND || status == STATUS_OBJECT_NAME_NOT_FOUND;
        return missing && (flags & REG_IGNORE_MISSING) != 0 ? STATUS_SUCCESS : status;
    }
    status = _deleteAndReport(key, __func__, OMBRA_ERROR, attributes->ObjectName);
    ZwClose(key);
    return status;
}

/* ---- Tree copy ---- */

static constexpr uint32_t _copyRoom = 512;    // first size of the copy's buffers, in bytes
static constexpr int32_t _keysPerFlush = 64;  // the flush comes with the key after so many
static const WCHAR _linkValueText[] = TEXT("SymbolicLinkValue");

/* What one copy carries through its scan. */
struct regCopyCtx {
    regLinkMapCallback linkMap;
    void* linkMapData;
    memBuf linkTarget;  // where linkMap may leave a new target
    memBuf buffer;      // values, the link's value, descriptors
    HANDLE flushKey;
    int32_t flushCountdown;
};

static NTSTATUS _copyOneValue(HANDLE target, const memBuf* buffer) {
    const KEY_VALUE_FULL_INFORMATION* const record =
        reinterpret_cast<const KEY_VALUE_FULL_INFORMATION*>(buffer->data);
    UNICODE_STRING name = regCounted(record->Name, record->NameLength);
    // Without data the offset means nothing.
    uint8_t* const data = buffer->data + (record->DataLength == 0 ? 0 : record->DataOffset);
    const NTSTATUS status =
        ZwSetValueKey(target, &name, record->TitleIndex, record->Type, data, record->DataLength);
    if (status < 0) {
        OMBRA_LOG_AS("_regCopyKValues", OMBRA_ERROR, "Native API call %hs returned %#X for %wZ",
                     "ZwSetValueKey", status, &name);
    }
    return status;
}

static NTSTATUS _regCopyKValues(HANDLE target, HANDLE source, memBuf* buffer) {
    for (ULONG index = 0;;) {
        ULONG length = 24;
        NTSTATUS status =
            ZwEnumerateValueKey(source, index, KeyValueFullInformation, buffer->data, buffer->size, &length);
        if (regIsTooSmallOrMismatch(status)) {
            if (!memBufResize(buffer, length)) return STATUS_NO_MEMORY;
            continue;
        }
        if (status == STATUS_NO_MORE_ENTRIES) return STATUS_SUCCESS;
        if (status < 0) {
            OMBRA_LOG(OMBRA_ERROR, "Native API call %hs returned %#X", "ZwEnumerateValueKey", status);
            return status;
        }
        status = _copyOneValue(target, buffer);
        if (status < 0) return status;
        index++;
    }
}

static UNICODE_STRING _linkValueName() {
    return regCounted(_linkValueText, sizeof _linkValueText - sizeof(WCHAR));
}

/* A platform that does not report the flags of keys. */
static bool _isUnknownClass(NTSTATUS status) {
    return status == STATUS_INVALID_PARAMETER || status == STATUS_INVALID_INFO_CLASS ||
           status == STATUS_NOT_IMPLEMENTED || status == STATUS_NOT_SUPPORTED;
}

/* What is left there to go by: a link's value. */
static NTSTATUS _queryLinkValue(HANDLE key, int* isLink) {
    UNICODE_STRING valueName = _linkValueName();
    KEY_VALUE_PARTIAL_INFORMATION record = {};
    ULONG length = 0;
    const NTSTATUS status =
        ZwQueryValueKey(key, &valueName, KeyValuePartialInformation, &record, sizeof record, &length);
    *isLink = (status >= 0 || status == STATUS_BUFFER_OVERFLOW) && record.Type == REG_LINK ? 1 : 0;
    const bool answered = regIsTooSmallOrMismatch(status) || status == STATUS_OBJECT_NAME_NOT_FOUND;
    return answered ? STATUS_SUCCESS : status;
}

NTSTATUS regQueryIsLink(HANDLE key, int* isLink) {
    KEY_FLAGS_INFORMATION flags = {};
    ULONG length = 0;
    const char* call = "ZwQueryKey";
    NTSTATUS status = ZwQueryKey(key, KeyFlagsInformation, &flags, sizeof flags, &length);
    *isLink = (flags.KeyFlags & REG_FLAG_LINK) != 0 ? 1 : 0;
    const bool unanswered =
        status >= 0 ? length < sizeof flags : _isUnknownClass(status) || regIsTooSmallOrMismatch(status);
    if (unanswered) {
        call = "ZwQueryValueKey";
        status = _queryLinkValue(key, isLink);
    }
    if (status < 0) OMBRA_LOG(OMBRA_ERROR, "Native API call %hs returned %#X", call, status);
    return status;
}

/* target: terminated; null leaves the link without one. */
static NTSTATUS _regLinkCreate(const OBJECT_ATTRIBUTES* attributes, ULONG titleIndex,
                               const UNICODE_STRING* className, const WCHAR* target, uint32_t flags) {
    HANDLE key = nullptr;
    NTSTATUS status =
        regNtCreateKey(&key, KEY_SET_VALUE, attributes, titleIndex, className, REG_OPTION_CREATE_LINK, flags);
    if (status < 0) return status;
    if (target != nullptr) {
        UNICODE_STRING valueName = _linkValueName();
        status = ZwSetValueKey(key, &valueName, 0, REG_LINK, const_cast<WCHAR*>(target),
                               static_cast<ULONG>(wideLength(target) * sizeof(WCHAR)));
    }
    ZwClose(key);
    if (status < 0) {
        OMBRA_LOG(OMBRA_ERROR, "Native API call %hs returned %#X for %wZ -> %ws", "ZwSetValueKey", status,
                  attributes->ObjectName, target);
    }
    return status;
}

/* What the link step says. The values that are not 1 are the scan's own results. */
enum : uint32_t { LINK_DONE = SCAN_NEXT, LINK_NONE = 1, LINK_AGAIN = SCAN_RESTART, LINK_FAILED = SCAN_FAIL };

static const char _linkStep[] = "_regScanLinksCallbackImpl";  // what its helpers report as

/* The open child's link value into the buffer, with room for a terminator after it. */
static uint32_t _readLinkOf(HANDLE child, const UNICODE_STRING* name, memBuf* buffer, bool* hasTarget) {
    UNICODE_STRING valueName = _linkValueName();
    NTSTATUS status;
    ULONG length = 16;
    while (regIsTooSmallOrMismatch(
        status = ZwQueryValueKey(child, &valueName, KeyValuePartialInformation, buffer->data,
                                 buffer->size <= 2 ? 0 : buffer->size - 2, &length))) {
        if (length > UINT32_MAX - 2 || !memBufResize(buffer, length + 2)) return LINK_FAILED;
    }
    if (status < 0 && status != STATUS_OBJECT_NAME_NOT_FOUND) {
        OMBRA_LOG_AS(_linkStep, OMBRA_ERROR, "Native API call %hs returned %#X for %wZ", "ZwQueryValueKey",
                     status, name);
        return LINK_FAILED;
    }
    int isLink = 0;
    if (regQueryIsLink(child, &isLink) < 0) return LINK_FAILED;
    *hasTarget = isLink && status >= 0 &&
                 reinterpret_cast<const KEY_VALUE_PARTIAL_INFORMATION*>(buffer->data)->Type == REG_LINK;
    return isLink ? LINK_DONE : LINK_NONE;
}

/* The same for the child of this name. LINK_DONE: it is a link. */
static uint32_t _readLink(HANDLE parent, UNICODE_STRING* name, memBuf* buffer, uint32_t flags,
                          bool* hasTarget) {
    const OBJECT_ATTRIBUTES attributes = regAttributesBelow(parent, name);
    HANDLE child = nullptr;
    if (regNtOpenKey(&child, KEY_QUERY_VALUE, &attributes, flags) < 0) return LINK_FAILED;
    const uint32_t found = _readLinkOf(child, name, buffer, hasTarget);
    ZwClose(child);
    return found;
}

/* The link's target in the buffer, terminated. */
static const WCHAR* _linkTarget(const memBuf* buffer) {
    KEY_VALUE_PARTIAL_INFORMATION* const value =
        reinterpret_cast<KEY_VALUE_PARTIAL_INFORMATION*>(buffer->data);
    WCHAR* const target = reinterpret_cast<WCHAR*>(value->Data);
    target[value->DataLength / sizeof(WCHAR)] = 0;
    return target;
}

static void _closeIfOpen(HANDLE key) {
    if (key != nullptr) ZwClose(key);
}

/* Gives the new link the descriptor of the one that it is a copy of. */
static void _copyLinkSec(HANDLE source, const OBJECT_ATTRIBUTES* attributes, memBuf* buffer, uint32_t flags) {
    OBJECT_ATTRIBUTES from = *attributes;
    from.RootDirectory = source;
    HANDLE oldLink = nullptr;
    HANDLE newLink = nullptr;
    NTSTATUS status = regNtOpenKey(&oldLink, READ_CONTROL, &from, flags);
    if (status >= 0) status = regNtOpenKey(&newLink, WRITE_DAC | WRITE_OWNER, attributes, flags);
    const DWORD error = status < 0 ? RtlNtStatusToDosError(status) : regCopyKeySec(newLink, oldLink, buffer);
    if (error != 0) {
        OMBRA_LOG_AS(_linkStep, OMBRA_WARN, "failed to copy security attributes for %wZ : error %d",
                     attributes->ObjectName, error);
    }
    _closeIfOpen(oldLink);
    _closeIfOpen(newLink);
}

/* Makes the destination link anew. The target may lie in the copy's buffer, or be null. */
static uint32_t _replaceLink(HANDLE source, const OBJECT_ATTRIBUTES* attributes,
                             const KEY_NODE_INFORMATION* record, const WCHAR* target, regCopyCtx* copy,
                             uint32_t flags) {
    if (_regKeyDelete(attributes, flags | REG_IGNORE_MISSING) < 0) return LINK_FAILED;
    const UNICODE_STRING className = regClassOf(record);
    if (_regLinkCreate(attributes, record->TitleIndex, &className, target, flags) < 0) return LINK_FAILED;
    if ((flags & REG_NO_SECURITY) == 0) _copyLinkSec(source, attributes, &copy->buffer, flags);
    return LINK_DONE;
}

static uint32_t _regScanLinksCallbackImpl(HANDLE source, HANDLE target, const KEY_NODE_INFORMATION* record,
                                          regCopyCtx* copy, uint32_t flags) {
    UNICODE_STRING name = regCounted(record->Name, record->NameLength);
    bool hasTarget = false;
    const uint32_t found = _readLink(source, &name, &copy->buffer, flags, &hasTarget);
    if (found != LINK_DONE || copy->linkMap == nullptr) return found;
    const OBJECT_ATTRIBUTES attributes = regAttributesBelow(target, &name);
    const WCHAR* const oldTarget = hasTarget ? _linkTarget(&copy->buffer) : nullptr;
    const uint32_t answer =
        copy->linkMap(hasTarget ? oldTarget : TEXT(""), &copy->linkTarget, copy->linkMapData);
    switch (answer) {
        case LINK_MAP_SKIP:
            return LINK_DONE;
        case LINK_MAP_SAME:
            return _replaceLink(source, &attributes, record, oldTarget, copy, flags);
        case LINK_MAP_NEW:
            return _replaceLink(source, &attributes, record,
                                reinterpret_cast<const WCHAR*>(copy->linkTarget.data), copy, flags);
        case LINK_MAP_DELETE:
            return _regKeyDelete(&attributes, flags | REG_IGNORE_MISSING) < 0 ? LINK_FAILED : LINK_AGAIN;
        case LINK_MAP_FAIL:
            return LINK_FAILED;
        default:
            OMBRA_LOG(OMBRA_ERROR, "callback returned unexpected code %d", answer);
            return LINK_FAILED;
    }
}

/* Opens or creates the destination child. */
static NTSTATUS _openTarget(HANDLE parent, const KEY_NODE_INFORMATION* record, UNICODE_STRING* name,
                            uint32_t flags, HANDLE* target) {
    constexpr ACCESS_MASK access =
        WRITE_OWNER | WRITE_DAC | READ_CONTROL | KEY_CREATE_SUB_KEY | KEY_SET_VALUE;
    OBJECT_ATTRIBUTES attributes = regAttributesBelow(parent, name);
    attributes.Attributes = OBJ_CASE_INSENSITIVE | OBJ_OPENIF;
    if ((flags & REG_IGNORE_MISSING) != 0) return regNtOpenKey(target, access, &attributes, flags);
    const UNICODE_STRING className = regClassOf(record);
    return regNtCreateKey(target, access, &attributes, record->TitleIndex, &className, 0, flags);
}

static NTSTATUS _openSource(HANDLE parent, UNICODE_STRING* name, uint32_t flags, HANDLE* source) {
    OBJECT_ATTRIBUTES attributes = regAttributesBelow(parent, name);
    attributes.Attributes = OBJ_CASE_INSENSITIVE;
    return regNtOpenKey(source, READ_CONTROL | KEY_QUERY_VALUE, &attributes, flags);
}

/* The pre-call: both children opened, the values copied. */
static uint32_t _copyChild(HANDLE parent, HANDLE targetParent, const KEY_NODE_INFORMATION* record,
                           uint64_t* subscope, regCopyCtx* copy, uint32_t flags) {
    const uint32_t link = _regScanLinksCallbackImpl(parent, targetParent, record, copy, flags);
    if (link != LINK_NONE) return link;
    UNICODE_STRING name = regCounted(record->Name, record->NameLength);
    HANDLE source = nullptr;
    HANDLE target = nullptr;
    NTSTATUS status = _openSource(parent, &name, flags, &source);
    if (status >= 0) {
        status = _openTarget(targetParent, record, &name, flags, &target);
        if (status == STATUS_OBJECT_NAME_NOT_FOUND && (flags & REG_IGNORE_MISSING) != 0) {
            ZwClose(source);
            return SCAN_NEXT;
        }
        if (status >= 0 && (flags & REG_NO_VALUES) == 0)
            status = _regCopyKValues(target, source, &copy->buffer);
    }
    if (status < 0) {
        _closeIfOpen(source);
        _closeIfOpen(target);
        return SCAN_FAIL;
    }
    subscope[0] = _handleWord(target);
    subscope[1] = _handleWord(source);
    return SCAN_DESCEND;
}

static const char _copying[] = "_regScanCopyCallback";  // what its helpers report as

/* The post-call: the descriptor copied, both children closed. */
static uint32_t _finishChild(const UNICODE_STRING* path, uint64_t* subscope, regCopyCtx* copy,
                             uint32_t flags) {
    const HANDLE target = _wordHandle(subscope[0]);
    const HANDLE source = _wordHandle(subscope[1]);
    if ((flags & REG_NO_SECURITY) == 0) {
        const DWORD error = regCopyKeySec(target, source, &copy->buffer);
        if (error != 0) {
            OMBRA_LOG_AS(_copying, OMBRA_WARN, "failed to copy security attributes for %wZ : error %d", path,
                         error);
        }
    }
    if (--copy->flushCountdown < 0) {
        copy->flushCountdown = _keysPerFlush;
        ZwFlushKey(copy->flushKey);
    }
    const NTSTATUS targetClosed = ZwClose(target);
    const NTSTATUS sourceClosed = ZwClose(source);
    subscope[0] = subscope[1] = 0;
    const NTSTATUS failed = targetClosed < 0 ? targetClosed : sourceClosed;
    if (failed >= 0) return SCAN_NEXT;
    OMBRA_LOG_AS(_copying, OMBRA_ERROR, "Native API call %hs returned %#X", "ZwClose", failed);
    return SCAN_FAIL;
}

static uint32_t _regScanCopyCallback(HANDLE parent, const UNICODE_STRING* path,
                                     const KEY_NODE_INFORMATION* record, uint64_t scope, uint64_t* subscope,
                                     void* data, int32_t, uint32_t flags) {
    regCopyCtx* const copy = static_cast<regCopyCtx*>(data);
    if (record == nullptr) return _finishChild(path, subscope, copy, flags);
    return _copyChild(parent, _wordHandle(scope), record, subscope, copy, flags);
}

DWORD regCopyKey(HANDLE source, HANDLE target, regLinkMapCallback linkMap, void* linkMapData,
                 uint32_t flags) {
    regCopyCtx copy = {linkMap, linkMapData, {}, {}, target, _keysPerFlush};
    flags &= _flagsOfTrees;
    DWORD error = ERROR_NOT_ENOUGH_MEMORY;
    if (memBufInit(&copy.linkTarget, _copyRoom) && memBufInit(&copy.buffer, _copyRoom)) {
        error = regScan(source, _regScanCopyCallback, _handleWord(target), &copy, flags | REG_SCAN_LIGHT);
        if (error == 0 && (flags & REG_NO_VALUES) == 0) {
            const NTSTATUS status = _regCopyKValues(target, source, &copy.buffer);
            if (status < 0) error = RtlNtStatusToDosError(status);
        }
    }
    memBufFree(&copy.linkTarget);
    memBufFree(&copy.buffer);
    return error;
}
