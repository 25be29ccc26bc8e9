/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The platform's calls on descriptors. They get no size: offsets are held against the largest descriptor
 * there is, and what they lead to was checked when the descriptor came off the disk. */
#include "platform/offline/base/status.h"
#include "platform/offline/descriptor/security_descriptor.h"

namespace offline {
namespace {

uint8_t* bytesOf(PSECURITY_DESCRIPTOR descriptor) {
    return static_cast<uint8_t*>(descriptor);
}

bool revisionKnown(PSECURITY_DESCRIPTOR descriptor) {
    return descriptor != nullptr && *bytesOf(descriptor) == SECURITY_DESCRIPTOR_REVISION;
}

uint16_t controlOf(PSECURITY_DESCRIPTOR descriptor) {
    return loadNumber<uint16_t>(bytesOf(descriptor) + offsetof(SECURITY_DESCRIPTOR, Control));
}

/* Where each form has a part, and the control bits that speak of it. */
struct PartLayout {
    size_t inAbsolute;
    size_t inImage;
    uint16_t present; /* 0 for owner and group, which are there when they are named */
    uint16_t defaulted;
};
constexpr PartLayout ownerLayout = {offsetof(SECURITY_DESCRIPTOR, Owner),
                                    offsetof(SECURITY_DESCRIPTOR_RELATIVE, Owner), 0, SE_OWNER_DEFAULTED};
constexpr PartLayout groupLayout = {offsetof(SECURITY_DESCRIPTOR, Group),
                                    offsetof(SECURITY_DESCRIPTOR_RELATIVE, Group), 0, SE_GROUP_DEFAULTED};
constexpr PartLayout saclLayout = {offsetof(SECURITY_DESCRIPTOR, Sacl),
                                   offsetof(SECURITY_DESCRIPTOR_RELATIVE, Sacl), SE_SACL_PRESENT,
                                   SE_SACL_DEFAULTED};
constexpr PartLayout daclLayout = {offsetof(SECURITY_DESCRIPTOR, Dacl),
                                   offsetof(SECURITY_DESCRIPTOR_RELATIVE, Dacl), SE_DACL_PRESENT,
                                   SE_DACL_DEFAULTED};

/* The part itself, in the image, or where an absolute descriptor has it; null when it isn't there. */
template <typename Part>
NTSTATUS getPart(PSECURITY_DESCRIPTOR descriptor, const PartLayout& layout, LPBOOL present, Part** part,
                 LPBOOL defaulted) {
    if (!revisionKnown(descriptor)) return STATUS_INVALID_SECURITY_DESCR;
    if (part == nullptr || defaulted == nullptr) return STATUS_INVALID_PARAMETER;
    const uint16_t control = controlOf(descriptor);
    const bool there = layout.present == 0 || (control & layout.present) != 0;
    void* found = nullptr;
    if (there && (control & SE_SELF_RELATIVE) != 0) {
        const DWORD offset = loadNumber<uint32_t>(bytesOf(descriptor) + layout.inImage);
        if (offset != 0 && (offset < sizeof(SECURITY_DESCRIPTOR_RELATIVE) || offset >= largestDescriptor)) {
            return STATUS_INVALID_SECURITY_DESCR;
        }
        if (offset != 0) found = bytesOf(descriptor) + offset;
    } else if (there) {
        memcpy(&found, bytesOf(descriptor) + layout.inAbsolute, sizeof found);
    }
    if (present != nullptr) *present = there ? TRUE : FALSE;
    *part = static_cast<Part*>(found);
    *defaulted = there && (control & layout.defaulted) != 0 ? TRUE : FALSE;
    return STATUS_SUCCESS;
}

/* Only absolute descriptors can be given parts: a self-relative one has no room for them. */
NTSTATUS setPart(PSECURITY_DESCRIPTOR descriptor, const PartLayout& layout, bool present, const void* part,
                 bool defaulted) {
    if (!revisionKnown(descriptor) || (controlOf(descriptor) & SE_SELF_RELATIVE) != 0) {
        return STATUS_INVALID_SECURITY_DESCR;
    }
    uint32_t control = controlOf(descriptor);
    control &= ~(uint32_t{layout.present} | layout.defaulted);
    if (present) control |= layout.present;
    if (present && defaulted) control |= layout.defaulted;
    const auto word = static_cast<uint16_t>(control);
    const void* const pointer = present ? part : nullptr;
    memcpy(bytesOf(descriptor) + offsetof(SECURITY_DESCRIPTOR, Control), &word, sizeof word);
    memcpy(bytesOf(descriptor) + layout.inAbsolute, &pointer, sizeof pointer);
    return STATUS_SUCCESS;
}

NTSTATUS getList(PSECURITY_DESCRIPTOR descriptor, const PartLayout& layout, LPBOOL present, PACL* acl,
                 LPBOOL defaulted) {
    if (present == nullptr) return STATUS_INVALID_PARAMETER;
    return getPart(descriptor, layout, present, acl, defaulted);
}

} /* namespace */
} /* namespace offline */

BOOL InitializeSecurityDescriptor(PSECURITY_DESCRIPTOR descriptor, DWORD revision) {
    if (descriptor == nullptr || revision != SECURITY_DESCRIPTOR_REVISION) {
        return offline::booleanResult(STATUS_INVALID_SECURITY_DESCR);
    }
    SECURITY_DESCRIPTOR fresh = {};
    fresh.Revision = SECURITY_DESCRIPTOR_REVISION;
    memcpy(descriptor, &fresh, sizeof fresh);
    return TRUE;
}

BOOL SetSecurityDescriptorOwner(PSECURITY_DESCRIPTOR descriptor, PSID owner, BOOL defaulted) {
    return offline::booleanResult(
        offline::setPart(descriptor, offline::ownerLayout, true, owner, defaulted != FALSE));
}

BOOL SetSecurityDescriptorDacl(PSECURITY_DESCRIPTOR descriptor, BOOL present, PACL dacl, BOOL defaulted) {
    return offline::booleanResult(
        offline::setPart(descriptor, offline::daclLayout, present != FALSE, dacl, defaulted != FALSE));
}

BOOL GetSecurityDescriptorOwner(PSECURITY_DESCRIPTOR descriptor, PSID* owner, LPBOOL defaulted) {
    return offline::booleanResult(
        offline::getPart(descriptor, offline::ownerLayout, nullptr, owner, defaulted));
}

BOOL GetSecurityDescriptorGroup(PSECURITY_DESCRIPTOR descriptor, PSID* group, LPBOOL defaulted) {
    return offline::booleanResult(
        offline::getPart(descriptor, offline::groupLayout, nullptr, group, defaulted));
}

BOOL GetSecurityDescriptorDacl(PSECURITY_DESCRIPTOR descriptor, LPBOOL present, PACL* dacl,
                               LPBOOL defaulted) {
    return offline::booleanResult(
        offline::getList(descriptor, offline::daclLayout, present, dacl, defaulted));
}

BOOL GetSecurityDescriptorSacl(PSECURITY_DESCRIPTOR descriptor, LPBOOL present, PACL* sacl,
                               LPBOOL defaulted) {
    return offline::booleanResult(
        offline::getList(descriptor, offline::saclLayout, present, sacl, defaulted));
}
