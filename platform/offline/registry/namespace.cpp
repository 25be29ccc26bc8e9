/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/registry/namespace.h"

#include <array>
#include <chrono>
#include <utility>

#include "platform/offline/base/guarded.h"
#include "platform/offline/registry/attached.h"
#include "platform/offline/registry/registry_state.h"

namespace offline {
namespace {

/* O:BAG:SYD:(A;CI;KA;;;SY)(A;CI;KA;;;BA)(A;CI;KR;;;WD), self-relative. */
// clang-format off
constexpr std::array<uint8_t, 120> namespaceDescriptor = {
    1, 0, 0x04, 0x80, 92, 0, 0, 0, 108, 0, 0, 0, 0, 0, 0, 0, 20, 0, 0, 0, // revision, control, four offsets
    2, 0, 72, 0, 3, 0, 0, 0,                                             // a list of three entries
    0, 2, 20, 0, 0x3F, 0, 0x0F, 0, 1, 1, 0, 0, 0, 0, 0, 5, 18, 0, 0, 0,  // Local System: KEY_ALL_ACCESS
    0, 2, 24, 0, 0x3F, 0, 0x0F, 0, 1, 2, 0, 0, 0, 0, 0, 5, 32, 0, 0, 0, 0x20, 2, 0, 0, // Administrators: the same
    0, 2, 20, 0, 0x19, 0, 0x02, 0, 1, 1, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0,   // Everyone: KEY_READ
    1, 2, 0, 0, 0, 0, 0, 5, 32, 0, 0, 0, 0x20, 2, 0, 0,                  // owner: Administrators
    1, 1, 0, 0, 0, 0, 0, 5, 18, 0, 0, 0,                                 // group: Local System
};
// clang-format on

/* A hive in memory, not yet part of the tree. */
NTSTATUS createMemoryHive(std::u16string_view rootName, std::unique_ptr<Mount>& mount) {
    auto made = std::make_unique<Mount>();
    made->name = rootName;
    const NTSTATUS status = hiveCreate(5, rootName, {}, namespaceDescriptor, made->hive);
    if (status < 0) return status;
    made->root = hiveRoot(*made->hive);
    mount = std::move(made);
    return STATUS_SUCCESS;
}

NTSTATUS makeNamespace() {
    Namespace made;
    NTSTATUS status = createMemoryHive(u"REGISTRY", made.keys);
    if (status < 0) return status;
    status = createMemoryHive(u"LINKS", made.links);
    if (status < 0) return status;
    Hive& keys = *made.keys->hive;
    status = hiveCreateSubkey(keys, made.keys->root, u"MACHINE", {}, namespaceDescriptor, HIVE_KEY_NO_DELETE,
                              timeNow(), made.machine);
    if (status < 0) return status;
    status = hiveCreateSubkey(keys, made.keys->root, u"USER", {}, namespaceDescriptor, HIVE_KEY_NO_DELETE,
                              timeNow(), made.user);
    if (status < 0) return status;
    tree() = std::move(made);
    return STATUS_SUCCESS;
}

} /* namespace */

Namespace& tree() {
    return registryState().tree;
}

NTSTATUS namespaceRoot(KeyRef& root) {
    if (tree().keys == nullptr) {
        const NTSTATUS status = guarded(makeNamespace);
        if (status < 0) return status;
    }
    root = {tree().keys.get(), tree().keys->root};
    return STATUS_SUCCESS;
}

NTSTATUS predefinedKey(HKEY key, KeyRef& ref) {
    if (key != HKEY_LOCAL_MACHINE && key != HKEY_USERS) return STATUS_INVALID_HANDLE;
    const NTSTATUS status = namespaceRoot(ref);
    if (status < 0) return status;
    ref.cell = key == HKEY_LOCAL_MACHINE ? tree().machine : tree().user;
    return STATUS_SUCCESS;
}

bool isNamespaceKey(const KeyRef& ref) {
    return ref.mount == tree().keys.get();
}

NTSTATUS findChild(const KeyRef& parent, std::u16string_view name, KeyRef& child) {
    KeyRef found{parent.mount, noCell};
    if (parent.mount->attached.empty() || findAttached(parent, name, found) < 0) {
        const NTSTATUS status = hiveFindSubkey(*parent.mount->hive, parent.cell, name, found.cell);
        if (status < 0) return status;
    }
    child = found;
    return STATUS_SUCCESS;
}

NTSTATUS childAt(const KeyRef& parent, uint32_t index, KeyRef& child) {
    if (!parent.mount->attached.empty()) {
        const Attached* found = nullptr;
        const NTSTATUS status = childAmongAttached(parent, index, found);
        if (status < 0) return status;
        if (found != nullptr) {
            child = found->child;
            return STATUS_SUCCESS;
        }
    }
    KeyRef stored{parent.mount, noCell};
    const NTSTATUS status = hiveSubkey(*parent.mount->hive, parent.cell, index, stored.cell);
    if (status < 0) return status;
    child = stored;
    return STATUS_SUCCESS;
}

size_t keyName(const KeyRef& ref, char16_t* name) {
    if (ref.cell != ref.mount->root) return hiveKeyName(*ref.mount->hive, ref.cell, name);
    return ref.mount->name.copy(name, longestKeyName);
}

uint64_t timeNow() {
    constexpr uint64_t from1601To1970 = 116444736000000000; /* 100 ns */
    using Ticks = std::chrono::duration<int64_t, std::ratio<1, 10000000>>;
    const auto since1970 = std::chrono::system_clock::now().time_since_epoch();
    return from1601To1970 + static_cast<uint64_t>(std::chrono::duration_cast<Ticks>(since1970).count());
}

} /* namespace offline */
