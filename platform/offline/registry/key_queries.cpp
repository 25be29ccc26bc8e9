/* SPDX-License-Identifier: GPL-2.0-or-later */
/* ZwQueryKey, ZwEnumerateKey, ZwQueryValueKey, ZwEnumerateValueKey. */
#include "platform/offline/base/unicode.h"
#include "platform/offline/registry/key_information.h"
#include "platform/offline/registry/namespace.h"
#include "platform/offline/registry/open_keys.h"

namespace offline {
namespace {

/* The handle's key, when the caller's buffer can be used. */
NTSTATUS queriedKey(HANDLE handle, ACCESS_MASK needed, const QueryBuffer& out, KeyRef& ref) {
    if (out.total == nullptr || (out.bytes == nullptr && out.size != 0)) return STATUS_INVALID_PARAMETER;
    return useKey(handle, needed, ref);
}

/* The record of the value that find(hive, key's cell, value) finds. */
template <class Find>
NTSTATUS queryValue(HANDLE key, KEY_VALUE_INFORMATION_CLASS infoClass, const QueryBuffer& out, Find find) {
    KeyRef ref;
    NTSTATUS status = queriedKey(key, KEY_QUERY_VALUE, out, ref);
    if (status < 0) return status;
    const Hive& hive = *ref.mount->hive;
    HiveValue value;
    status = find(hive, ref.cell, value);
    return status < 0 ? status : writeValueRecord(hive, value, infoClass, out);
}

} /* namespace */
} /* namespace offline */

NTSTATUS ZwQueryKey(HANDLE key, KEY_INFORMATION_CLASS infoClass, PVOID buffer, ULONG size,
                    PULONG resultLength) {
    const offline::QueryBuffer out{buffer, size, resultLength};
    offline::KeyRef ref;
    const NTSTATUS status = offline::queriedKey(key, KEY_QUERY_VALUE, out, ref);
    if (status < 0) return status;
    return infoClass == KeyFlagsInformation ? offline::writeKeyFlags(ref, out)
                                            : offline::writeKeyRecord(ref, infoClass, out);
}

NTSTATUS ZwEnumerateKey(HANDLE key, ULONG index, KEY_INFORMATION_CLASS infoClass, PVOID buffer, ULONG size,
                        PULONG resultLength) {
    const offline::QueryBuffer out{buffer, size, resultLength};
    offline::KeyRef ref;
    NTSTATUS status = offline::queriedKey(key, KEY_ENUMERATE_SUB_KEYS, out, ref);
    if (status >= 0) status = offline::childAt(ref, index, ref);
    return status < 0 ? status : offline::writeKeyRecord(ref, infoClass, out);
}

NTSTATUS ZwQueryValueKey(HANDLE key, PUNICODE_STRING name, KEY_VALUE_INFORMATION_CLASS infoClass,
                         PVOID buffer, ULONG size, PULONG resultLength) {
    const auto byName = [&](const offline::Hive& hive, offline::Cell cell, offline::HiveValue& value) {
        return offline::hiveFindValue(hive, cell, offline::view(name), value);
    };
    return offline::queryValue(key, infoClass, {buffer, size, resultLength}, byName);
}

NTSTATUS ZwEnumerateValueKey(HANDLE key, ULONG index, KEY_VALUE_INFORMATION_CLASS infoClass, PVOID buffer,
                             ULONG size, PULONG resultLength) {
    const auto byIndex = [&](const offline::Hive& hive, offline::Cell cell, offline::HiveValue& value) {
        return offline::hiveValue(hive, cell, index, value);
    };
    return offline::queryValue(key, infoClass, {buffer, size, resultLength}, byIndex);
}
