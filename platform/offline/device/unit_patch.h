/* SPDX-License-Identifier: GPL-2.0-or-later */
/* How a unit of a device differs from what lies below it, where that is little. A record that was rewritten
 * differs in its id and in the sequence numbers of its sectors: some ten bytes of 1024. */
#ifndef QUILLET_OFFLINE_DEVICE_UNIT_PATCH_H
#define QUILLET_OFFLINE_DEVICE_UNIT_PATCH_H

#include "platform/offline/base/bytes.h"

namespace offline {

/* Bytes of a patch: runs of new bytes, each behind where it begins in the unit (10 bits) and one less than
 * its length (6 bits); 0xff to the end. */
constexpr size_t patchSize = 24;
using Patch = std::span<uint8_t, patchSize>;
using PatchBytes = std::span<const uint8_t, patchSize>;

/* Both are one unit's, 1024 bytes at most. False when the difference is too long. */
bool makePatch(Bytes below, Bytes changed, Patch patch);

/* Of units that do not differ. */
bool isEmptyPatch(PatchBytes patch);

/* Puts the new bytes over a part of the unit that begins at the offset in it. */
void applyPatch(PatchBytes patch, size_t offset, std::span<uint8_t> part);

} /* namespace offline */

#endif
