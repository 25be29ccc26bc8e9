/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/registry/hive_mounts.h"

#include <utility>

#include "platform/offline/base/guarded.h"
#include "platform/offline/registry/attached.h"
#include "platform/offline/registry/links.h"
#include "platform/offline/registry/open_keys.h"
#include "platform/offline/registry/registry.h"
#include "platform/offline/registry/registry_state.h"
#include "platform/offline/registry/resolve.h"

namespace offline {
namespace {

/* The key in memory that is to hold a mount, and the last component of its path. */
NTSTATUS mountPoint(std::u16string_view path, KeyRef& parent, std::u16string_view& name) {
    std::u16string_view rest;
    NTSTATUS status = belowRegistry(path, rest);
    if (status < 0) return status;
    status = namespaceRoot(parent);
    if (status < 0) return status;
    for (name = takeComponent(rest); !rest.empty(); name = takeComponent(rest)) {
        status = findChild(parent, name, parent);
        if (status < 0) return status;
    }
    if (!isNamespaceKey(parent) || name.empty() || name.size() > longestKeyName)
        return STATUS_INVALID_PARAMETER;
    return STATUS_SUCCESS;
}

} /* namespace */

NTSTATUS addMount(const KeyRef& parent, std::unique_ptr<Mount> mount) {
    KeyRef taken;
    if (findChild(parent, mount->name, taken) >= 0) return STATUS_OBJECT_NAME_COLLISION;
    mount->root = hiveRoot(*mount->hive);
    tree().mounts.reserve(tree().mounts.size() + 1);
    attach(parent, mount->name, {mount.get(), mount->root});
    tree().mounts.push_back(std::move(mount));
    return STATUS_SUCCESS;
}

NTSTATUS beginChange(const KeyRef& ref) {
    HiveStore* const store = ref.mount->store.get();
    return store == nullptr ? STATUS_SUCCESS : store->beginChange();
}

NTSTATUS saveMount(Mount& mount) {
    if (mount.store == nullptr || !hiveChanged(*mount.hive)) return STATUS_SUCCESS;
    /* A medium that refuses what waits for it already must not catch this hive half-saved. */
    const NTSTATUS status = mount.store->flush();
    return status < 0 ? status : hiveSave(*mount.hive, *mount.store);
}

void removeMount(Mount* mount) {
    for (const Attached& link : mount->attached) deleteLinkKey(link.child.cell);
    std::erase_if(tree().keys->attached, [&](const Attached& one) { return one.child.mount == mount; });
    std::erase_if(tree().mounts, [&](const std::unique_ptr<Mount>& one) { return one.get() == mount; });
}

NTSTATUS registryMount(std::u16string_view path, HivePtr hive, std::unique_ptr<HiveStore> store) {
    return guarded([&] {
        KeyRef parent;
        std::u16string_view name;
        const NTSTATUS status = mountPoint(path, parent, name);
        if (status < 0) return status;
        if (hive == nullptr) return STATUS_INVALID_PARAMETER;
        auto mount = std::make_unique<Mount>();
        mount->name = name;
        mount->hive = std::move(hive);
        mount->store = std::move(store);
        return addMount(parent, std::move(mount));
    });
}

NTSTATUS registrySaveAll(std::vector<const HiveStore*>& failed) {
    NTSTATUS first = STATUS_SUCCESS;
    failed.clear();
    for (const std::unique_ptr<Mount>& mount : tree().mounts) {
        const NTSTATUS status = saveMount(*mount);
        if (status >= 0) continue;
        if (first >= 0) first = status;
        static_cast<void>(guarded([&] { /* without memory it goes unnamed */
                                        failed.push_back(mount->store.get());
                                        return STATUS_SUCCESS;
        }));
    }
    return first;
}

void registryReset() {
    if (!hasRoomState(StatefulRoom::registry)) return;
    forgetOpenKeys();
    tree() = Namespace();
}

} /* namespace offline */
