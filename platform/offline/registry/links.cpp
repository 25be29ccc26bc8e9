/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/registry/links.h"

#include <string>
#include <vector>

#include "platform/offline/base/guarded.h"
#include "platform/offline/registry/attached.h"
#include "platform/offline/registry/registry.h"
#include "platform/offline/registry/resolve.h"

namespace offline {
namespace {

/* A link key of this name in the links' own hive, with the descriptor of the key that it is to hang below. */
NTSTATUS createLinkKey(const KeyRef& parent, std::u16string_view name, std::u16string_view target,
                       Cell& link) {
    Mount& links = *tree().links;
    const auto stored = hiveKeyDescriptor(*parent.mount->hive, parent.cell);
    const std::vector<uint8_t> descriptor(stored.begin(), stored.end());
    const std::string number = std::to_string(tree().linksCreated++);
    const uint64_t time = timeNow();
    Cell holder = noCell;
    NTSTATUS status = hiveCreateSubkey(*links.hive, links.root, std::u16string(number.begin(), number.end()),
                                       {}, descriptor, 0, time, holder);
    if (status < 0) return status;
    status = hiveCreateSubkey(*links.hive, holder, name, {}, descriptor, HIVE_KEY_LINK, time, link);
    if (status < 0) {
        hiveDeleteKey(*links.hive, holder, time);
        return status;
    }
    const std::span data(reinterpret_cast<const uint8_t*>(target.data()), target.size() * sizeof(char16_t));
    status = hiveSetValue(*links.hive, link, linkValueName, REG_LINK, data, time);
    if (status < 0) deleteLinkKey(link);
    return status;
}

NTSTATUS addLink(std::u16string_view path, std::u16string_view target) {
    std::u16string_view rest;
    NTSTATUS status = belowRegistry(target, rest);
    if (status >= 0) status = belowRegistry(path, rest);
    if (status < 0) return status;
    const size_t nameAt = rest.find_last_of(u'\\') + 1;
    const std::u16string_view name = rest.substr(nameAt);
    if (name.empty() || name.size() > longestKeyName) return STATUS_INVALID_PARAMETER;
    KeyRef root;
    status = namespaceRoot(root);
    if (status < 0) return status;
    Resolved parent;
    status = resolvePath(root, rest.substr(0, nameAt), false, parent);
    if (status < 0) return status;
    KeyRef taken;
    if (findAttached(parent.key, name, taken) >= 0) return STATUS_OBJECT_NAME_COLLISION;
    Cell link = noCell;
    status = createLinkKey(parent.key, name, target, link);
    if (status < 0) return status;
    status = guarded([&] {
        attach(parent.key, name, {tree().links.get(), link});
        return STATUS_SUCCESS;
    });
    if (status < 0) deleteLinkKey(link);
    return status;
}

} /* namespace */

bool isMemoryLink(const KeyRef& ref) {
    return ref.mount == tree().links.get();
}

void removeLink(const KeyRef& ref) {
    const auto isIt = [&](const Attached& one) { return one.child == ref; };
    std::erase_if(tree().keys->attached, isIt);
    for (const std::unique_ptr<Mount>& mount : tree().mounts) std::erase_if(mount->attached, isIt);
    deleteLinkKey(ref.cell);
}

void deleteLinkKey(Cell link) {
    Hive& links = *tree().links->hive;
    HiveKey info;
    if (hiveKey(links, link, info) < 0) return;
    hiveDeleteKey(links, link, timeNow());
    hiveDeleteKey(links, info.parent, timeNow());
}

NTSTATUS registryAddLink(std::u16string_view path, std::u16string_view target) {
    return guarded([&] { return addLink(path, target); });
}

} /* namespace offline */
