/* SPDX-License-Identifier: GPL-2.0-or-later */
/* ZwSetValueKey, ZwDeleteKey, ZwFlushKey. */
#include "platform/offline/registry/key_changes.h"

#include <cstdint>
#include <span>

#include "platform/offline/base/unicode.h"
#include "platform/offline/registry/attached.h"
#include "platform/offline/registry/hive_mounts.h"
#include "platform/offline/registry/links.h"
#include "platform/offline/registry/open_keys.h"
#include "platform/offline/registry/resolve.h"

namespace offline {
namespace {

/* A link key holds its target and nothing else. */
NTSTATUS checkLinkValue(const KeyRef& key, std::u16string_view name, ULONG type) {
    HiveKey info;
    const NTSTATUS status = hiveKey(*key.mount->hive, key.cell, info);
    if (status < 0 || (info.flags & HIVE_KEY_LINK) == 0) return status;
    return type == REG_LINK && equalFolded(name, linkValueName) ? STATUS_SUCCESS : STATUS_ACCESS_DENIED;
}

NTSTATUS deleteKeyRef(const KeyRef& key) {
    if (!attachedBelow(key).empty()) return STATUS_CANNOT_DELETE;
    if (isMemoryLink(key)) {
        markDeleted(key);
        removeLink(key);
        return STATUS_SUCCESS;
    }
    NTSTATUS status = beginChange(key);
    if (status >= 0) status = hiveDeleteKey(*key.mount->hive, key.cell, timeNow());
    if (status >= 0) markDeleted(key);
    return status;
}

} /* namespace */

NTSTATUS setValue(const KeyRef& key, std::u16string_view name, ULONG type, const void* data, size_t size) {
    if (name.size() > longestValueName || (data == nullptr && size != 0)) return STATUS_INVALID_PARAMETER;
    NTSTATUS status = checkLinkValue(key, name, type);
    if (status >= 0) status = beginChange(key);
    if (status < 0) return status;
    const std::span bytes(static_cast<const uint8_t*>(data), size);
    return hiveSetValue(*key.mount->hive, key.cell, name, type, bytes, timeNow());
}

NTSTATUS deleteValue(const KeyRef& key, std::u16string_view name) {
    NTSTATUS status = checkLinkValue(key, name, REG_NONE);
    if (status >= 0) status = beginChange(key);
    return status < 0 ? status : hiveDeleteValue(*key.mount->hive, key.cell, name, timeNow());
}

} /* namespace offline */

NTSTATUS ZwSetValueKey(HANDLE key, PUNICODE_STRING name, ULONG /* titleIndex */, ULONG type, PVOID data,
                       ULONG size) {
    offline::KeyRef ref;
    const NTSTATUS status = offline::useKey(key, KEY_SET_VALUE, ref);
    return status < 0 ? status : offline::setValue(ref, offline::view(name), type, data, size);
}

NTSTATUS ZwDeleteKey(HANDLE key) {
    offline::KeyRef ref;
    const NTSTATUS status = offline::useKey(key, DELETE, ref);
    return status < 0 ? status : offline::deleteKeyRef(ref);
}

NTSTATUS ZwFlushKey(HANDLE key) {
    offline::KeyRef ref;
    const NTSTATUS status = offline::useKey(key, 0, ref);
    return status < 0 ? status : offline::saveMount(*ref.mount);
}
