/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The platform's calls on access lists. */
#include "platform/offline/base/status.h"
#include "platform/offline/descriptor/access_list.h"
#include "platform/offline/security/security_state.h"

namespace offline {
namespace {

/* A caller's list, of which only its own header has the size. */
Bytes givenAcl(const ACL* acl) {
    if (acl == nullptr) return {};
    return aclHead({reinterpret_cast<const uint8_t*>(acl), UINT16_MAX});
}

NTSTATUS aclSizes(Bytes acl, LPVOID information, DWORD size) {
    if (size < sizeof(ACL_SIZE_INFORMATION)) return STATUS_BUFFER_TOO_SMALL;
    size_t used = sizeof(ACL);
    (void)forEachAce(acl, [&](Bytes ace) { used += ace.size(); });
    ACL_SIZE_INFORMATION sizes = {};
    sizes.AceCount = static_cast<DWORD>(aceCount(acl));
    sizes.AclBytesInUse = static_cast<DWORD>(used);
    sizes.AclBytesFree = static_cast<DWORD>(acl.size() - used);
    memcpy(information, &sizes, sizeof sizes);
    return STATUS_SUCCESS;
}

NTSTATUS aclInformation(const ACL* given, LPVOID information, DWORD size, ACL_INFORMATION_CLASS infoClass) {
    const Bytes acl = givenAcl(given);
    if (acl.empty() || aclLength(acl) == 0) return STATUS_INVALID_ACL;
    if (information == nullptr) return STATUS_INVALID_PARAMETER;
    if (infoClass == AclSizeInformation) return aclSizes(acl, information, size);
    if (infoClass != AclRevisionInformation) return STATUS_INVALID_PARAMETER;
    const DWORD revision = acl[offsetof(ACL, AclRevision)];
    if (size < sizeof revision) return STATUS_BUFFER_TOO_SMALL;
    memcpy(information, &revision, sizeof revision);
    return STATUS_SUCCESS;
}

bool walkHolds(const EntryWalk& entryWalk, Bytes acl, const ACL* given) {
    return entryWalk.list == given && memcmp(entryWalk.head, acl.data(), sizeof entryWalk.head) == 0;
}

/* The entry's neighbour, from where the walk stands; empty when it must be walked to. */
Bytes stepTo(EntryWalk& entryWalk, Bytes acl, size_t index) {
    const size_t here = entryWalk.offsets[entryWalk.index];
    if (index == entryWalk.index) return aceAt(acl, here);
    if (index == entryWalk.index + 1) {
        const size_t next = here + aceAt(acl, here).size();
        const Bytes ace = next == here ? Bytes{} : aceAt(acl, next);
        if (!ace.empty()) entryWalk.offsets[index] = static_cast<uint16_t>(next);
        return ace;
    }
    if (index + 1 != entryWalk.index) return {};
    const size_t before = entryWalk.offsets[index];
    const Bytes ace = aceAt(acl, before);
    return before + ace.size() == here ? ace : Bytes{};
}

Bytes walkTo(EntryWalk& entryWalk, Bytes acl, const ACL* given, size_t index) {
    entryWalk.list = nullptr;
    size_t offset = sizeof(ACL);
    for (size_t i = 0;; i++) {
        const Bytes ace = aceAt(acl, offset);
        if (ace.empty()) return {};
        entryWalk.offsets[i] = static_cast<uint16_t>(offset);
        if (i < index) {
            offset += ace.size();
            continue;
        }
        entryWalk.list = given;
        memcpy(entryWalk.head, acl.data(), sizeof entryWalk.head);
        return ace;
    }
}

NTSTATUS aceByIndex(const ACL* given, DWORD index, LPVOID* found) {
    const Bytes acl = givenAcl(given);
    if (acl.empty()) return STATUS_INVALID_ACL;
    if (index >= aceCount(acl) || found == nullptr) return STATUS_INVALID_PARAMETER;
    EntryWalk& entryWalk = securityState().entryWalk;
    Bytes ace = walkHolds(entryWalk, acl, given) ? stepTo(entryWalk, acl, index) : Bytes{};
    if (ace.empty()) ace = walkTo(entryWalk, acl, given, index);
    if (ace.empty() || !aceValid(ace)) return STATUS_INVALID_ACL;
    entryWalk.index = index;
    *found = const_cast<uint8_t*>(ace.data());
    return STATUS_SUCCESS;
}

} /* namespace */
} /* namespace offline */

BOOL GetAclInformation(PACL acl, LPVOID information, DWORD size, ACL_INFORMATION_CLASS infoClass) {
    offline::securityState().entryWalk.list = nullptr;
    return offline::booleanResult(offline::aclInformation(acl, information, size, infoClass));
}

BOOL GetAce(PACL acl, DWORD index, LPVOID* ace) {
    return offline::booleanResult(offline::aceByIndex(acl, index, ace));
}
