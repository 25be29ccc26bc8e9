/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Self-relative security descriptors: the one place that decides whether bytes are one. */
#ifndef QUILLET_OFFLINE_DESCRIPTOR_SECURITY_DESCRIPTOR_H
#define QUILLET_OFFLINE_DESCRIPTOR_SECURITY_DESCRIPTOR_H

#include <vector>

#include "platform/nt.h"
#include "platform/offline/base/bytes.h"
#include "platform/offline/descriptor/sid_format.h"

namespace offline {

/* Two lists of the largest size with the room to align them, an owner and a group: no descriptor needs more.
 */
constexpr size_t largestDescriptor = sizeof(SECURITY_DESCRIPTOR_RELATIVE) + 2 * 0x10000 + 2 * longestSid;

/* A part that is missing is empty; so is a null list, which has its present bit set. */
struct DescriptorParts {
    uint8_t resourceControl = 0; /* the reserved byte, which resource managers use */
    uint16_t control = 0;
    Bytes owner, group, sacl, dacl;
};

/* Checks a self-relative image completely: revision, offsets (multiples of 4), SIDs, lists, entries and, in
 * those of the types 0 to 3, their SIDs. Owner and group may be one SID, and the lists one list; otherwise no
 * part may lie across another. So of all bytes after the first two of a SID none belongs to a header, a
 * size, a count or another SID's first two, and whatever is written over them leaves the image valid.
 * Bytes after the last part are allowed; the length is that up to the end of the last part. */
bool partsOfImage(Bytes image, DescriptorParts& parts, size_t& length);
bool descriptorValid(Bytes image);

/* A self-relative image of the parts: list of audits, list of rights, owner, group, as the platform orders
 * them. May throw bad_alloc. */
std::vector<uint8_t> layOut(const DescriptorParts& parts);

} /* namespace offline */

#endif
