/* Lists and descriptors laid out by hand for the tests, and everything that a caller does with them. */
#ifndef QUILLET_TESTS_SECURITY_SHAPES_H
#define QUILLET_TESTS_SECURITY_SHAPES_H

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "platform/offline/security/security.h"

using Image = std::vector<uint8_t>;

inline const std::string admins = "S-1-5-32-544", localSystem = "S-1-5-18", users = "S-1-5-32-545",
                         everyone = "S-1-1-0", stranger = "S-1-5-21-7-8-9-1001", self = "S-1-5-21-1-2-3-500";

inline void put(Image& image, uint64_t value, size_t bytes) {
    for (size_t i = 0; i < bytes; i++) image.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

/* extra: bytes between mask and SID, as in entries about typed objects. */
inline Image ace(uint8_t type, uint8_t flags, uint32_t mask, const std::string& who,
                 const Image& extra = {}) {
    const Image sid = offline::sidFromText(who);
    Image image = {type, flags};
    put(image, 8 + extra.size() + sid.size(), 2);
    put(image, mask, 4);
    image.insert(image.end(), extra.begin(), extra.end());
    image.insert(image.end(), sid.begin(), sid.end());
    return image;
}

inline Image acl(const std::vector<Image>& aces, size_t freeRoom = 0) {
    Image body;
    for (const Image& one : aces) body.insert(body.end(), one.begin(), one.end());
    body.resize(body.size() + freeRoom);
    Image image = {2, 0};
    put(image, 8 + body.size(), 2);
    put(image, aces.size(), 2);
    put(image, 0, 2);
    image.insert(image.end(), body.begin(), body.end());
    return image;
}

/* The parts in the order of their fields (not that of the platform); an empty list is one that is absent. */
inline Image descriptor(const std::string& owner, const std::string& group, const Image& sacl,
                        const Image& dacl, uint16_t control = 0) {
    const Image parts[] = {offline::sidFromText(owner), offline::sidFromText(group), sacl, dacl};
    if (!sacl.empty()) control |= SE_SACL_PRESENT;
    if (!dacl.empty()) control |= SE_DACL_PRESENT;
    Image head = {1, 0};
    Image body;
    put(head, control | SE_SELF_RELATIVE, 2);
    for (const Image& part : parts) {
        put(head, part.empty() ? 0 : 20 + body.size(), 4);
        body.insert(body.end(), part.begin(), part.end());
    }
    head.insert(head.end(), body.begin(), body.end());
    return head;
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

/* What a caller's walk saw. */
struct Walk {
    int failures = 0; /* calls that failed */
    std::vector<std::string> sids;
};

inline void visitSid(Walk& walk, uint8_t* sid, bool patch) {
    LPSTR text = nullptr;
    walk.failures += ConvertSidToStringSidA(sid, &text) == FALSE;
    if (text != nullptr) walk.sids.emplace_back(text);
    LocalFree(text);
    if (patch) memset(sid + 8, 0xFF, size_t{sid[1]} * 4);  // the most hostile numbers an account can have
}

inline void visitAcl(Walk& walk, PACL list, bool patch) {
    ACL_SIZE_INFORMATION sizes = {};
    if (GetAclInformation(list, &sizes, sizeof sizes, AclSizeInformation) == FALSE) {
        walk.failures++;
        return;
    }
    for (DWORD i = sizes.AceCount; i-- > 0;) {
        LPVOID found = nullptr;
        if (GetAce(list, i, &found) == FALSE) {
            walk.failures++;
            return;
        }
        auto* bytes = static_cast<uint8_t*>(found);
        if (bytes[0] <= SYSTEM_ALARM_ACE_TYPE) visitSid(walk, bytes + 8, patch);
    }
}

/* Owner, group, rights and audits of an image by the platform's calls, patched in place when asked to be. */
inline Walk walkDescriptor(uint8_t* image, bool patch) {
    Walk walk;
    PSID owner = nullptr;
    PSID group = nullptr;
    PACL dacl = nullptr;
    PACL sacl = nullptr;
    BOOL flag = FALSE;
    BOOL present = FALSE;
    walk.failures += GetSecurityDescriptorOwner(image, &owner, &flag) == FALSE;
    walk.failures += GetSecurityDescriptorGroup(image, &group, &flag) == FALSE;
    walk.failures += GetSecurityDescriptorDacl(image, &present, &dacl, &flag) == FALSE;
    walk.failures += GetSecurityDescriptorSacl(image, &present, &sacl, &flag) == FALSE;
    if (dacl != nullptr) visitAcl(walk, dacl, patch);
    if (sacl != nullptr) visitAcl(walk, sacl, patch);
    if (owner != nullptr) visitSid(walk, static_cast<uint8_t*>(owner), patch);
    if (group != nullptr) visitSid(walk, static_cast<uint8_t*>(group), patch);
    return walk;
}

/* Everything that a descriptor from a disk goes through. False when a promise is broken. */
inline bool exercise(const Image& bytes) {
    using namespace offline;
    const Exact image(bytes);
    const bool valid = descriptorValid(image.span());
    const size_t length = descriptorLength(image.bytes.get(), image.size);
    if (valid != (length != 0) || length > image.size) return false;
    ACCESS_MASK granted = 0;
    (void)accessCheck(image.span(), MAXIMUM_ALLOWED, fileMapping, granted);
    for (const SECURITY_INFORMATION part : {0x1u, 0x6u, 0x7u, 0x8u, 0xFu}) {
        std::vector<uint8_t> out;
        if ((descriptorQuery(image.span(), part, out) >= 0) != valid) return false;
        if (valid && !descriptorValid(out)) return false;
    }
    std::vector<uint8_t> child;
    if (descriptorForChild(image.span(), keyMapping, child) >= 0 && !descriptorValid(child)) return false;
    if (!valid) return true;

    std::vector<uint8_t> stored;
    if (descriptorSet(image.span(), 0x80000007, image.bytes.get(), stored) < 0 || !descriptorValid(stored))
        return false;
    return walkDescriptor(image.bytes.get(), true).failures == 0 && descriptorValid(image.span()) &&
           walkDescriptor(image.bytes.get(), false).failures == 0;
}

#endif
