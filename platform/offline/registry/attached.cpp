/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/registry/attached.h"

#include <algorithm>

#include "platform/offline/base/unicode.h"

namespace offline {
namespace {

bool comesBefore(const Attached& one, Cell parent, std::u16string_view name) {
    if (one.parent != parent) return one.parent < parent;
    return compareFolded(one.name, name) < 0;
}

/* How many stored children come before the name, and whether one has it. */
NTSTATUS storedBefore(const KeyRef& parent, std::u16string_view name, uint32_t& count, bool& hidden) {
    HiveKey info;
    NTSTATUS status = hiveKey(*parent.mount->hive, parent.cell, info);
    if (status < 0) return status;
    count = 0;
    hidden = false;
    for (uint32_t end = info.subkeyCount; count < end;) {
        const uint32_t middle = count + (end - count) / 2;
        Cell child = noCell;
        status = hiveSubkey(*parent.mount->hive, parent.cell, middle, child);
        if (status < 0) return status;
        char16_t text[longestKeyName];
        const size_t length = hiveKeyName(*parent.mount->hive, child, text);
        const int order = compareFolded({text, length}, name);
        if (order == 0) hidden = true;
        if (order < 0) {
            count = middle + 1;
        } else {
            end = middle;
        }
    }
    return STATUS_SUCCESS;
}

} /* namespace */

std::span<const Attached> attachedBelow(const KeyRef& parent) {
    const std::vector<Attached>& all = parent.mount->attached;
    if (all.empty()) return {};
    const auto first = std::lower_bound(all.begin(), all.end(), parent.cell,
                                        [](const Attached& one, Cell cell) { return one.parent < cell; });
    const auto last = std::upper_bound(first, all.end(), parent.cell,
                                       [](Cell cell, const Attached& one) { return cell < one.parent; });
    return {first, last};
}

NTSTATUS findAttached(const KeyRef& parent, std::u16string_view name, KeyRef& child) {
    for (const Attached& one : attachedBelow(parent)) {
        if (!equalFolded(one.name, name)) continue;
        child = one.child;
        return STATUS_SUCCESS;
    }
    return STATUS_OBJECT_NAME_NOT_FOUND;
}

void attach(const KeyRef& parent, std::u16string_view name, const KeyRef& child) {
    std::vector<Attached>& all = parent.mount->attached;
    const auto after = [&](const Attached& one) { return !comesBefore(one, parent.cell, name); };
    all.insert(std::find_if(all.begin(), all.end(), after),
               Attached{parent.cell, std::u16string(name), child});
}

NTSTATUS childAmongAttached(const KeyRef& parent, uint32_t& index, const Attached*& found) {
    found = nullptr;
    uint32_t stored = 0; /* stored children passed, hidden ones too */
    uint32_t shown = 0;  /* children passed */
    for (const Attached& one : attachedBelow(parent)) {
        uint32_t before = 0;
        bool hidden = false;
        const NTSTATUS status = storedBefore(parent, one.name, before, hidden);
        if (status < 0) return status;
        before = std::max(before, stored);
        if (index < shown + (before - stored)) break;
        shown += before - stored;
        if (index == shown) {
            found = &one;
            return STATUS_SUCCESS;
        }
        shown++;
        stored = before + (hidden ? 1 : 0);
    }
    index = stored + (index - shown);
    return STATUS_SUCCESS;
}

} /* namespace offline */
