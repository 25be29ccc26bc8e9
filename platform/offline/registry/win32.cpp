/* SPDX-License-Identifier: GPL-2.0-or-later */
/* RegOpenKeyExW, RegCloseKey, RegEnumKeyExW, RegQueryValueExW, RegSetValueExW, RegDeleteValueW. */
#include <cstddef>
#include <cstring>
#include <string_view>

#include "platform/offline/base/guarded.h"
#include "platform/offline/base/progress.h"
#include "platform/offline/base/system_needed.h"
#include "platform/offline/registry/key_changes.h"
#include "platform/offline/registry/open_keys.h"
#include "platform/offline/registry/open_path.h"

namespace offline {
namespace {

constexpr DWORD openLinkOption = 8;

/* Who enumerates Machine or User goes through all that is mounted there. */
void noteSweep(HKEY key, DWORD index) {
    static const char title[] = "Registry";
    if (index != 0 || (key != HKEY_LOCAL_MACHINE && key != HKEY_USERS) || progressIs(title)) return;
    uint64_t keys = 0;
    for (const std::unique_ptr<Mount>& mount : tree().mounts) keys += hiveKeysFound(*mount->hive);
    progressBegin({title, keys});
}

std::u16string_view textOf(LPCWSTR text) {
    return text == nullptr ? std::u16string_view() : text;
}

LSTATUS codeOf(NTSTATUS status) {
    return static_cast<LSTATUS>(RtlNtStatusToDosError(status));
}

NTSTATUS openRegKey(HKEY root, std::u16string_view path, bool openLink, REGSAM access, HKEY& key) {
    KeyRef from;
    NTSTATUS status = useRegKey(root, 0, from);
    if (status < 0) return status;
    if (!path.empty() && path[0] == u'\\') return STATUS_OBJECT_PATH_INVALID;
    HANDLE handle = nullptr;
    status = openPath(from, path, openLink, access, handle);
    if (status >= 0) key = static_cast<HKEY>(handle);
    return status;
}

/* Copies a text and ends it; capacity, in characters, becomes the length without the end. */
NTSTATUS copyText(std::u16string_view text, LPWSTR out, LPDWORD capacity) {
    if (text.size() >= *capacity) return STATUS_BUFFER_OVERFLOW;
    text.copy(out, text.size());
    out[text.size()] = 0;
    *capacity = static_cast<DWORD>(text.size());
    return STATUS_SUCCESS;
}

/* The same for a class, whose bytes may be of odd number and lie at any address. */
NTSTATUS copyClass(Bytes bytes, LPWSTR out, LPDWORD capacity) {
    const size_t length = bytes.size() / sizeof(WCHAR);
    if (out != nullptr) {
        if (length >= *capacity) return STATUS_BUFFER_OVERFLOW;
        if (length != 0) memcpy(out, bytes.data(), length * sizeof(WCHAR));
        out[length] = 0;
    }
    *capacity = static_cast<DWORD>(length);
    return STATUS_SUCCESS;
}

bool isText(DWORD type) {
    return type == REG_SZ || type == REG_EXPAND_SZ || type == REG_MULTI_SZ;
}

/* Ends a text that was stored without an end when the caller's buffer has the room. The size stays that of
 * the data. */
void endText(DWORD type, BYTE* data, size_t size, size_t room) {
    constexpr size_t unit = sizeof(WCHAR);
    if (!isText(type) || room < size + unit) return;
    const bool ended = size >= unit && data[size - 1] == 0 && data[size - 2] == 0;
    if (!ended) memset(data + size, 0, unit);
}

NTSTATUS readValue(const KeyRef& key, std::u16string_view name, LPDWORD type, BYTE* data, LPDWORD size) {
    const Hive& hive = *key.mount->hive;
    HiveValue value;
    const NTSTATUS status = hiveFindValue(hive, key.cell, name, value);
    if (status < 0) return status;
    if (type != nullptr) *type = value.type;
    if (size == nullptr) return STATUS_SUCCESS;
    const DWORD room = *size;
    *size = value.dataLength;
    if (data == nullptr) return STATUS_SUCCESS;
    if (room < value.dataLength) return STATUS_BUFFER_OVERFLOW;
    hiveValueData(hive, value, {data, value.dataLength});
    endText(value.type, data, value.dataLength, room);
    return STATUS_SUCCESS;
}

} /* namespace */
} /* namespace offline */

