/* SPDX-License-Identifier: GPL-2.0-or-later */
/* What a new key consists of, for a new hive's root and for a new subkey. */
#ifndef QUILLET_OFFLINE_HIVE_KEY_NODES_H
#define QUILLET_OFFLINE_HIVE_KEY_NODES_H

#include <cstdint>
#include <string_view>

#include "platform/offline/base/bytes.h"
#include "platform/offline/hive/image.h"
#include "platform/offline/hive/security_cells.h"

namespace offline {

struct NewKey {
    std::u16string_view name;
    Bytes classText;
    DescriptorUse descriptor;
    uint16_t flags = 0; /* but for the form of the name */
};

inline bool validDescriptor(Bytes descriptor) {
    return !descriptor.empty() && descriptor.size() <= longestDescriptor;
}

/* The room that storeKey needs. */
uint64_t newKeyGrowth(const NewKey& fresh);

/* Stores a key that has nothing below it and that nothing leads to yet. Needs that room made before; throws
 * std::bad_alloc and has changed nothing then. */
Cell storeKey(Hive& hive, Cell parent, const NewKey& fresh, uint64_t time);

/* How many values the key in this data has. */
uint32_t valueCount(Bytes key);

/* Gives back all values of a key that is going away. */
void releaseValues(Hive& hive, Cell key);

} /* namespace offline */

#endif
