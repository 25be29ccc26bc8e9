#define OMBRA_UNIT "sidchng/reg"
#include "sidchng/reg.h"

#include <cstring>

#include "common/log.h"
#include "regtk/regtk.h"
#include "sidchng/sid.h"
#include "sidchng/sidchng.h"

/* ---- Data by its type ---- */

static DWORD regReplaceSIDInBinary(const regData* input, regData* output, sidCtx* ctx, int* changed) {
    const int exact = (ctx->flags & SID_EXACT) != 0;
    if (sidReplaceInData(input->Buffer, input->Length, ctx->sidOld, ctx->sidNew, ctx->sidNewSize, exact)) {
        *output = *input;
        *changed = 1;
    }
    return 0;
}

/* One string of at most a counted string's length; a longer one is left alone. */
static DWORD _replaceInString(const uint8_t* text, uint32_t length, UNICODE_STRING* result, sidCtx* ctx,
                              int* changed) {
    if (length > UINT16_MAX) {
        OMBRA_LOG_AS("regReplaceSIDInData", OMBRA_WARN, "Too long a string (%d bytes), left alone", length);
        return 0;
    }
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

/* The output of a multi-string, assembled in multiSzBuf. It is whole after each replaced string: the input's
 * tail is behind it, and a later replaced string overwrites that. */
struct _assembly {
    const regData* input;
    uint32_t inOff;   // of the string at hand, in the input
    uint32_t outOff;  // the same in the output
    uint32_t needed;  // length of the output
    bool started;
};

static DWORD _putReplaced(_assembly* assembly, const UNICODE_STRING* result, uint32_t stringLength,
                          memBuf* buffer) {
    const uint32_t tail = assembly->input->Length - assembly->inOff - stringLength;
    const uint64_t needed = uint64_t{result->Length} + assembly->outOff + tail;
    if (needed > UINT32_MAX) return ERROR_NOT_ENOUGH_MEMORY;
    assembly->needed = static_cast<uint32_t>(needed);
    if (buffer->size < assembly->needed && !memBufResize(buffer, assembly->needed))
        return ERROR_NOT_ENOUGH_MEMORY;
    if (!assembly->started) memcpy(buffer->data, assembly->input->Buffer, assembly->outOff);
    assembly->started = true;
    memcpy(buffer->data + assembly->outOff, result->Buffer, result->Length);
    assembly->outOff += result->Length;
    assembly->inOff += stringLength;
    memcpy(buffer->data + assembly->outOff, assembly->input->Buffer + assembly->inOff, tail);
    return 0;
}

static DWORD regReplaceSIDInMultiSz(const regData* input, regData* output, sidCtx* ctx, int* changed) {
    _assembly assembly = {input, 0, 0, 0, false};
    while (assembly.inOff + 2 <= input->Length) {
        const uint8_t* const string = input->Buffer + assembly.inOff;
        const uint32_t stringLength = _stringLength(string, input->Length - assembly.inOff);
        int replaced = 0;
        UNICODE_STRING result;
        DWORD error = _replaceInString(string, stringLength, &result, ctx, &replaced);
        if (error == 0 && replaced) {
            error = _putReplaced(&assembly, &result, stringLength, &ctx->multiSzBuf);
        } else {
            assembly.inOff += stringLength;
            assembly.outOff += stringLength;
        }
        if (error != 0) return error;
        assembly.inOff += 2;
        assembly.outOff += 2;
    }
    if (!assembly.started) return 0;
    output->Buffer = ctx->multiSzBuf.data;
    output->Length = assembly.needed;
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

static bool _isTooSmall(NTSTATUS status) {
    return status == STATUS_BUFFER_OVERFLOW || status == STATUS_BUFFER_TOO_SMALL;
}

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

/* Rewrites a value and writes it back where it has changed. */
static DWORD _treatValue(HANDLE key, const UNICODE_STRING* keyName, _value* value, sidCtx* ctx) {
    int changed = 0;
    regData output = {};
    const DWORD error = regReplaceSIDInData(value->type, &value->data, &output, ctx, &changed);
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
    while (_isTooSmall(status = ZwQueryValueKey(key, &value.name, KeyValuePartialInformation, buffer->data,
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
        while (_isTooSmall(status = ZwEnumerateValueKey(key, index, KeyValueFullInformation, buffer->data,
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
        value.name.Length = static_cast<USHORT>(record->NameLength);
        value.name.MaximumLength = value.name.Length;
        value.name.Buffer = record->Name;
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

static UNICODE_STRING _className(const KEY_NODE_INFORMATION* record) {
    UNICODE_STRING text = {};
    if (record->ClassLength == 0) return text;
    text.Length = static_cast<USHORT>(record->ClassLength);
    text.MaximumLength = text.Length;
    const uint8_t* const place = reinterpret_cast<const uint8_t*>(record) + record->ClassOffset;
    text.Buffer = reinterpret_cast<WCHAR*>(const_cast<uint8_t*>(place));
    return text;
}

/* Links below a renamed key lead where they led. */
static uint32_t _keepLink(const WCHAR*, memBuf*, void*) {
    return LINK_MAP_SAME;
}

/* Whether an open key is a symbolic link: its values are then the link's target, and it has no children. */
static bool _isLink(HANDLE key) {
    UNICODE_STRING valueName;
    RtlInitUnicodeString(&valueName, TEXT("SymbolicLinkValue"));
    alignas(KEY_VALUE_PARTIAL_INFORMATION) uint8_t record[16];
    ULONG length = 0;
    const NTSTATUS status =
        ZwQueryValueKey(key, &valueName, KeyValuePartialInformation, record, sizeof record, &length);
    if (status < 0 && status != STATUS_BUFFER_OVERFLOW) return false;
    return reinterpret_cast<const KEY_VALUE_PARTIAL_INFORMATION*>(record)->Type == REG_LINK;
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

/* A link becomes a link of the new name; its value, which the copy brings along, is its target. */
static NTSTATUS _createNew(_rename* rename) {
    const OBJECT_ATTRIBUTES attributes = regAttributesBelow(rename->parent, &rename->newName);
    const UNICODE_STRING className = _className(rename->record);
    const ULONG options = _isLink(rename->oldKey) ? REG_OPTION_CREATE_LINK : 0u;
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

/* The name step of the walk: 1 when the key was renamed, so that the walk has to start its parent anew. */
static int _treatName(HANDLE parent, const UNICODE_STRING* path, const KEY_NODE_INFORMATION* record,
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

/* Treats one key below the start key. What fails is noted in the context and passed over. */
static uint32_t regReplaceSIDCallback(HANDLE parent, const UNICODE_STRING* path,
                                      const KEY_NODE_INFORMATION* record, uint64_t, uint64_t*, void* data,
                                      int32_t, uint32_t) {
    sidCtx* const ctx = static_cast<sidCtx*>(data);
    UNICODE_STRING name;
    name.Length = static_cast<USHORT>(record->NameLength);
    name.MaximumLength = name.Length;
    name.Buffer = const_cast<WCHAR*>(record->Name);
    const bool names = (ctx->flags & SID_REPLACE_NAMES) != 0;
    if (names && _treatName(parent, path, record, &name, ctx)) return SCAN_RESTART;
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
