/* Lists, entries and the parts of descriptors, for this room alone. What lies in the bytes is untrusted:
 * aceAt, sidLength, aclLength and partsOfImage turn it into spans that are whole, and nothing else computes
 * addresses.
 *
 * Bytes are read field by field, never through the platform's structures: an image may lie at any address. */
#ifndef QUILLET_OFFLINE_SECURITY_PARTS_H
#define QUILLET_OFFLINE_SECURITY_PARTS_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

#include "platform/nt.h"
#include "platform/offline/security/security.h"

namespace offline {

using Bytes = std::span<const uint8_t>;

constexpr size_t longestSid = 8 + 15 * 4;
constexpr size_t sidInAce = 8; /* in entries without object types; the mask lies before it */

/* Two lists of the largest size with the room to align them, an owner and a group: no descriptor needs more.
 */
constexpr size_t largestDescriptor = sizeof(SECURITY_DESCRIPTOR_RELATIVE) + 2 * 0x10000 + 2 * longestSid;

constexpr uint8_t objectInheritAce = 0x01;
constexpr uint8_t containerInheritAce = 0x02;
constexpr uint8_t noPropagateInheritAce = 0x04;
constexpr uint8_t inheritOnlyAce = 0x08;
constexpr uint8_t inheritedAce = 0x10;

constexpr SECURITY_INFORMATION allParts = OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION |
                                          DACL_SECURITY_INFORMATION | SACL_SECURITY_INFORMATION;

inline uint16_t read16(const void* at) {
    uint16_t value = 0;
    memcpy(&value, at, sizeof value);
    return value;
}

inline uint32_t read32(const void* at) {
    uint32_t value = 0;
    memcpy(&value, at, sizeof value);
    return value;
}

inline bool sameBytes(Bytes left, Bytes right) {
    return left.size() == right.size() &&
           (left.empty() || memcmp(left.data(), right.data(), left.size()) == 0);
}

/* The entry at this offset of a list, header and body; empty when it is not whole inside the list. */
inline Bytes aceAt(Bytes acl, size_t offset) {
    if (offset > acl.size() || acl.size() - offset < sizeof(ACE_HEADER)) return {};
    const size_t size = read16(&acl[offset + offsetof(ACE_HEADER, AceSize)]);
    if (size < sizeof(ACE_HEADER) || size % 4 != 0 || size > acl.size() - offset) return {};
    return acl.subspan(offset, size);
}

inline uint8_t aceType(Bytes ace) {
    return ace[offsetof(ACE_HEADER, AceType)];
}
inline uint8_t aceFlags(Bytes ace) {
    return ace[offsetof(ACE_HEADER, AceFlags)];
}

/* The list that begins here, by its header: revision and size. Empty when it is none or reaches beyond the
 * span. Its entries are not looked at. */
Bytes aclHead(Bytes span);

inline size_t aceCount(Bytes acl) {
    return read16(&acl[offsetof(ACL, AceCount)]);
}

/* Calls visit with each entry of the list, first to last. False when one is not whole. */
template <typename Visit>
bool forEachAce(Bytes acl, Visit visit) {
    size_t offset = sizeof(ACL);
    for (size_t left = aceCount(acl); left > 0; left--) {
        const Bytes ace = aceAt(acl, offset);
        if (ace.empty()) return false;
        visit(ace);
        offset += ace.size();
    }
    return true;
}

/* Whether an entry of the types 0 to 3 has a whole SID; those of other types always pass. */
bool aceValid(Bytes ace);

/* The SID that an entry speaks of; empty when its type has none or it is not whole. */
Bytes aceSid(Bytes ace);

/* Of an entry about typed objects: whether it is restricted to one type of them (flag 1), or is inherited by
 * one type only (flag 2). */
constexpr uint32_t aceObjectType = 1;
constexpr uint32_t aceInheritedObjectType = 2;
uint32_t aceObjectFlags(Bytes ace);

/* Bytes of the list at the head of the span; 0 when the list or one of its entries is not valid. */
size_t aclLength(Bytes span);

/* A part that is missing is empty; so is a null list, which has its present bit set. */
struct DescriptorParts {
    uint8_t resourceControl = 0; /* the reserved byte, which resource managers use */
    uint16_t control = 0;
    Bytes owner, group, sacl, dacl;
};

/* Checks a self-relative image completely. The length is that up to the end of its last part. */
bool partsOfImage(Bytes image, DescriptorParts& parts, size_t& length);

/* The same for a caller's descriptor, absolute or self-relative, of which the size is not known. The length
 * is 0 when it is absolute. */
bool partsOfGiven(const void* given, DescriptorParts& parts, size_t& length);

/* A self-relative image of the parts: list of audits, list of rights, owner, group, as the platform orders
 * them. May throw bad_alloc. */
std::vector<uint8_t> layOut(const DescriptorParts& parts);

} /* namespace offline */

#endif
