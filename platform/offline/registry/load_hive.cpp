/* SPDX-License-Identifier: GPL-2.0-or-later */
/* RegLoadKeyW and RegUnLoadKeyW. */
#include <algorithm>
#include <memory>
#include <string_view>
#include <utility>

#include "platform/offline/base/guarded.h"
#include "platform/offline/base/progress.h"
#include "platform/offline/base/system_needed.h"
#include "platform/offline/registry/hive_mounts.h"
#include "platform/offline/registry/open_keys.h"
#include "platform/offline/registry/registry.h"
#include "platform/offline/registry/registry_state.h"
#include "platform/offline/security/security.h"

namespace offline {
namespace {

/* The key below which a hive is mounted: Machine or User, by its predefined handle or an open one. */
NTSTATUS mountParent(HKEY root, LPCWSTR name, KeyRef& parent) {
    const std::u16string_view text = name == nullptr ? std::u16string_view() : name;
    if (text.empty() || text.size() > longestKeyName || text.find(u'\\') != text.npos)
        return STATUS_INVALID_PARAMETER;
    const NTSTATUS status = useRegKey(root, 0, parent);
    if (status < 0) return status;
    const bool holdsMounts = isNamespaceKey(parent) && parent.cell != parent.mount->root;
    return holdsMounts ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
}

NTSTATUS loadHive(HKEY root, LPCWSTR name, LPCWSTR file) {
    KeyRef parent;
    NTSTATUS status = systemNeeded();
    if (status >= 0) status = mountParent(root, name, parent);
    if (status < 0) return status;
    if (!privilegeEnabled(backupPrivilege) || !privilegeEnabled(restorePrivilege))
        return STATUS_PRIVILEGE_NOT_HELD;
    const HiveLoader hiveLoader = registryState().hiveLoader;
    if (hiveLoader == nullptr) return STATUS_OBJECT_NAME_NOT_FOUND;
    auto mount = std::make_unique<Mount>();
    mount->name = name;
    mount->loaded = true;
    status = hiveLoader(file, mount->hive, mount->store);
    if (status < 0) return status;
    const uint32_t keys = hiveKeysFound(*mount->hive);
    status = addMount(parent, std::move(mount));
    if (status >= 0) progressBeginNext({"User's hive", keys});
    return status == STATUS_OBJECT_NAME_COLLISION ? STATUS_ACCESS_DENIED : status;
}

bool anyOpen(const Mount& mount) {
    const auto linkOpen = [](const Attached& link) { return isOpen(link.child); };
    return mount.openKeys != 0 || std::any_of(mount.attached.begin(), mount.attached.end(), linkOpen);
}

NTSTATUS unloadHive(HKEY root, LPCWSTR name) {
    KeyRef parent;
    NTSTATUS status = systemNeeded();
    if (status >= 0) status = mountParent(root, name, parent);
    if (status < 0) return status;
    if (!privilegeEnabled(restorePrivilege)) return STATUS_PRIVILEGE_NOT_HELD;
    KeyRef ref;
    status = findChild(parent, name, ref);
    if (status < 0) return status;
    if (!ref.mount->loaded || anyOpen(*ref.mount)) return STATUS_ACCESS_DENIED;
    status = saveMount(*ref.mount);
    if (status >= 0) removeMount(ref.mount);
    return status;
}

} /* namespace */

void registrySetLoader(HiveLoader loader) {
    registryState().hiveLoader = loader;
}

} /* namespace offline */

LSTATUS RegLoadKeyW(HKEY root, LPCWSTR mountName, LPCWSTR file) {
    if (file == nullptr || file[0] == 0) return ERROR_INVALID_PARAMETER;
    const NTSTATUS status = offline::guarded([&] { return offline::loadHive(root, mountName, file); });
    return static_cast<LSTATUS>(RtlNtStatusToDosError(status));
}

LSTATUS RegUnLoadKeyW(HKEY root, LPCWSTR mountName) {
    const NTSTATUS status = offline::guarded([&] { return offline::unloadHive(root, mountName); });
    return static_cast<LSTATUS>(RtlNtStatusToDosError(status));
}