LSTATUS RegOpenKeyExW(HKEY root, LPCWSTR path, DWORD options, REGSAM access, PHKEY key) {
    if (key == nullptr || (options & ~offline::openLinkOption) != 0) return ERROR_INVALID_PARAMETER;
    return offline::codeOf(offline::guarded([&] {
        const NTSTATUS status = offline::systemNeeded();
        if (status < 0) return status;
        return offline::openRegKey(root, offline::textOf(path), options != 0, access, *key);
    }));
}

LSTATUS RegCloseKey(HKEY key) {
    if (key == HKEY_LOCAL_MACHINE || key == HKEY_USERS) return ERROR_SUCCESS;
    return offline::codeOf(ZwClose(key));
}

LSTATUS RegEnumKeyExW(HKEY key, DWORD index, LPWSTR name, LPDWORD nameLength, LPDWORD reserved,
                      LPWSTR className, LPDWORD classLength, PFILETIME lastWrite) {
    using namespace offline;
    if (name == nullptr || nameLength == nullptr || reserved != nullptr) return ERROR_INVALID_PARAMETER;
    if (className != nullptr && classLength == nullptr) return ERROR_INVALID_PARAMETER;
    KeyRef ref;
    NTSTATUS status = useRegKey(key, KEY_ENUMERATE_SUB_KEYS, ref);
    if (status >= 0) noteSweep(key, index);
    if (status >= 0) status = childAt(ref, index, ref);
    HiveKey info;
    if (status >= 0) status = hiveKey(*ref.mount->hive, ref.cell, info);
    if (status < 0) return codeOf(status);
    char16_t text[longestKeyName];
    status = copyText({text, keyName(ref, text)}, name, nameLength);
    if (status >= 0 && classLength != nullptr) {
        status = copyClass(hiveKeyClass(*ref.mount->hive, ref.cell), className, classLength);
    }
    if (lastWrite != nullptr) {
        *lastWrite = {static_cast<DWORD>(info.lastWrite), static_cast<DWORD>(info.lastWrite >> 32)};
    }
    return codeOf(status);
}

LSTATUS RegQueryValueExW(HKEY key, LPCWSTR name, LPDWORD reserved, LPDWORD type, BYTE* data, LPDWORD size) {
    if (reserved != nullptr || (data != nullptr && size == nullptr)) return ERROR_INVALID_PARAMETER;
    offline::KeyRef ref;
    NTSTATUS status = offline::useRegKey(key, KEY_QUERY_VALUE, ref);
    if (status >= 0) status = offline::readValue(ref, offline::textOf(name), type, data, size);
    return offline::codeOf(status);
}

LSTATUS RegSetValueExW(HKEY key, LPCWSTR name, DWORD reserved, DWORD type, const BYTE* data, DWORD size) {
    if (reserved != 0) return ERROR_INVALID_PARAMETER;
    offline::KeyRef ref;
    NTSTATUS status = offline::useRegKey(key, KEY_SET_VALUE, ref);
    if (status >= 0) status = offline::setValue(ref, offline::textOf(name), type, data, size);
    return offline::codeOf(status);
}

LSTATUS RegDeleteValueW(HKEY key, LPCWSTR name) {
    offline::KeyRef ref;
    NTSTATUS status = offline::useRegKey(key, KEY_SET_VALUE, ref);
    if (status >= 0) status = offline::deleteValue(ref, offline::textOf(name));
    return offline::codeOf(status);
}
