/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Which rights a descriptor gives the token. */
#include "platform/offline/descriptor/access_list.h"
#include "platform/offline/descriptor/security_descriptor.h"
#include "platform/offline/descriptor/well_known_sids.h"
#include "platform/offline/security/token.h"

namespace offline {
namespace {

/* What a list can give: rights of the object's kind and standard rights. */
constexpr ACCESS_MASK listRights = 0x001FFFFF;

enum class AceEffect { none, allow, deny };

/* Without a type of object at hand, an entry for one type allows nothing and denies all the same. So does one
 * with a condition: conditions aren't evaluated, and an unknown one must not open what it would have kept
 * shut. */
AceEffect effectOf(Bytes ace) {
    switch (aceType(ace)) {
        case 0:
            return AceEffect::allow;
        case 1:
            return AceEffect::deny;
        case 5:
            return (aceObjectFlags(ace) & aceObjectType) != 0 ? AceEffect::none : AceEffect::allow;
        case 6:
        case 10:
        case 12:
            return AceEffect::deny;
        default:
            return AceEffect::none;
    }
}

bool isInheritOnly(Bytes ace) {
    return (aceFlags(ace) & inheritOnlyAce) != 0;
}

/* An entry on the owner's rights replaces those that an owner has by itself. */
bool ownerRightsListed(Bytes dacl) {
    bool listed = false;
    (void)forEachAce(dacl, [&](Bytes ace) {
        listed = listed || (!isInheritOnly(ace) && effectOf(ace) != AceEffect::none &&
                            sameBytes(aceSid(ace), ownerRightsSid));
    });
    return listed;
}

bool speaksOfToken(Bytes sid, AceEffect effect, bool isOwner) {
    if (sid.empty()) return effect == AceEffect::deny;  // whom it denies is not known
    return tokenHas(sid) || (isOwner && sameBytes(sid, ownerRightsSid));
}

/* The rights that the list allows: of each right, the first entry that speaks of it decides. */
ACCESS_MASK allowedBy(Bytes dacl, bool isOwner, const GenericMapping& mapping) {
    ACCESS_MASK allowed = 0;
    ACCESS_MASK denied = 0;
    (void)forEachAce(dacl, [&](Bytes ace) {
        const AceEffect effect = effectOf(ace);
        if (effect == AceEffect::none || isInheritOnly(ace) || !speaksOfToken(aceSid(ace), effect, isOwner))
            return;
        const ACCESS_MASK raw =
            ace.size() < sidInAce ? GENERIC_ALL : numberAt<uint32_t>(ace, sizeof(ACE_HEADER));
        const ACCESS_MASK mask = mapGeneric(raw, mapping);
        if (effect == AceEffect::allow) {
            allowed |= mask & ~denied;
        } else {
            denied |= mask & ~allowed;
        }
    });
    return allowed & listRights;
}

/* The rights that the descriptor gives by owner and list. */
ACCESS_MASK givenBy(const DescriptorParts& parts, const GenericMapping& mapping) {
    const bool isOwner = !parts.owner.empty() && tokenHas(parts.owner);
    ACCESS_MASK given = allowedBy(parts.dacl, isOwner, mapping);
    if (isOwner && !ownerRightsListed(parts.dacl)) given |= READ_CONTROL | WRITE_DAC;
    return given;
}

} /* namespace */

const GenericMapping keyMapping = {KEY_READ, KEY_WRITE, KEY_READ, KEY_ALL_ACCESS};
const GenericMapping fileMapping = {0x120089, 0x120116, 0x1200A0, 0x1F01FF};

ACCESS_MASK mapGeneric(ACCESS_MASK mask, const GenericMapping& mapping) {
    const ACCESS_MASK plain = mask & ~(GENERIC_READ | GENERIC_WRITE | GENERIC_EXECUTE | GENERIC_ALL);
    return plain | ((mask & GENERIC_READ) != 0 ? mapping.read : 0) |
           ((mask & GENERIC_WRITE) != 0 ? mapping.write : 0) |
           ((mask & GENERIC_EXECUTE) != 0 ? mapping.execute : 0) |
           ((mask & GENERIC_ALL) != 0 ? mapping.all : 0);
}

NTSTATUS accessCheck(Bytes descriptor, ACCESS_MASK desired, const GenericMapping& mapping,
                     ACCESS_MASK& granted) {
    granted = 0;
    ACCESS_MASK wanted = mapGeneric(desired, mapping);
    const bool maximum = (wanted & MAXIMUM_ALLOWED) != 0;
    wanted &= ~MAXIMUM_ALLOWED;

    ACCESS_MASK privileged = 0;
    if ((wanted & ACCESS_SYSTEM_SECURITY) != 0) {
        if (!privilegeEnabled(securityPrivilege)) return STATUS_PRIVILEGE_NOT_HELD;
        privileged |= ACCESS_SYSTEM_SECURITY;
    }
    if (privilegeEnabled(takeOwnershipPrivilege)) privileged |= wanted & WRITE_OWNER;
    wanted &= ~privileged;

    DescriptorParts parts;
    size_t length = 0;
    const bool refuses = accessMode() == AccessMode::checked;
    if (refuses && !partsOfImage(descriptor, parts, length)) return STATUS_INVALID_SECURITY_DESCR;
    if (!refuses || parts.dacl.empty()) {
        granted = privileged | wanted | (maximum ? mapping.all : 0);
    } else {
        const ACCESS_MASK given = givenBy(parts, mapping);
        if ((wanted & ~given) != 0) return STATUS_ACCESS_DENIED;
        granted = privileged | wanted | (maximum ? given : 0);
    }
    return refuses && granted == 0 ? STATUS_ACCESS_DENIED : STATUS_SUCCESS;
}

} /* namespace offline */
