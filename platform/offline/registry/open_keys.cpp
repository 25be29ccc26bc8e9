/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/registry/open_keys.h"

#include <cstddef>
#include <cstdint>
#include <memory>

#include "platform/offline/base/guarded.h"
#include "platform/offline/base/handles.h"
#include "platform/offline/base/system_needed.h"
#include "platform/offline/registry/registry_state.h"
#include "platform/offline/security/security.h"

namespace offline {

/* What all handles on one key share. */
struct OpenKey {
    KeyRef ref; /* the mount is null when the key has been deleted */
    size_t handles = 0;
    OpenKey* next = nullptr; /* in its bucket */
};

namespace {

/* What a handle stands for. */
struct KeyHandle {
    OpenKey* key;
    ACCESS_MASK granted;
};

/* Only a few keys are open at a time. */
OpenKey** bucketOf(const KeyRef& ref) {
    auto& buckets = registryState().openKeys;
    const uint64_t mixed = (reinterpret_cast<uintptr_t>(ref.mount) ^ ref.cell) * 0x9E3779B97F4A7C15;
    return &buckets[(mixed >> 32) % buckets.size()];
}

/* The link of the chain that points to the open key, or the null one at its end. */
OpenKey** linkTo(const KeyRef& ref) {
    OpenKey** link = bucketOf(ref);
    while (*link != nullptr && !((*link)->ref == ref)) link = &(*link)->next;
    return link;
}

void takeOut(OpenKey** link) {
    OpenKey* key = *link;
    *link = key->next;
    key->ref.mount->openKeys--;
    key->ref.mount = nullptr;
}

/* The object of an open key, which the table holds from then on; it has no handle yet when it is new. */
OpenKey& keyAt(const KeyRef& ref) {
    OpenKey** link = linkTo(ref);
    if (*link != nullptr) return **link;
    auto made = std::make_unique<OpenKey>();
    made->ref = ref;
    ref.mount->openKeys++;
    *link = made.get();
    return *made.release();
}

void release(OpenKey* key) {
    if (--key->handles > 0) return;
    if (key->ref.mount != nullptr) takeOut(linkTo(key->ref));
    delete key;
}

void closeKey(void* object) {
    const auto* handle = static_cast<KeyHandle*>(object);
    release(handle->key);
    delete handle;
}

const HandleType keyType = {closeKey};

} /* namespace */

NTSTATUS openHandle(const KeyRef& ref, ACCESS_MASK granted, HANDLE& handle) {
    return guarded([&] {
        auto made = std::make_unique<KeyHandle>(KeyHandle{nullptr, granted});
        OpenKey& key = keyAt(ref);
        key.handles++;
        made->key = &key;
        HANDLE fresh = handleCreate(keyType, made.get());
        if (fresh == nullptr) {
            release(&key);
            return STATUS_NO_MEMORY;
        }
        static_cast<void>(made.release());
        handle = fresh;
        return STATUS_SUCCESS;
    });
}

NTSTATUS useKey(HANDLE handle, ACCESS_MASK needed, KeyRef& ref) {
    const auto* object = static_cast<const KeyHandle*>(handleObject(handle, keyType));
    if (object == nullptr) return STATUS_INVALID_HANDLE;
    if ((object->granted & needed) != needed) return STATUS_ACCESS_DENIED;
    if (object->key->ref.mount == nullptr) return STATUS_KEY_DELETED;
    ref = object->key->ref;
    return STATUS_SUCCESS;
}

NTSTATUS useRegKey(HKEY key, ACCESS_MASK needed, KeyRef& ref) {
    if (key != HKEY_LOCAL_MACHINE && key != HKEY_USERS) return useKey(key, needed, ref);
    NTSTATUS status = systemNeeded();
    if (status < 0) return status;
    status = predefinedKey(key, ref);
    if (status < 0 || needed == 0) return status;
    ACCESS_MASK granted = 0;
    return accessCheck(hiveKeyDescriptor(*ref.mount->hive, ref.cell), needed, keyMapping, granted);
}

bool isOpen(const KeyRef& ref) {
    return *linkTo(ref) != nullptr;
}

void markDeleted(const KeyRef& ref) {
    OpenKey** link = linkTo(ref);
    if (*link != nullptr) takeOut(link);
}

void forgetOpenKeys() {
    for (OpenKey*& first : registryState().openKeys) {
        while (first != nullptr) takeOut(&first);
    }
}

} /* namespace offline */
