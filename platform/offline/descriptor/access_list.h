/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Access lists and their entries as bytes. What lies in them is untrusted: aceAt, aclHead and aclLength turn
 * it into spans that are whole, and nothing else computes addresses.
 *
 * Bytes are read field by field, never through the platform's structures: a list may lie at any address. */
#ifndef QUILLET_OFFLINE_DESCRIPTOR_ACCESS_LIST_H
#define QUILLET_OFFLINE_DESCRIPTOR_ACCESS_LIST_H

#include "platform/nt.h"
#include "platform/offline/base/bytes.h"

namespace offline {

constexpr size_t sidInAce = 8; /* in entries without object types; the mask lies before it */

constexpr uint8_t objectInheritAce = 0x01;
constexpr uint8_t containerInheritAce = 0x02;
constexpr uint8_t noPropagateInheritAce = 0x04;
constexpr uint8_t inheritOnlyAce = 0x08;
constexpr uint8_t inheritedAce = 0x10;

/* The entry at this offset of a list, header and body; empty when it is not whole inside the list. */
inline Bytes aceAt(Bytes acl, size_t offset) {
    if (offset > acl.size() || acl.size() - offset < sizeof(ACE_HEADER)) return {};
    const size_t size = numberAt<uint16_t>(acl, offset + offsetof(ACE_HEADER, AceSize));
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
    return numberAt<uint16_t>(acl, offsetof(ACL, AceCount));
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

} /* namespace offline */

#endif
