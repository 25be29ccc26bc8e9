/* SPDX-License-Identifier: GPL-2.0-or-later */
/* A hive in memory and the one place where a cell's offset becomes memory. */
#ifndef QUILLET_OFFLINE_HIVE_IMAGE_H
#define QUILLET_OFFLINE_HIVE_IMAGE_H

#include <cstdint>
#include <new>
#include <set>
#include <span>
#include <stdexcept>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/offline/base/bytes.h"
#include "platform/offline/hive/format.h"
#include "platform/offline/hive/hive.h"

namespace offline {

/* One bit for every offset at which a cell can begin. */
struct CellBits {
    std::vector<uint64_t> words;

    bool test(Cell cell) const { return (words[cell / 512] >> (cell / 8 % 64) & 1) != 0; }
    void set(Cell cell) { words[cell / 512] |= uint64_t{1} << (cell / 8 % 64); }
    void clear(Cell cell) { words[cell / 512] &= ~(uint64_t{1} << (cell / 8 % 64)); }
};

/* Which leaf of a long subkey list was last read, so that a walk by index does not count the leaves anew. */
struct LeafMemory {
    uint64_t generation = 0;
    Cell list = noCell;
    Cell leaf = noCell;
    uint32_t number = 0; /* the leaf's in the list */
    uint32_t first = 0;  /* index of its first subkey */
    uint32_t count = 0;
};

/* The subkey last read by index. Who enumerates a key mostly opens what it finds there, by its name. */
struct SubkeyMemory {
    uint64_t generation = 0;
    Cell key = noCell;
    Cell child = noCell;
};

struct Hive {
    std::vector<uint8_t> bytes; /* the file: base block, bins, and what lies after them */
    uint32_t binsSize = 0;
    uint32_t minor = 0;
    Cell root = noCell;
    uint64_t fileSize = 0; /* of the stored file */
    bool changed = false;
    bool recovered = false;          /* pages from the logs count as dirty but not as a change */
    std::vector<uint8_t> dirtyPages; /* one for each page of the bins */

    CellBits starts;                               /* cells, free or not */
    CellBits keys;                                 /* keys that can be reached from the root */
    uint32_t keysFound = 0;                        /* of these, when it was opened */
    std::vector<uint32_t> pageBin;                 /* for each page of the bins the offset of its bin */
    std::set<std::pair<uint32_t, Cell>> freeCells; /* size and offset */

    std::unordered_map<uint64_t, Cell> descriptors; /* by the hash of their bytes */

    uint64_t generation = 1; /* counts the changes of subkey lists */
    mutable LeafMemory lastLeaf;
    mutable SubkeyMemory lastSubkey;
};

/* The data of an allocated cell, after its size; empty when there is no such cell. Every offset that comes
 * from the file or from a caller passes here. */
inline Bytes cellData(const Hive& hive, Cell cell) {
    if (cell >= hive.binsSize || cell % regf::cellGrain != 0 || !hive.starts.test(cell)) return {};
    const uint8_t* at = hive.bytes.data() + regf::pageSize + cell;
    const int32_t size = regf::load<int32_t>(at);
    if (size >= 0) return {};
    return {at + regf::cellHeader, static_cast<size_t>(-int64_t{size}) - regf::cellHeader};
}

/* Marks bytes of the bins as to be saved. */
inline void touch(Hive& hive, uint32_t offset, size_t length) {
    const size_t last = (offset + length - 1) / regf::pageSize;
    for (size_t page = offset / regf::pageSize; page <= last; page++) hive.dirtyPages[page] = 1;
    hive.changed = true;
}

/* The same data to be written to; all of it counts as changed. */
inline std::span<uint8_t> changeCell(Hive& hive, Cell cell) {
    const Bytes data = cellData(hive, cell);
    if (data.empty()) return {};
    touch(hive, cell, data.size() + regf::cellHeader);
    return {const_cast<uint8_t*>(data.data()), data.size()};
}

inline bool isKey(const Hive& hive, Cell cell) {
    return cell < hive.binsSize && cell % regf::cellGrain == 0 && hive.keys.test(cell);
}

/* The offset at an index of a cell's array of offsets; the array begins at an offset in the cell. */
inline Cell entryAt(Bytes data, size_t offset, size_t index) {
    return regf::load<Cell>(data.data() + offset + index * sizeof(Cell));
}
inline void setEntry(std::span<uint8_t> data, size_t offset, size_t index, Cell cell) {
    memcpy(data.data() + offset + index * sizeof(Cell), &cell, sizeof cell);
}

} /* namespace offline */

#endif
