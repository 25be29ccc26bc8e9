/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Security descriptors: one cell for all keys with the same descriptor, counted, all of them in one ring. */
#ifndef QUILLET_OFFLINE_HIVE_SECURITY_CELLS_H
#define QUILLET_OFFLINE_HIVE_SECURITY_CELLS_H

#include <cstdint>

#include "platform/offline/base/bytes.h"
#include "platform/offline/hive/image.h"

namespace offline {

constexpr size_t longestDescriptor = 65535; /* bytes */

/* Enters a descriptor's cell among those that can be shared; throws std::bad_alloc. */
void noteDescriptor(Hive& hive, Cell cell);

/* The self-relative descriptor in an sk cell. */
Bytes descriptorIn(const Hive& hive, Cell cell);

/* A descriptor that a key is about to use. */
struct DescriptorUse {
    Bytes bytes;
    uint64_t hash = 0;
    Cell cell = noCell; /* the one to share, if there is one */
};

DescriptorUse findDescriptor(const Hive& hive, Bytes bytes);

/* The room that takeDescriptor needs. */
uint64_t descriptorGrowth(const DescriptorUse& use);

/* Counts one more user of the descriptor, which is made when there is none to share. Needs that room made
 * before; throws std::bad_alloc and has changed nothing then. The bytes must not lie in the hive. */
Cell takeDescriptor(Hive& hive, const DescriptorUse& use);

/* Counts one user less; the last one frees it. */
void dropDescriptor(Hive& hive, Cell cell);

} /* namespace offline */

#endif
