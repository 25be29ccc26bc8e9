/* ZwQueryKey, ZwEnumerateKey, ZwQueryValueKey, ZwEnumerateValueKey. */
#include "platform/offline/base/text.h"
#include "platform/offline/registry/keys.h"
#include "platform/offline/registry/namespace.h"
#include "platform/offline/registry/records.h"

namespace offline {
namespace {

/* The key behind the handle, when the caller's buffer can be used. */
NTSTATUS queriedKey(HANDLE handle, ACCESS_MASK needed, const QueryBuffer& out, Place& place) {
    if (out.total == nullptr || (out.bytes == nullptr && out.size != 0)) return STATUS_INVALID_PARAMETER;
    return useKey(handle, needed, place);
}

} /* namespace */
} /* namespace offline */

NTSTATUS ZwQueryKey(HANDLE key, KEY_INFORMATION_CLASS infoClass, PVOID buffer, ULONG size,
                    PULONG resultLength) {
    const offline::QueryBuffer out{buffer, size, resultLength};
    offline::Place place;
    const NTSTATUS status = offline::queriedKey(key, KEY_QUERY_VALUE, out, place);
    return status < 0 ? status : offline::writeKeyRecord(place, infoClass, out);
}

NTSTATUS ZwEnumerateKey(HANDLE key, ULONG index, KEY_INFORMATION_CLASS infoClass, PVOID buffer, ULONG size,
                        PULONG resultLength) {
    const offline::QueryBuffer out{buffer, size, resultLength};
    offline::Place place;
    NTSTATUS status = offline::queriedKey(key, KEY_ENUMERATE_SUB_KEYS, out, place);
    if (status >= 0) status = offline::childAt(place, index, place);
    return status < 0 ? status : offline::writeKeyRecord(place, infoClass, out);
}

NTSTATUS ZwQueryValueKey(HANDLE key, PUNICODE_STRING name, KEY_VALUE_INFORMATION_CLASS infoClass,
                         PVOID buffer, ULONG size, PULONG resultLength) {
    const offline::QueryBuffer out{buffer, size, resultLength};
    offline::Place place;
    NTSTATUS status = offline::queriedKey(key, KEY_QUERY_VALUE, out, place);
    if (status < 0) return status;
    const offline::Hive& hive = *place.mount->hive;
    offline::HiveValue value;
    status = offline::hiveFindValue(hive, place.cell, offline::view(name), value);
    return status < 0 ? status : offline::writeValueRecord(hive, value, infoClass, out);
}

NTSTATUS ZwEnumerateValueKey(HANDLE key, ULONG index, KEY_VALUE_INFORMATION_CLASS infoClass, PVOID buffer,
                             ULONG size, PULONG resultLength) {
    const offline::QueryBuffer out{buffer, size, resultLength};
    offline::Place place;
    NTSTATUS status = offline::queriedKey(key, KEY_QUERY_VALUE, out, place);
    if (status < 0) return status;
    const offline::Hive& hive = *place.mount->hive;
    offline::HiveValue value;
    status = offline::hiveValue(hive, place.cell, index, value);
    return status < 0 ? status : offline::writeValueRecord(hive, value, infoClass, out);
}
