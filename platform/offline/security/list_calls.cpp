/* The platform's calls on access lists. */
#include "platform/offline/base/status.h"
#include "platform/offline/descriptor/access_list.h"

namespace offline {
namespace {

/* A caller's list, of which only its own header tells the size. */
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

/* Walks to the entry each time: what it stands on is checked by that walk alone, so it holds whatever was
 * written to the list since the last call, and for another list at the same address. A step is a few
 * instructions; lists have a handful of entries, and the largest 16 thousand. */
NTSTATUS aceByIndex(const ACL* given, DWORD index, LPVOID* found) {
    const Bytes acl = givenAcl(given);
    if (acl.empty()) return STATUS_INVALID_ACL;
    if (index >= aceCount(acl) || found == nullptr) return STATUS_INVALID_PARAMETER;
    Bytes ace;
    size_t offset = sizeof(ACL);
    for (DWORD i = 0; i <= index; i++) {
        ace = aceAt(acl, offset);
        if (ace.empty()) return STATUS_INVALID_ACL;
        offset += ace.size();
    }
    if (!aceValid(ace)) return STATUS_INVALID_ACL;
    *found = const_cast<uint8_t*>(ace.data());
    return STATUS_SUCCESS;
}

} /* namespace */
} /* namespace offline */

BOOL GetAclInformation(PACL acl, LPVOID information, DWORD size, ACL_INFORMATION_CLASS infoClass) {
    return offline::booleanResult(offline::aclInformation(acl, information, size, infoClass));
}

BOOL GetAce(PACL acl, DWORD index, LPVOID* ace) {
    return offline::booleanResult(offline::aceByIndex(acl, index, ace));
}
