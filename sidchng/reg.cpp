/* SPDX-License-Identifier: GPL-2.0-or-later */
#define OMBRA_UNIT "sidchng/reg"
#include "sidchng/reg.h"

#include <cstring>

#include "common/log.h"
#include "regtk/regtk.h"
#include "sidchng/sid.h"

/* ---- Data by its type ---- */

static DWORD regReplaceSIDInBinary(const regData* input, regData* output, sidCtx* ctx, int* changed) {
    const int exact = (ctx->flags & SID_EXACT) != 0;
    if (sidReplaceInData(input->Buffer, input->Length, ctx->sidOld, ctx->sidNew, ctx->sidNewSize, exact)) {
        *output = *input;
        *changed = 1;
    }
    return 0;
}

/* Bytes by which a text grows where the old SID gives way to the new one; negative where it shrinks. */
static int32_t _growth(const sidCtx* ctx) {
    return int32_t{ctx->sidNewText.Length} - int32_t{ctx->sidOldText.Length};
}

static bool _matchesText(const uint8_t* text, uint32_t length, const sidCtx* ctx) {
    return sidMatchesText(text, length, &ctx->sidOldText, (ctx->flags & SID_EXACT) != 0) != 0;
}

/* Whether a string is one for a counted string, with the new SID in it as well. */
static bool _canBeCounted(uint32_t length, const sidCtx* ctx) {
    return length <= UINT16_MAX && int64_t{length} + _growth(ctx) <= UINT16_MAX;
}

/* A longer string than that is left alone. */
static DWORD _replaceInString(const uint8_t* text, uint32_t length, UNICODE_STRING* result, sidCtx* ctx,
                              int* changed) {
    if (!_canBeCounted(length, ctx)) return 0;
    UNICODE_STRING name;
    name.Length = static_cast<USHORT>(length);
    name.MaximumLength = name.Length;
    name.Buffer = reinterpret_cast<WCHAR*>(const_cast<uint8_t*>(text));
    return sidReplaceInName(&name, result, &ctx->sidOldText, &ctx->sidNewText, (ctx->flags & SID_EXACT) != 0,
                            changed, &ctx->stringBuf);
}

static DWORD regReplaceSIDInSz(const regData* input, regData* output, sidCtx* ctx, int* changed) {
    int replaced = 0;
    UNICODE_STRING result;
    const DWORD error = _replaceInString(input->Buffer, input->Length, &result, ctx, &replaced);
    if (error != 0 || !replaced) return error;
    output->Buffer = reinterpret_cast<uint8_t*>(result.Buffer);
    output->Length = result.Length;
    *changed = 1;
    return 0;
}

/* Bytes before the NUL of the string at the head of length bytes, or all of them. */
static uint32_t _stringLength(const uint8_t* text, uint32_t length) {
    uint32_t at = 0;
    while (at + 2 <= length && (text[at] != 0 || text[at + 1] != 0)) at += 2;
    return at + 2 <= length ? at : length;
}

/* The strings of a multi-string, one after the other, empty ones and those after them too. */
struct _strings {
    const regData* data;
    uint32_t inOff;   // of the string at hand
    uint32_t length;  // its bytes, without the NUL
};

static bool _atString(_strings* strings) {
    const regData* const data = strings->data;
    if (strings->inOff + 2 > data->Length) return false;
    strings->length = _stringLength(data->Buffer + strings->inOff, data->Length - strings->inOff);
    return true;
}

static void _stepOver(_strings* strings) {
    strings->inOff += strings->length + 2;
}

/* Bytes of the multi-string with all its strings rewritten; 0 when none is to be. */
static uint64_t _rewrittenLength(const regData* input, const sidCtx* ctx) {
    int64_t length = input->Length;
    bool any = false;
    for (_strings at = {input, 0, 0}; _atString(&at); _stepOver(&at)) {
        if (!_canBeCounted(at.length, ctx) || !_matchesText(input->Buffer + at.inOff, at.length, ctx))
            continue;
        any = true;
        length += _growth(ctx);
    }
    return any ? static_cast<uint64_t>(length) : 0;
}

