/* SPDX-License-Identifier: GPL-2.0-or-later */
/* What a caller gets of a stored descriptor, and what is stored when a caller sets one. */
#include <new>
#include <utility>

#include "platform/offline/base/guarded.h"
#include "platform/offline/descriptor/access_list.h"
#include "platform/offline/descriptor/security_descriptor.h"
#include "platform/offline/security/token.h"

namespace offline {
namespace {

constexpr SECURITY_INFORMATION allParts = OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION |
                                          DACL_SECURITY_INFORMATION | SACL_SECURITY_INFORMATION;
constexpr SECURITY_INFORMATION protectedSacl = 0x40000000;
constexpr SECURITY_INFORMATION unprotectedDacl = 0x20000000;
constexpr SECURITY_INFORMATION unprotectedSacl = 0x10000000;

/* Each part with the control bits that speak of it. */
struct PartRule {
    SECURITY_INFORMATION bit;
    uint16_t control;
    Bytes DescriptorParts::*part;
};
constexpr PartRule partRules[] = {
    {OWNER_SECURITY_INFORMATION, SE_OWNER_DEFAULTED, &DescriptorParts::owner},
    {GROUP_SECURITY_INFORMATION, SE_GROUP_DEFAULTED, &DescriptorParts::group},
    {DACL_SECURITY_INFORMATION,
     SE_DACL_PRESENT | SE_DACL_DEFAULTED | SE_DACL_AUTO_INHERIT_REQ | SE_DACL_AUTO_INHERITED |
         SE_DACL_PROTECTED,
     &DescriptorParts::dacl},
    {SACL_SECURITY_INFORMATION,
     SE_SACL_PRESENT | SE_SACL_DEFAULTED | SE_SACL_AUTO_INHERIT_REQ | SE_SACL_AUTO_INHERITED |
         SE_SACL_PROTECTED,
     &DescriptorParts::sacl},
};

/* Puts the named parts of one descriptor, with their control bits, in place of another's. */
void takeParts(DescriptorParts& target, const DescriptorParts& source, SECURITY_INFORMATION information) {
    for (const PartRule& rule : partRules) {
        if ((information & rule.bit) == 0) continue;
        target.*rule.part = source.*rule.part;
        target.control =
            static_cast<uint16_t>((target.control & ~rule.control) | (source.control & rule.control));
    }
}

/* The control word as it is stored, after the parts of this mask were set. */
uint16_t storedControl(uint16_t control, SECURITY_INFORMATION information) {
    uint32_t bits = control;
    if ((information & DACL_SECURITY_INFORMATION) != 0) {
        bits &= ~uint32_t{SE_DACL_AUTO_INHERIT_REQ};
        if ((information & unprotectedDacl) != 0) bits &= ~uint32_t{SE_DACL_PROTECTED};
        if ((information & PROTECTED_DACL_SECURITY_INFORMATION) != 0) bits |= SE_DACL_PROTECTED;
    }
    if ((information & SACL_SECURITY_INFORMATION) != 0) {
        bits &= ~uint32_t{SE_SACL_AUTO_INHERIT_REQ};
        if ((information & unprotectedSacl) != 0) bits &= ~uint32_t{SE_SACL_PROTECTED};
        if ((information & protectedSacl) != 0) bits |= SE_SACL_PROTECTED;
    }
    return static_cast<uint16_t>(bits);
}

/* An owner or group can't be taken away, but one that never was need not be given. */
NTSTATUS ownersAllowed(const DescriptorParts& old, const DescriptorParts& fresh,
                       SECURITY_INFORMATION information) {
    if (accessMode() == AccessMode::unrefused) return STATUS_SUCCESS;
    if ((information & GROUP_SECURITY_INFORMATION) != 0 && fresh.group.empty() && !old.group.empty()) {
        return STATUS_INVALID_SECURITY_DESCR;
    }
    if ((information & OWNER_SECURITY_INFORMATION) == 0) return STATUS_SUCCESS;
    if (fresh.owner.empty()) return old.owner.empty() ? STATUS_SUCCESS : STATUS_INVALID_OWNER;
    return privilegeEnabled(restorePrivilege) || tokenMayOwn(fresh.owner) ? STATUS_SUCCESS
                                                                          : STATUS_INVALID_OWNER;
}

/* What a pointer of an absolute descriptor leads to. */
bool partAt(const void* pointer, size_t largest, size_t (*lengthOf)(Bytes), Bytes& part) {
    if (pointer == nullptr) return true;
    const Bytes memory = {static_cast<const uint8_t*>(pointer), largest};
    part = memory.first(lengthOf(memory));
    return !part.empty();
}

/* The parts of a caller's descriptor, absolute or self-relative, of which the size is not known. The length
 * is 0 when it is absolute. */
bool partsOfGiven(const void* given, DescriptorParts& parts, size_t& length) {
    parts = {};
    length = 0;
    if (given == nullptr) return false;
    const auto* bytes = static_cast<const uint8_t*>(given);
    if (bytes[offsetof(SECURITY_DESCRIPTOR, Revision)] != SECURITY_DESCRIPTOR_REVISION) return false;
    if ((loadNumber<uint16_t>(bytes + offsetof(SECURITY_DESCRIPTOR, Control)) & SE_SELF_RELATIVE) != 0) {
        return partsOfImage({bytes, largestDescriptor}, parts, length);
    }
    SECURITY_DESCRIPTOR absolute = {};
    memcpy(&absolute, given, sizeof absolute);
    parts.resourceControl = absolute.Sbz1;
    parts.control = absolute.Control;
    const bool sacl = (parts.control & SE_SACL_PRESENT) != 0;
    const bool dacl = (parts.control & SE_DACL_PRESENT) != 0;
    return partAt(absolute.Owner, longestSid, sidLength, parts.owner) &&
           partAt(absolute.Group, longestSid, sidLength, parts.group) &&
           (!sacl || partAt(absolute.Sacl, UINT16_MAX, aclLength, parts.sacl)) &&
           (!dacl || partAt(absolute.Dacl, UINT16_MAX, aclLength, parts.dacl));
}

/* A list whose present bit is not set counts for nothing, wherever its field says that it lies, and is not
 * among the bytes that are taken: so nothing refers to it. */
void dropAbsentLists(std::vector<uint8_t>& image, uint16_t control) {
    constexpr DWORD none = 0;
    if ((control & SE_SACL_PRESENT) == 0)
        memcpy(&image[offsetof(SECURITY_DESCRIPTOR_RELATIVE, Sacl)], &none, sizeof none);
    if ((control & SE_DACL_PRESENT) == 0)
        memcpy(&image[offsetof(SECURITY_DESCRIPTOR_RELATIVE, Dacl)], &none, sizeof none);
}

NTSTATUS set(Bytes stored, SECURITY_INFORMATION information, const void* given, std::vector<uint8_t>& image) {
    DescriptorParts fresh;
    DescriptorParts old;
    size_t freshLength = 0;
    size_t oldLength = 0;
    const bool whole = (information & allParts) == allParts;
    if (!partsOfGiven(given, fresh, freshLength)) return STATUS_INVALID_SECURITY_DESCR;
    const bool replaces = whole && freshLength != 0;
    const bool oldCounts = !replaces || accessMode() != AccessMode::unrefused;
    if (oldCounts && !partsOfImage(stored, old, oldLength)) {
        if (!whole) return STATUS_INVALID_SECURITY_DESCR;
        old = {};
    }
    const NTSTATUS status = ownersAllowed(old, fresh, information);
    if (status < 0) return status;

    if (replaces) {
        const auto* bytes = static_cast<const uint8_t*>(given);
        std::vector<uint8_t> copy(bytes, bytes + freshLength);
        const uint16_t control = storedControl(fresh.control, information);
        memcpy(&copy[offsetof(SECURITY_DESCRIPTOR_RELATIVE, Control)], &control, sizeof control);
        dropAbsentLists(copy, control);
        image = std::move(copy);
        return STATUS_SUCCESS;
    }
    if (whole) {
        old.control = fresh.control;
        old.resourceControl = fresh.resourceControl;
    }
    takeParts(old, fresh, information);
    old.control = storedControl(old.control, information);
    image = layOut(old);
    return STATUS_SUCCESS;
}

} /* namespace */

NTSTATUS descriptorQuery(Bytes stored, SECURITY_INFORMATION information, std::vector<uint8_t>& image) {
    return guarded([&]() -> NTSTATUS {
        DescriptorParts parts;
        size_t length = 0;
        if (!partsOfImage(stored, parts, length)) return STATUS_INVALID_SECURITY_DESCR;
        if ((information & allParts) == allParts) {
            image.assign(stored.begin(), stored.end());
            return STATUS_SUCCESS;
        }
        takeParts(parts, {}, allParts & ~information);
        image = layOut(parts);
        return STATUS_SUCCESS;
    });
}

NTSTATUS descriptorSet(Bytes stored, SECURITY_INFORMATION information, PSECURITY_DESCRIPTOR given,
                       std::vector<uint8_t>& image) {
    return guarded([&] { return set(stored, information, given, image); });
}

ACCESS_MASK accessToQuery(SECURITY_INFORMATION information) {
    ACCESS_MASK access = 0;
    if ((information & allParts & ~SACL_SECURITY_INFORMATION) != 0) access |= READ_CONTROL;
    if ((information & SACL_SECURITY_INFORMATION) != 0) access |= ACCESS_SYSTEM_SECURITY;
    return access;
}

ACCESS_MASK accessToSet(SECURITY_INFORMATION information) {
    ACCESS_MASK access = 0;
    if ((information & (OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION)) != 0) access |= WRITE_OWNER;
    if ((information & DACL_SECURITY_INFORMATION) != 0) access |= WRITE_DAC;
    if ((information & SACL_SECURITY_INFORMATION) != 0) access |= ACCESS_SYSTEM_SECURITY;
    return access;
}

} /* namespace offline */
