/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The sorted lists of a key's subkeys: one leaf, or an "ri" over leaves. */
#ifndef QUILLET_OFFLINE_HIVE_SUBKEYS_H
#define QUILLET_OFFLINE_HIVE_SUBKEYS_H

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "platform/offline/base/bytes.h"
#include "platform/offline/hive/image.h"

namespace offline {

struct Leaf {
    Bytes data;
    uint16_t kind = 0; /* li, lf or lh; of anything else there is no more to know */
    uint32_t count = 0;
    size_t entrySize = 0; /* bytes */

    Cell child(uint32_t i) const { return regf::load<Cell>(entry(i)); }
    const uint8_t* entry(uint32_t i) const { return data.data() + regf::list::entries + i * entrySize; }
    uint32_t hint(uint32_t i) const { return regf::load<uint32_t>(entry(i) + sizeof(Cell)); } /* lf, lh */
};

/* What a list's cell says; its entries must be counted against the cell before they are read. */
Leaf readLeaf(Bytes data);

/* Where a subkey of some name is, or would be. */
struct SubkeySlot {
    bool found = false;
    Cell child = noCell;
    Cell leaf = noCell;
    uint32_t leafNumber = 0; /* in the ri */
    uint32_t position = 0;   /* in the leaf */
};

/* list is the list's cell, or noCell for the list of a key without subkeys. */
SubkeySlot findSubkey(const Hive& hive, Cell list, std::u16string_view name);

/* The subkey at an index below the list's count. */
Cell subkeyAt(const Hive& hive, Cell list, uint32_t index);

/* The room that inserting in this slot needs. */
uint64_t insertGrowth(const Hive& hive, Cell list, const SubkeySlot& slot);

/* Insert needs that room made before. Both give the list's cell as it is from then on. */
Cell insertSubkey(Hive& hive, Cell list, SubkeySlot slot, Cell child);
Cell removeSubkey(Hive& hive, Cell list, const SubkeySlot& slot);

} /* namespace offline */

#endif