/* What is being assembled in multiSzBuf: the input up to inOff, with its strings rewritten, fills outOff
 * bytes. */
struct _assembly {
    const regData* input;
    uint8_t* output;
    uint32_t inOff;
    uint32_t outOff;
};

/* The input up to end as it is. */
static void _putUntil(_assembly* assembly, uint32_t end) {
    const uint32_t length = end - assembly->inOff;
    memcpy(assembly->output + assembly->outOff, assembly->input->Buffer + assembly->inOff, length);
    assembly->inOff = end;
    assembly->outOff += length;
}

/* The value is measured first, so that it is assembled in one pass, however many strings it has. */
static DWORD regReplaceSIDInMultiSz(const regData* input, regData* output, sidCtx* ctx, int* changed) {
    const uint64_t needed = _rewrittenLength(input, ctx);
    if (needed == 0) return 0;
    memBuf* const buffer = &ctx->multiSzBuf;
    if (needed > UINT32_MAX) return ERROR_NOT_ENOUGH_MEMORY;
    if (buffer->size < needed && !memBufResize(buffer, static_cast<uint32_t>(needed)))
        return ERROR_NOT_ENOUGH_MEMORY;
    _assembly assembly = {input, buffer->data, 0, 0};
    for (_strings at = {input, 0, 0}; _atString(&at); _stepOver(&at)) {
        int replaced = 0;
        UNICODE_STRING result;
        const DWORD error = _replaceInString(input->Buffer + at.inOff, at.length, &result, ctx, &replaced);
        if (error != 0) return error;
        if (!replaced) continue;
        _putUntil(&assembly, at.inOff);
        memcpy(assembly.output + assembly.outOff, result.Buffer, result.Length);
        assembly.outOff += result.Length;
        assembly.inOff += at.length;
    }
    _putUntil(&assembly, input->Length);
    output->Buffer = buffer->data;
    output->Length = assembly.outOff;
    *changed = 1;
    return 0;
}

DWORD regReplaceSIDInData(uint32_t type, const regData* input, regData* output, sidCtx* ctx, int* changed) {
    switch (type) {
        case REG_NONE:
        case REG_BINARY:
            return regReplaceSIDInBinary(input, output, ctx, changed);
        case REG_SZ:
            return regReplaceSIDInSz(input, output, ctx, changed);
        case REG_MULTI_SZ:
            return regReplaceSIDInMultiSz(input, output, ctx, changed);
        default:
            return 0;
    }
}

/* ---- Values ---- */

/* A value whose record is in queryBuf. */
struct _value {
    const char* function;  // the operation that treats it, for the messages
    UNICODE_STRING name;
    ULONG titleIndex;
    ULONG type;
    regData data;
};

static DWORD _failed(const _value* value, const char* call, NTSTATUS status, const UNICODE_STRING* keyName) {
    OMBRA_LOG_AS(value->function, OMBRA_ERROR, "Win API call %hs returned %d for %wZ\\%wZ", call, status,
                 keyName, &value->name);
    return RtlNtStatusToDosError(status);
}

/* FNV-1a; the step after the text is that of no byte, so that two texts can't run together. */
static uint64_t _mark(uint64_t mark, const UNICODE_STRING* text) {
    constexpr uint64_t prime = 1099511628211u;
    const uint8_t* const bytes = reinterpret_cast<const uint8_t*>(text->Buffer);
    for (uint32_t i = 0; i < text->Length; i++) mark = (mark ^ bytes[i]) * prime;
    return (mark ^ 0x100) * prime;
}

/* Whether this value is warned of for the first time, as far back as the context remembers: a walk comes by a
 * key again whenever a sibling is renamed. */
static bool _isNews(const UNICODE_STRING* keyName, const UNICODE_STRING* valueName, sidCtx* ctx) {
    constexpr uint64_t start = 14695981039346656037u;
    const uint64_t mark = _mark(_mark(start, keyName), valueName);
    for (const uint64_t warned : ctx->warned) {
        if (warned == mark) return false;
    }
    ctx->warned[ctx->warnedNext++ % SID_WARNED] = mark;
    return true;
}

