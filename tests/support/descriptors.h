/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Lists and descriptors laid out by hand for the tests, and everything that a caller does with them. */
#ifndef QUILLET_TESTS_SUPPORT_DESCRIPTORS_H
#define QUILLET_TESTS_SUPPORT_DESCRIPTORS_H

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "platform/offline/descriptor/security_descriptor.h"
#include "platform/offline/security/security.h"

using Image = std::vector<uint8_t>;

inline const std::string admins = "S-1-5-32-544", localSystem = "S-1-5-18", users = "S-1-5-32-545",
                         everyone = "S-1-1-0", stranger = "S-1-5-21-7-8-9-1001", self = "S-1-5-21-1-2-3-500",
                         group = "S-1-5-21-1-2-3-513";

inline void put(Image& image, uint64_t value, size_t bytes) {
    for (size_t i = 0; i < bytes; i++) image.push_back(static_cast<uint8_t>(value >> (8 * i)));
}
inline void put(Image& image, const Image& more) {
    image.insert(image.end(), more.begin(), more.end());
}

/* extra: bytes between mask and SID, as in entries about typed objects. */
inline Image ace(uint8_t type, uint8_t flags, uint32_t mask, const std::string& who,
                 const Image& extra = {}) {
    const Image sid = offline::sidFromText(who);
    Image image = {type, flags};
    put(image, 8 + extra.size() + sid.size(), 2);
    put(image, mask, 4);
    put(image, extra);
    put(image, sid);
    return image;
}

inline Image acl(const std::vector<Image>& aces, size_t freeRoom = 0) {
    Image body, image = {2, 0};
    for (const Image& one : aces) put(body, one);
    body.resize(body.size() + freeRoom);
    put(image, 8 + body.size(), 2);
    put(image, aces.size(), 4);
    put(image, body);
    return image;
}

/* The parts in the order of their fields (not that of the platform); an empty list is one that is absent. */
inline Image descriptor(const std::string& owner, const std::string& groupSid, const Image& sacl,
                        const Image& dacl, uint16_t control = 0) {
    Image head = {1, 0}, body;
    put(head,
        control | SE_SELF_RELATIVE | (sacl.empty() ? 0 : SE_SACL_PRESENT) |
            (dacl.empty() ? 0 : SE_DACL_PRESENT),
        2);
    for (const Image& part : {offline::sidFromText(owner), offline::sidFromText(groupSid), sacl, dacl}) {
        put(head, part.empty() ? 0 : 20 + body.size(), 4);
        put(body, part);
    }
    put(head, body);
    return head;
}

/* The same as the platform lays it out, the list of rights first, with Local System as the group. */
inline Image makeDescriptor(const std::string& owner, const std::vector<Image>& rights) {
    const Image dacl = acl(rights), ownerSid = offline::sidFromText(owner);
    Image image = {1, 0};
    put(image, SE_SELF_RELATIVE | SE_DACL_PRESENT, 2);
    put(image, 20 + dacl.size(), 4);
    put(image, 20 + dacl.size() + ownerSid.size(), 4);
    put(image, 0, 4);
    put(image, 20, 4);
    for (const Image& part : {dacl, ownerSid, offline::sidFromText(localSystem)}) put(image, part);
    return image;
}

/* Exactly as many bytes as there are, so that the sanitizer sees every read and write outside. */
struct Exact {
    std::unique_ptr<uint8_t[]> bytes;
    size_t size;
    explicit Exact(const Image& image) : bytes(new uint8_t[image.size()]), size(image.size()) {
        if (size != 0) memcpy(bytes.get(), image.data(), size);
    }
    std::span<const uint8_t> span() const { return {bytes.get(), size}; }
};

