/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Reading and setting the descriptors of files, by path. */
#include <cstring>
#include <new>
#include <vector>

#include "platform/offline/base/guarded.h"
#include "platform/offline/base/status.h"
#include "platform/offline/files/files_state.h"
#include "platform/offline/files/path_lookup.h"
#include "platform/offline/security/security.h"

namespace offline {
namespace {

constexpr SECURITY_INFORMATION allParts = OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION |
                                          DACL_SECURITY_INFORMATION | SACL_SECURITY_INFORMATION;

struct Target {
    Volume* volume = nullptr;
    FileRef file = 0;
    Bytes stored;
};

/* The file at a path with its descriptor, opened for these rights. */
NTSTATUS openTarget(LPCWSTR path, ACCESS_MASK desired, Target& target) {
    DrivePath parsed;
    NTSTATUS status = lookUpNamed(path, parsed, target.file);
    if (status < 0) return status;
    target.volume = parsed.volume;
    status = volumeDescriptor(*target.volume, target.file, target.stored);
    if (status < 0) return status;
    ACCESS_MASK granted = 0;
    return accessCheck(target.stored, desired, fileMapping, granted);
}

NTSTATUS queryDescriptor(LPCWSTR path, SECURITY_INFORMATION information, PSECURITY_DESCRIPTOR descriptor,
                         DWORD size, DWORD& needed) {
    Target target;
    NTSTATUS status = openTarget(path, accessToQuery(information), target);
    if (status < 0) return status;
    Bytes answer = target.stored;
    if (information != allParts) {
        std::vector<uint8_t>& image = filesState().descriptor;
        status = descriptorQuery(target.stored, information, image);
        if (status < 0) return status;
        answer = image;
    }
    needed = static_cast<DWORD>(answer.size());
    if (size < answer.size()) return STATUS_BUFFER_TOO_SMALL;
    if (descriptor == nullptr) return STATUS_ACCESS_VIOLATION;
    memcpy(descriptor, answer.data(), answer.size());
    return STATUS_SUCCESS;
}

NTSTATUS setDescriptor(LPCWSTR path, SECURITY_INFORMATION information, PSECURITY_DESCRIPTOR descriptor) {
    if (descriptor == nullptr) return STATUS_INVALID_PARAMETER;
    Target target;
    NTSTATUS status = openTarget(path, accessToSet(information), target);
    if (status < 0) return status;
    std::vector<uint8_t>& image = filesState().descriptor;
    status = descriptorSet(target.stored, information, descriptor, image);
    return status < 0 ? status : volumeSetDescriptor(*target.volume, target.file, image);
}

} /* namespace */
} /* namespace offline */

BOOL GetFileSecurityW(LPCWSTR path, SECURITY_INFORMATION information, PSECURITY_DESCRIPTOR descriptor,
                      DWORD size, LPDWORD needed) {
    if (needed == nullptr) return offline::booleanResult(STATUS_INVALID_PARAMETER);
    return offline::booleanResult(offline::guarded(
        [&] { return offline::queryDescriptor(path, information, descriptor, size, *needed); }));
}

BOOL SetFileSecurityW(LPCWSTR path, SECURITY_INFORMATION information, PSECURITY_DESCRIPTOR descriptor) {
    return offline::booleanResult(
        offline::guarded([&] { return offline::setDescriptor(path, information, descriptor); }));
}

DWORD SetNamedSecurityInfoW(LPWSTR path, SE_OBJECT_TYPE type, SECURITY_INFORMATION information, PSID owner,
                            PSID group, PACL dacl, PACL sacl) {
    if (type != SE_FILE_OBJECT) return ERROR_INVALID_PARAMETER;
    if ((information & OWNER_SECURITY_INFORMATION) != 0 && owner == nullptr) return ERROR_INVALID_PARAMETER;
    if ((information & GROUP_SECURITY_INFORMATION) != 0 && group == nullptr) return ERROR_INVALID_PARAMETER;
    SECURITY_DESCRIPTOR descriptor = {};
    descriptor.Revision = SECURITY_DESCRIPTOR_REVISION;
    if ((information & OWNER_SECURITY_INFORMATION) != 0) descriptor.Owner = owner;
    if ((information & GROUP_SECURITY_INFORMATION) != 0) descriptor.Group = group;
    /* A list that is set but null is one that lets everyone do everything: present all the same. */
    if ((information & DACL_SECURITY_INFORMATION) != 0) {
        descriptor.Control |= SE_DACL_PRESENT;
        descriptor.Dacl = dacl;
    }
    if ((information & SACL_SECURITY_INFORMATION) != 0) {
        descriptor.Control |= SE_SACL_PRESENT;
        descriptor.Sacl = sacl;
    }
    return RtlNtStatusToDosError(
        offline::guarded([&] { return offline::setDescriptor(path, information, &descriptor); }));
}
