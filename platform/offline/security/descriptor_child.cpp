/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The descriptor that a new container inherits. */
#include <new>
#include <utility>

#include "platform/offline/base/guarded.h"
#include "platform/offline/descriptor/access_list.h"
#include "platform/offline/descriptor/security_descriptor.h"
#include "platform/offline/descriptor/well_known_sids.h"
#include "platform/offline/security/token.h"

namespace offline {
namespace {

constexpr uint8_t inheritFlags =
    objectInheritAce | containerInheritAce | noPropagateInheritAce | inheritOnlyAce;

/* A list that is being built. */
struct NewAcl {
    std::vector<uint8_t> bytes;
    size_t count = 0;
    uint8_t revision = 2;
};

/* Copies an entry with other inheritance flags; the audit flags stay. */
void appendAce(NewAcl& acl, Bytes ace, uint8_t flags) {
    const size_t at = acl.bytes.size();
    acl.bytes.insert(acl.bytes.end(), ace.begin(), ace.end());
    acl.bytes[at + offsetof(ACE_HEADER, AceFlags)] =
        static_cast<uint8_t>((aceFlags(ace) & ~inheritFlags) | inheritedAce | flags);
    acl.count++;
}

/* The entry as it holds for the child itself: generic rights are those of its kind of object, and the creator
 * is who creates it. */
std::vector<uint8_t> effectiveAce(Bytes ace, const GenericMapping& mapping) {
    std::vector<uint8_t> effective(ace.begin(), ace.end());
    const Bytes sid = aceSid(ace);
    if (sid.empty()) return effective;
    const ACCESS_MASK mask = mapGeneric(numberAt<uint32_t>(ace, sizeof(ACE_HEADER)), mapping);
    memcpy(&effective[sizeof(ACE_HEADER)], &mask, sizeof mask);
    const bool owner = sameBytes(sid, creatorOwnerSid);
    if (!owner && !sameBytes(sid, creatorGroupSid)) return effective;

    const Bytes creator = owner ? currentToken().owner : currentToken().primaryGroup;
    const auto at = effective.begin() + (sid.data() - ace.data());
    const auto after = effective.erase(at, at + static_cast<ptrdiff_t>(sid.size()));
    effective.insert(after, creator.begin(), creator.end());
    const auto size = static_cast<uint16_t>(effective.size());
    memcpy(&effective[offsetof(ACE_HEADER, AceSize)], &size, sizeof size);
    return effective;
}

/* What a container inherits of one entry: the entry for itself, the entry for what lies below it, both in one
 * where they say the same, or nothing. */
void inheritAce(NewAcl& acl, Bytes ace, const GenericMapping& mapping) {
    const uint8_t flags = aceFlags(ace);
    const auto below = static_cast<uint8_t>(
        (flags & noPropagateInheritAce) != 0 ? 0 : flags & (objectInheritAce | containerInheritAce));
    const bool forTypedObjects = (aceObjectFlags(ace) & aceInheritedObjectType) != 0;
    if ((flags & containerInheritAce) == 0 || forTypedObjects) {
        if (below != 0) appendAce(acl, ace, below | inheritOnlyAce);
        return;
    }
    const std::vector<uint8_t> effective = effectiveAce(ace, mapping);
    if (below != 0 && !sameBytes(effective, ace)) {
        appendAce(acl, effective, 0);
        appendAce(acl, ace, below | inheritOnlyAce);
    } else {
        appendAce(acl, effective, below);
    }
}

/* The inherited list, header and all; empty when nothing is inherited. False when it gets too large to be
 * one. */
bool inheritAcl(Bytes parent, const GenericMapping& mapping, std::vector<uint8_t>& inherited) {
    if (parent.empty()) return true;
    NewAcl acl;
    acl.bytes.resize(sizeof(ACL));
    (void)forEachAce(parent, [&](Bytes ace) { inheritAce(acl, ace, mapping); });
    if (acl.count == 0) return true;
    if (acl.bytes.size() > UINT16_MAX) return false;
    ACL head = {};
    head.AclRevision = parent[offsetof(ACL, AclRevision)];
    head.AclSize = static_cast<WORD>(acl.bytes.size());
    head.AceCount = static_cast<WORD>(acl.count);
    memcpy(acl.bytes.data(), &head, sizeof head);
    inherited = std::move(acl.bytes);
    return true;
}

/* The token's list for what inherits none: all rights for the system and for administrators. */
std::vector<uint8_t> defaultDacl(ACCESS_MASK all) {
    std::vector<uint8_t> dacl(sizeof(ACL));
    for (const Bytes sid : {Bytes(systemSid), Bytes(administratorsSid)}) {
        ACE_HEADER head = {ACCESS_ALLOWED_ACE_TYPE, 0, static_cast<WORD>(sidInAce + sid.size())};
        const size_t at = dacl.size();
        dacl.resize(at + sidInAce);
        memcpy(&dacl[at], &head, sizeof head);
        memcpy(&dacl[at + sizeof head], &all, sizeof all);
        dacl.insert(dacl.end(), sid.begin(), sid.end());
    }
    const ACL head = {2, 0, static_cast<WORD>(dacl.size()), 2, 0};
    memcpy(dacl.data(), &head, sizeof head);
    return dacl;
}

} /* namespace */

NTSTATUS descriptorForChild(Bytes parent, const GenericMapping& mapping, std::vector<uint8_t>& image) {
    return guarded([&]() -> NTSTATUS {
        DescriptorParts from;
        size_t length = 0;
        if (!partsOfImage(parent, from, length)) return STATUS_INVALID_SECURITY_DESCR;
        std::vector<uint8_t> dacl;
        std::vector<uint8_t> sacl;
        if (!inheritAcl(from.dacl, mapping, dacl) || !inheritAcl(from.sacl, mapping, sacl))
            return STATUS_INVALID_ACL;

        uint32_t control = SE_DACL_PRESENT;
        if (dacl.empty()) {
            dacl = defaultDacl(mapping.all);
        } else {
            control |= SE_DACL_AUTO_INHERITED;
        }
        if (!sacl.empty()) control |= SE_SACL_PRESENT | SE_SACL_AUTO_INHERITED;
        DescriptorParts child;
        child.control = static_cast<uint16_t>(control);
        child.owner = currentToken().owner;
        child.group = currentToken().primaryGroup;
        child.sacl = sacl;
        child.dacl = dacl;
        image = layOut(child);
        return STATUS_SUCCESS;
    });
}

} /* namespace offline */