/* Sets attributes of privileges by their LUIDs; the last error. */
inline DWORD adjust(HANDLE token, const std::vector<std::pair<uint64_t, DWORD>>& changes) {
    Image state;
    put(state, changes.size(), 4);
    for (const auto& [luid, attributes] : changes) {
        put(state, luid, 8);
        put(state, attributes, 4);
    }
    const Exact exact(state);
    auto* const privileges = reinterpret_cast<PTOKEN_PRIVILEGES>(exact.bytes.get());
    SetLastError(77);
    const BOOL done = AdjustTokenPrivileges(token, FALSE, privileges, 16, nullptr, nullptr);
    const DWORD error = GetLastError();
    return done == (error == 0 || error == ERROR_NOT_ALL_ASSIGNED ? TRUE : FALSE) ? error : 0xDEAD;
}

inline HANDLE openToken(DWORD access) {
    HANDLE token = nullptr;
    return OpenProcessToken(GetCurrentProcess(), access, &token) ? token : nullptr;
}

inline DWORD enable(uint64_t luid, DWORD attributes = SE_PRIVILEGE_ENABLED) {
    HANDLE token = openToken(TOKEN_ADJUST_PRIVILEGES);
    const DWORD error = adjust(token, {{luid, attributes}});
    CloseHandle(token);
    return error;
}

/* Owner, group, rights and audits of an image by the platform's calls, patched in place when asked to be. */
inline bool visit(uint8_t* image, bool patch) {
    std::vector<void*> sids(2);
    PACL lists[2] = {};
    BOOL flag = FALSE;
    if (!GetSecurityDescriptorOwner(image, &sids[0], &flag) ||
        !GetSecurityDescriptorGroup(image, &sids[1], &flag) ||
        !GetSecurityDescriptorDacl(image, &flag, &lists[0], &flag) ||
        !GetSecurityDescriptorSacl(image, &flag, &lists[1], &flag))
        return false;
    for (PACL list : lists) {
        ACL_SIZE_INFORMATION sizes = {};
        if (list != nullptr && !GetAclInformation(list, &sizes, sizeof sizes, AclSizeInformation))
            return false;
        for (DWORD i = sizes.AceCount; i-- > 0;) {
            LPVOID ace = nullptr;
            if (!GetAce(list, i, &ace)) return false;
            auto* bytes = static_cast<uint8_t*>(ace);
            if (bytes[0] <= SYSTEM_ALARM_ACE_TYPE) sids.push_back(bytes + 8);
        }
    }
    for (void* sid : sids) {
        LPSTR text = nullptr;
        if (sid != nullptr && !ConvertSidToStringSidA(sid, &text)) return false;
        LocalFree(text);
        auto* bytes = static_cast<uint8_t*>(sid);
        if (sid != nullptr && patch)
            memset(bytes + 8, 0xFF, size_t{bytes[1]} * 4);  // the most hostile numbers
    }
    return true;
}

/* Everything that a descriptor from a disk goes through. False when a promise is broken. */
inline bool exercise(const Image& bytes) {
    using namespace offline;
    const Exact image(bytes);
    DescriptorParts parts;
    size_t length = 0;
    const bool valid = partsOfImage(image.span(), parts, length);
    if (valid != descriptorValid(image.span()) || (valid && length > image.size)) return false;
    ACCESS_MASK granted = 0;
    (void)accessCheck(image.span(), MAXIMUM_ALLOWED, fileMapping, granted);
    Image out;
    for (const SECURITY_INFORMATION part : {0x1u, 0x6u, 0x7u, 0x8u, 0xFu})
        if ((descriptorQuery(image.span(), part, out) >= 0 && descriptorValid(out)) != valid) return false;
    if (descriptorForChild(image.span(), keyMapping, out) >= 0 && !descriptorValid(out)) return false;
    if (!valid) return true;
    return descriptorSet(image.span(), 0x80000007, image.bytes.get(), out) >= 0 && descriptorValid(out) &&
           visit(image.bytes.get(), true) && descriptorValid(image.span()) && visit(image.bytes.get(), false);
}

#endif