/* Reports a string that holds the old SID and is left alone for its length. */
static void _tellTooLong(const uint8_t* text, uint32_t length, const UNICODE_STRING* keyName,
                         const _value* value, sidCtx* ctx) {
    if (_canBeCounted(length, ctx) || !_matchesText(text, length, ctx)) return;
    if (!_isNews(keyName, &value->name, ctx)) return;
    constexpr USHORT shown = 160;  // bytes
    UNICODE_STRING head;
    head.Length = head.MaximumLength = shown;
    head.Buffer = reinterpret_cast<WCHAR*>(const_cast<uint8_t*>(text));
    OMBRA_LOG_AS(value->function, OMBRA_WARN,
                 "Too long a string with the old SID (%u bytes), left alone in value  %wZ\\%wZ: %wZ...",
                 length, keyName, &value->name, &head);
}

static void _tellTooLongStrings(const UNICODE_STRING* keyName, const _value* value, sidCtx* ctx) {
    const regData* const data = &value->data;
    if (_canBeCounted(data->Length, ctx)) return;
    if (value->type == REG_SZ) _tellTooLong(data->Buffer, data->Length, keyName, value, ctx);
    if (value->type != REG_MULTI_SZ) return;
    for (_strings at = {data, 0, 0}; _atString(&at); _stepOver(&at))
        _tellTooLong(data->Buffer + at.inOff, at.length, keyName, value, ctx);
}

/* Rewrites a value and writes it back where it has changed. */
static DWORD _treatValue(HANDLE key, const UNICODE_STRING* keyName, _value* value, sidCtx* ctx) {
    int changed = 0;
    regData output = {};
    const DWORD error = regReplaceSIDInData(value->type, &value->data, &output, ctx, &changed);
    _tellTooLongStrings(keyName, value, ctx);
    if (error != 0 || !changed) return error;
    if ((ctx->flags & SID_SIMULATE) != 0) {
        OMBRA_LOG_AS(value->function, OMBRA_INFO, "Found old SID in value  %wZ\\%wZ (simulation mode)",
                     keyName, &value->name);
        return 0;
    }
    const NTSTATUS status =
        ZwSetValueKey(key, &value->name, value->titleIndex, value->type, output.Buffer, output.Length);
    if (status < 0) return _failed(value, "ZwSetValueKey", status, keyName);
    OMBRA_LOG_AS(value->function, OMBRA_DEBUG, "Replaced old SID in value  %wZ\\%wZ", keyName, &value->name);
    return 0;
}

static DWORD regReplaceSIDInValue(HANDLE key, const UNICODE_STRING* keyName, const WCHAR* valueName,
                                  int ignoreMissing, sidCtx* ctx) {
    _value value = {};
    value.function = __func__;
    RtlInitUnicodeString(&value.name, valueName);
    memBuf* const buffer = &ctx->queryBuf;
    NTSTATUS status;
    ULONG length = 0;
    while (regIsTooSmall(status = ZwQueryValueKey(key, &value.name, KeyValuePartialInformation, buffer->data,
                                                  buffer->size, &length))) {
        if (!memBufResize(buffer, length)) return ERROR_NOT_ENOUGH_MEMORY;
    }
    if (status == STATUS_OBJECT_NAME_NOT_FOUND && ignoreMissing) return 0;
    if (status < 0) return _failed(&value, "ZwQueryValueKey", status, keyName);
    KEY_VALUE_PARTIAL_INFORMATION* const record =
        reinterpret_cast<KEY_VALUE_PARTIAL_INFORMATION*>(buffer->data);
    value.titleIndex = record->TitleIndex;
    value.type = record->Type;
    value.data = {record->DataLength, record->Data};
    return _treatValue(key, keyName, &value, ctx);
}

