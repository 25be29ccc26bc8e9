/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/hive/subkeys.h"

#include <algorithm>

#include "platform/offline/base/guarded.h"
#include "platform/offline/hive/cells.h"
#include "platform/offline/hive/names.h"

namespace offline {
namespace {

using namespace regf;

constexpr uint32_t mostEntries = UINT16_MAX;
constexpr uint64_t noGrowth = uint64_t{1} << 40; /* more than any hive has */

Leaf leafAt(const Hive& hive, Cell cell) {
    return readLeaf(cellData(hive, cell));
}

bool isIndex(const Hive& hive, Cell list) {
    return get(cellData(hive, list), list::signature) == list::ri;
}

uint32_t countOf(Bytes data) {
    return get(data, list::count);
}

size_t capacityFor(uint32_t count) {
    return count < 8 ? count : count + count / 8;
}

size_t listSize(size_t entrySize, uint32_t count) {
    return list::entries + entrySize * capacityFor(count);
}

/* The first index from 0 to count of which the name is not below, asked of the predicate. */
template <class Below>
uint32_t firstNot(uint32_t count, Below below) {
    uint32_t low = 0;
    uint32_t high = count;
    while (low < high) {
        const uint32_t middle = low + (high - low) / 2;
        if (below(middle)) {
            low = middle + 1;
        } else {
            high = middle;
        }
    }
    return low;
}

bool childBelow(const Hive& hive, const Leaf& leaf, uint32_t i, std::u16string_view name) {
    return compareNames(keyName(cellData(hive, leaf.child(i))), name) < 0;
}

/* Opens a gap in an array of entries that has room for one more, or closes one; counts it. */
uint8_t* openEntry(std::span<uint8_t> data, size_t entrySize, uint32_t position) {
    const uint32_t count = countOf(data);
    uint8_t* at = data.data() + list::entries + position * entrySize;
    memmove(at + entrySize, at, (count - position) * entrySize);
    set(data, list::count, static_cast<uint16_t>(count + 1));
    return at;
}
void closeEntry(std::span<uint8_t> data, size_t entrySize, uint32_t position) {
    const uint32_t count = countOf(data);
    uint8_t* at = data.data() + list::entries + position * entrySize;
    memmove(at, at + entrySize, (count - position - 1) * entrySize);
    set(data, list::count, static_cast<uint16_t>(count - 1));
}

Cell newList(Hive& hive, uint16_t kind, size_t entrySize, uint32_t count) {
    const Cell cell = allocateCell(hive, listSize(entrySize, count));
    set(changeCell(hive, cell), list::signature, kind);
    return cell;
}

/* A copy of the list that has room for one more entry, which takes the list's place. */
Cell enlarge(Hive& hive, Cell old, size_t entrySize) {
    const uint32_t count = countOf(cellData(hive, old));
    const Cell cell = newList(hive, get(cellData(hive, old), list::signature), entrySize, count + 1);
    memcpy(changeCell(hive, cell).data(), cellData(hive, old).data(), list::entries + count * entrySize);
    releaseCell(hive, old);
    return cell;
}

bool hasRoom(Bytes data, size_t entrySize) {
    return list::entries + (countOf(data) + 1) * entrySize <= data.size();
}

Cell insertIntoIndex(Hive& hive, Cell index, uint32_t number, Cell leaf) {
    if (!hasRoom(cellData(hive, index), list::plainEntry)) index = enlarge(hive, index, list::plainEntry);
    memcpy(openEntry(changeCell(hive, index), list::plainEntry, number), &leaf, sizeof leaf);
    return index;
}

/* A list without hints that holds what an lf held, and takes its place. */
Cell withoutHints(Hive& hive, Cell old) {
    const uint32_t count = leafAt(hive, old).count;
    const Cell cell = newList(hive, list::li, list::plainEntry, count + 1);
    const std::span<uint8_t> data = changeCell(hive, cell);
    const Leaf from = leafAt(hive, old);
    for (uint32_t i = 0; i < count; i++) setEntry(data, list::entries, i, from.child(i));
    set(data, list::count, static_cast<uint16_t>(count));
    releaseCell(hive, old);
    return cell;
}

/* Moves the upper half of a leaf into a new one. */
Cell splitLeaf(Hive& hive, Cell left) {
    const Leaf leaf = leafAt(hive, left);
    const uint32_t kept = leaf.count / 2;
    const uint32_t moved = leaf.count - kept;
    const size_t entrySize = leaf.entrySize;
    const Cell right = newList(hive, leaf.kind, entrySize, moved);
    const std::span<uint8_t> data = changeCell(hive, right);
    memcpy(data.data() + list::entries, leafAt(hive, left).entry(kept), moved * entrySize);
    set(data, list::count, static_cast<uint16_t>(moved));
    set(changeCell(hive, left), list::count, static_cast<uint16_t>(kept));
    shrinkCell(hive, left, listSize(entrySize, kept + 1));
    return right;
}

Cell newIndex(Hive& hive, Cell left, Cell right) {
    const Cell cell = newList(hive, list::ri, list::plainEntry, 2);
    const std::span<uint8_t> data = changeCell(hive, cell);
    set(data, list::count, uint16_t{2});
    setEntry(data, list::entries, 0, left);
    setEntry(data, list::entries, 1, right);
    return cell;
}

/* Makes one leaf of two neighbours that have become short. Without memory they stay two. */
void joinLeaves(Hive& hive, Cell index, uint32_t number) {
    const Cell left = entryAt(cellData(hive, index), list::entries, number);
    const Cell right = entryAt(cellData(hive, index), list::entries, number + 1);
    const Leaf first = leafAt(hive, left);
    const Leaf second = leafAt(hive, right);
    const uint32_t count = first.count + second.count;
    const size_t entrySize = first.entrySize;
    if (first.kind != second.kind || count > list::largestLf / 2) return;
    if (guarded([&] { return makeRoom(hive, growthFor(listSize(entrySize, count))); }) < 0) return;
    const Cell joined = newList(hive, first.kind, entrySize, count);
    const std::span<uint8_t> data = changeCell(hive, joined);
    const Leaf from = leafAt(hive, left);
    memcpy(data.data() + list::entries, from.entry(0), from.count * entrySize);
    memcpy(data.data() + list::entries + from.count * entrySize, leafAt(hive, right).entry(0),
           (count - from.count) * entrySize);
    set(data, list::count, static_cast<uint16_t>(count));
    releaseCell(hive, left);
    releaseCell(hive, right);
    setEntry(changeCell(hive, index), list::entries, number, joined);
    closeEntry(changeCell(hive, index), list::plainEntry, number + 1);
}

/* What is left of an ri of which a leaf has been shortened or, when it is empty, given back. */
Cell tidyIndex(Hive& hive, Cell index, uint32_t number, bool emptied) {
    if (emptied) {
        closeEntry(changeCell(hive, index), list::plainEntry, number);
    } else {
        if (number + 1 < countOf(cellData(hive, index))) joinLeaves(hive, index, number);
        if (number > 0) joinLeaves(hive, index, number - 1);
    }
    const uint32_t count = countOf(cellData(hive, index));
    if (count > 1) return index;
    const Cell only = count == 0 ? noCell : entryAt(cellData(hive, index), list::entries, 0);
    releaseCell(hive, index);
    return only;
}

} /* namespace */

Leaf readLeaf(Bytes data) {
    Leaf leaf;
    if (data.size() < list::entries) return leaf;
    leaf.data = data;
    leaf.kind = get(data, list::signature);
    leaf.count = get(data, list::count);
    const bool hinted = leaf.kind == list::lf || leaf.kind == list::lh;
    leaf.entrySize = hinted ? list::hintedEntry : list::plainEntry;
    return leaf;
}

SubkeySlot findSubkey(const Hive& hive, Cell list, std::u16string_view name) {
    SubkeySlot slot;
    if (list == noCell) return slot;
    slot.leaf = list;
    if (isIndex(hive, list)) {
        const Bytes index = cellData(hive, list);
        const uint32_t last = countOf(index) - 1; /* what comes after all leaves belongs in the last */
        slot.leafNumber = firstNot(last, [&](uint32_t i) {
            const Leaf leaf = leafAt(hive, entryAt(index, list::entries, i));
            return childBelow(hive, leaf, leaf.count - 1, name);
        });
        slot.leaf = entryAt(index, list::entries, slot.leafNumber);
    }
    const Leaf leaf = leafAt(hive, slot.leaf);
    slot.position = firstNot(leaf.count, [&](uint32_t i) { return childBelow(hive, leaf, i, name); });
    if (slot.position < leaf.count) {
        slot.child = leaf.child(slot.position);
        slot.found = compareNames(keyName(cellData(hive, slot.child)), name) == 0;
    }
    return slot;
}

Cell subkeyAt(const Hive& hive, Cell list, uint32_t index) {
    const Bytes data = cellData(hive, list);
    if (get(data, list::signature) != list::ri) return readLeaf(data).child(index);

    LeafMemory& memory = hive.lastLeaf;
    if (memory.generation != hive.generation || memory.list != list || index < memory.first) {
        const Cell leaf = entryAt(data, list::entries, 0);
        memory = {hive.generation, list, leaf, 0, 0, leafAt(hive, leaf).count};
    }
    while (index - memory.first >= memory.count) {
        memory.first += memory.count;
        memory.leaf = entryAt(data, list::entries, ++memory.number);
        memory.count = leafAt(hive, memory.leaf).count;
    }
    return leafAt(hive, memory.leaf).child(index - memory.first);
}

uint64_t insertGrowth(const Hive& hive, Cell list, const SubkeySlot& slot) {
    if (list == noCell) return growthFor(listSize(list::hintedEntry, 1));
    const Leaf leaf = leafAt(hive, slot.leaf);
    const uint32_t leaves = isIndex(hive, list) ? countOf(cellData(hive, list)) : 1;
    if (leaves == mostEntries) return noGrowth;
    return 2 * growthFor(listSize(leaf.entrySize, leaf.count + 1)) +
           growthFor(listSize(list::plainEntry, leaves + 1));
}

Cell insertSubkey(Hive& hive, Cell list, SubkeySlot slot, Cell child) {
    hive.generation++;
    if (list == noCell) {
        const bool hashed = hive.minor >= list::firstHashedMinor;
        list = slot.leaf = newList(hive, hashed ? list::lh : list::lf, list::hintedEntry, 1);
    }
    bool indexed = isIndex(hive, list);
    if (leafAt(hive, slot.leaf).kind == list::lf && leafAt(hive, slot.leaf).count >= list::largestLf &&
        !indexed) {
        list = slot.leaf = withoutHints(hive, list);
    } else if (leafAt(hive, slot.leaf).count >= list::largestLeaf) {
        const Cell right = splitLeaf(hive, slot.leaf);
        list =
            indexed ? insertIntoIndex(hive, list, slot.leafNumber + 1, right) : newIndex(hive, list, right);
        indexed = true;
        const uint32_t kept = leafAt(hive, slot.leaf).count;
        if (slot.position > kept) {
            slot.leaf = right;
            slot.leafNumber++;
            slot.position -= kept;
        }
    }
    const size_t entrySize = leafAt(hive, slot.leaf).entrySize;
    if (!hasRoom(cellData(hive, slot.leaf), entrySize)) {
        slot.leaf = enlarge(hive, slot.leaf, entrySize);
        if (indexed) {
            setEntry(changeCell(hive, list), list::entries, slot.leafNumber, slot.leaf);
        } else {
            list = slot.leaf;
        }
    }
    uint8_t* entry = openEntry(changeCell(hive, slot.leaf), entrySize, slot.position);
    memcpy(entry, &child, sizeof child);
    if (entrySize == list::hintedEntry) {
        const StoredName name = keyName(cellData(hive, child));
        const uint32_t hint = leafAt(hive, slot.leaf).kind == list::lh ? nameHash(name) : nameHint(name);
        memcpy(entry + sizeof child, &hint, sizeof hint);
    }
    return list;
}

Cell removeSubkey(Hive& hive, Cell list, const SubkeySlot& slot) {
    hive.generation++;
    const size_t entrySize = leafAt(hive, slot.leaf).entrySize;
    const bool indexed = isIndex(hive, list);
    closeEntry(changeCell(hive, slot.leaf), entrySize, slot.position);
    const uint32_t count = leafAt(hive, slot.leaf).count;
    if (count == 0) {
        releaseCell(hive, slot.leaf);
    } else {
        const size_t wanted = listSize(entrySize, count);
        if (cellData(hive, slot.leaf).size() > 2 * wanted + 64) shrinkCell(hive, slot.leaf, wanted);
    }
    if (indexed) return tidyIndex(hive, list, slot.leafNumber, count == 0);
    return count == 0 ? noCell : list;
}

} /* namespace offline */
