/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/device/changed_units.h"

#include <algorithm>

namespace offline {

/* The last leaf that begins at or below the unit; leaves.size() when there is none. */
size_t ChangedUnits::leafAt(uint64_t unit) const {
    const auto above = std::upper_bound(leaves.begin(), leaves.end(), unit,
                                        [](uint64_t one, const Leaf& leaf) { return one < leaf.base; });
    return above == leaves.begin() ? leaves.size() : static_cast<size_t>(above - leaves.begin()) - 1;
}

uint32_t ChangedUnits::slotOf(uint64_t unit) const {
    const size_t index = leafAt(unit);
    if (index == leaves.size()) return noSlot;
    const Leaf& leaf = leaves[index];
    const uint64_t distance = unit - leaf.base;
    const Entry* const end = leaf.entries.get() + leaf.count;
    const Entry* const found =
        std::lower_bound(static_cast<const Entry*>(leaf.entries.get()), end, distance,
                         [](const Entry& entry, uint64_t wanted) { return entry.distance < wanted; });
    return found != end && found->distance == distance ? found->slot : noSlot;
}

/* A full leaf in two halves; the last one only begins a new leaf, so that units that come in ascending order
 * fill every leaf. */
void ChangedUnits::split(size_t index) {
    const bool last = index + 1 == leaves.size();
    const size_t kept = last ? leafEntries - 1 : leafEntries / 2;
    Leaf upper;
    upper.entries = std::make_unique_for_overwrite<Entry[]>(leafEntries);
    leaves.reserve(leaves.size() + 1 > leaves.capacity() ? leaves.size() + leaves.size() / 2 + 1
                                                         : leaves.capacity());
    Leaf& lower = leaves[index];
    const uint32_t start = lower.entries[kept].distance;
    upper.base = lower.base + start;
    for (size_t entry = kept; entry < lower.count; ++entry) {
        upper.entries[upper.count++] = {lower.entries[entry].distance - start, lower.entries[entry].slot};
    }
    lower.count = kept;
    leaves.insert(leaves.begin() + static_cast<std::ptrdiff_t>(index) + 1, std::move(upper));
}

/* The leaf that takes the unit, with room in it. */
size_t ChangedUnits::leafFor(uint64_t unit) {
    size_t index = leafAt(unit);
    if (index == leaves.size() || leaves[index].base / leafReach != unit / leafReach) {
        Leaf leaf;
        leaf.base = unit - unit % leafReach;
        leaf.entries = std::make_unique_for_overwrite<Entry[]>(leafEntries);
        index = index == leaves.size() ? 0 : index + 1;
        leaves.insert(leaves.begin() + static_cast<std::ptrdiff_t>(index), std::move(leaf));
    }
    if (leaves[index].count < leafEntries) return index;
    split(index);
    return unit >= leaves[index + 1].base ? index + 1 : index;
}

void ChangedUnits::put(uint64_t unit, uint32_t slot) {
    Leaf& leaf = leaves[leafFor(unit)];
    const auto distance = static_cast<uint32_t>(unit - leaf.base);
    Entry* const end = leaf.entries.get() + leaf.count;
    Entry* const at =
        std::lower_bound(leaf.entries.get(), end, distance,
                         [](const Entry& entry, uint32_t wanted) { return entry.distance < wanted; });
    if (at != end && at->distance == distance) {
        at->slot = slot;
        return;
    }
    std::move_backward(at, end, end + 1);
    *at = {distance, slot};
    ++leaf.count;
    ++units;
}

bool ChangedUnits::next(uint64_t from, uint64_t most, UnitRun& run) const {
    size_t index = leafAt(from);
    if (index == leaves.size()) index = 0;
    for (; index < leaves.size(); ++index) {
        const Leaf& leaf = leaves[index];
        const uint64_t distance = from > leaf.base ? from - leaf.base : 0;
        const Entry* const end = leaf.entries.get() + leaf.count;
        const Entry* const found =
            std::lower_bound(static_cast<const Entry*>(leaf.entries.get()), end, distance,
                             [](const Entry& entry, uint64_t wanted) { return entry.distance < wanted; });
        if (found == end) continue;
        const auto follows = [&](uint64_t count) {
            return found + count != end && found[count].distance == found->distance + count &&
                   found[count].slot == found->slot + count;
        };
        run = {leaf.base + found->distance, found->slot, 1};
        while (run.count < most && follows(run.count)) ++run.count;
        return true;
    }
    return false;
}

size_t ChangedUnits::memory() const {
    return leaves.capacity() * sizeof(Leaf) + leaves.size() * leafEntries * sizeof(Entry);
}

} /* namespace offline */