static DWORD regReplaceSIDInValues(HANDLE key, const UNICODE_STRING* keyName, sidCtx* ctx) {
    memBuf* const buffer = &ctx->queryBuf;
    for (ULONG index = 0;; index++) {
        NTSTATUS status;
        ULONG length = 0;
        while (regIsTooSmall(status = ZwEnumerateValueKey(key, index, KeyValueFullInformation, buffer->data,
                                                          buffer->size, &length))) {
            if (!memBufResize(buffer, length)) return ERROR_NOT_ENOUGH_MEMORY;
        }
        if (status == STATUS_NO_MORE_ENTRIES) return 0;
        if (status < 0) {
            OMBRA_LOG(OMBRA_ERROR, "Win API call %hs returned %d for %wZ", "ZwEnumerateValueKey", status,
                      keyName);
            return RtlNtStatusToDosError(status);
        }
        KEY_VALUE_FULL_INFORMATION* const record =
            reinterpret_cast<KEY_VALUE_FULL_INFORMATION*>(buffer->data);
        _value value = {};
        value.function = __func__;
        value.name = regCounted(record->Name, record->NameLength);
        value.titleIndex = record->TitleIndex;
        value.type = record->Type;
        value.data = {record->DataLength, buffer->data + (record->DataLength == 0 ? 0 : record->DataOffset)};
        const DWORD error = _treatValue(key, keyName, &value, ctx);
        if (error != 0) return error;
    }
}

/* The values that the context lists, or all. Every listed one is tried; the last failure is the result. */
static DWORD regReplaceSIDInListedValues(HANDLE key, const UNICODE_STRING* keyName, sidCtx* ctx) {
    if (ctx->valueNames == nullptr) return regReplaceSIDInValues(key, keyName, ctx);
    DWORD result = 0;
    for (const WCHAR* const* name = ctx->valueNames; *name != nullptr; name++) {
        const DWORD error = regReplaceSIDInValue(key, keyName, *name, 1, ctx);
        if (error != 0) result = error;
    }
    return result;
}

DWORD regReplaceSIDInKey(HANDLE key, const UNICODE_STRING* name, sidCtx* ctx) {
    DWORD result = 0;
    if ((ctx->flags & SID_REPLACE_SD) != 0) {
        result = sidReplaceInKeySD(key, name, ctx->sidOld, ctx->sidNew, ctx->sidNewSize,
                                   (ctx->flags & SID_EXACT) != 0, (ctx->flags & SID_SIMULATE) != 0,
                                   &ctx->queryBuf);
    }
    if ((ctx->flags & SID_REPLACE_VALUES) != 0) {
        const DWORD error = regReplaceSIDInListedValues(key, name, ctx);
        if (error != 0) result = error;
    }
    return result;
}

/* ---- Renaming ---- */

/* Links below a renamed key lead where they led. */
static uint32_t _keepLink(const WCHAR*, memBuf*, void*) {
    return LINK_MAP_SAME;
}

/* One rename: the key under its old name and the one under its new name. */
struct _rename {
    HANDLE parent;
    const KEY_NODE_INFORMATION* record;
    UNICODE_STRING name;
    UNICODE_STRING newName;
    HANDLE oldKey;
    HANDLE newKey;
};

static NTSTATUS _openOld(_rename* rename) {
    const OBJECT_ATTRIBUTES attributes = regAttributesBelow(rename->parent, &rename->name);
    return regNtOpenKey(&rename->oldKey, KEY_READ | ACCESS_SYSTEM_SECURITY, &attributes, REG_TAKE_OWNERSHIP);
}

/* A link becomes a link of the new name; its value, which the copy brings along, is its target. It may have
 * none. */
static NTSTATUS _createNew(_rename* rename) {
    const OBJECT_ATTRIBUTES attributes = regAttributesBelow(rename->parent, &rename->newName);
    const UNICODE_STRING className = regClassOf(rename->record);
    int isLink = 0;
    const NTSTATUS status = regQueryIsLink(rename->oldKey, &isLink);
    if (status < 0) return status;
    const ULONG options = isLink ? REG_OPTION_CREATE_LINK : 0u;
    return regNtCreateKey(&rename->newKey, KEY_WRITE | WRITE_DAC | WRITE_OWNER, &attributes,
                          rename->record->TitleIndex, &className, options, REG_NO_OPENIF);
}

/* The steps in their order; the new key stands complete before anything of the old one goes. */
static DWORD _renameSteps(_rename* rename, memBuf* secBuf) {
    NTSTATUS status = _openOld(rename);
    if (status < 0) return RtlNtStatusToDosError(status);
    DWORD error = regGetKeySec(rename->oldKey, REG_SEC_ALL, secBuf);
    if (error != 0) return error;
    status = _createNew(rename);
    if (status < 0) return RtlNtStatusToDosError(status);
    error = regCopyKey(rename->oldKey, rename->newKey, _keepLink, nullptr, REG_TAKE_OWNERSHIP);
    if (error == 0) error = regSetKeySec(rename->newKey, REG_SEC_ALL, secBuf->data);
    if (error != 0) return error;
    return regDeleteKeyU(rename->parent, &rename->name, REG_RECURSIVE | REG_TAKE_OWNERSHIP);
}

DWORD regRenameKey(HANDLE parent, const KEY_NODE_INFORMATION* record, const UNICODE_STRING* name,
                   const UNICODE_STRING* newName, memBuf* secBuf) {
    _rename rename = {parent, record, *name, *newName, nullptr, nullptr};
    const DWORD error = _renameSteps(&rename, secBuf);
    if (rename.oldKey != nullptr) ZwClose(rename.oldKey);
    if (rename.newKey != nullptr) ZwClose(rename.newKey);
    return error;
}

/* The name step of the walk: a key whose name holds the old SID is renamed. 1 when the key was renamed, so
 * that the walk has to start its parent anew. */
static int _renameIfNamed(HANDLE parent, const UNICODE_STRING* path, const KEY_NODE_INFORMATION* record,
                          const UNICODE_STRING* name, sidCtx* ctx) {
    static const char function[] = "regReplaceSIDCallback";
    int changed = 0;
    UNICODE_STRING newName = {};
    DWORD error = sidReplaceInName(name, &newName, &ctx->sidOldText, &ctx->sidNewText,
                                   (ctx->flags & SID_EXACT) != 0, &changed, &ctx->queryBuf);
    if (error != 0) ctx->lastError = error;
    if (error != 0 || !changed) return 0;
    // A key can't be copied onto itself, and need not be.
    const bool same =
        newName.Length == name->Length && memcmp(newName.Buffer, name->Buffer, name->Length) == 0;
    if (same) return 0;
    if ((ctx->flags & SID_SIMULATE) != 0) {
        OMBRA_LOG_AS(function, OMBRA_INFO, "Found old SID in name   %wZ (simulation mode)", path);
        return 0;
    }
    error = regRenameKey(parent, record, name, &newName, &ctx->stringBuf);
    if (error == 0) {
        OMBRA_LOG_AS(function, OMBRA_DEBUG, "Replaced old SID in name   %wZ", path);
        return 1;
    }
    OMBRA_LOG_AS(function, OMBRA_ERROR, "Failed to rename key   %wZ", path);
    ctx->lastError = error;
    return 0;
}

/* ---- The key walk ---- */

static constexpr ACCESS_MASK _treatAccess =
    ACCESS_SYSTEM_SECURITY | WRITE_OWNER | WRITE_DAC | READ_CONTROL | KEY_QUERY_VALUE | KEY_SET_VALUE;

uint32_t regReplaceSIDCallback(HANDLE parent, const UNICODE_STRING* path, const KEY_NODE_INFORMATION* record,
                               uint64_t, uint64_t*, void* data, int32_t, uint32_t) {
    sidCtx* const ctx = static_cast<sidCtx*>(data);
    UNICODE_STRING name = regCounted(record->Name, record->NameLength);
    const bool names = (ctx->flags & SID_REPLACE_NAMES) != 0;
    if (names && _renameIfNamed(parent, path, record, &name, ctx)) return SCAN_RESTART;
    const OBJECT_ATTRIBUTES attributes = regAttributesBelow(parent, &name);
    HANDLE key = nullptr;
    const NTSTATUS status = regNtOpenKey(&key, _treatAccess, &attributes, REG_TAKE_OWNERSHIP);
    if (status < 0) {
        ctx->lastError = RtlNtStatusToDosError(status);
        return SCAN_DESCEND;
    }
    const DWORD error = regReplaceSIDInKey(key, path, ctx);
    if (error != 0) ctx->lastError = error;
    ZwClose(key);
    return SCAN_DESCEND;
}
