#include <gtest/gtest.h>

#include "tests/security/shapes.h"

namespace {

using namespace offline;

const Image oldDacl = acl({ace(0, 3, 0x1F01FF, stranger)});
const Image newDacl = acl({ace(1, 0, 1, users), ace(0, 0, 3, admins)}, 13);  // its size is odd
const Image audits = acl({ace(2, 0xC3, 3, everyone)});

uint16_t controlOf(const Image& image) {
    return static_cast<uint16_t>(image[2] | image[3] << 8);
}

/* The bytes of one part of an image, found by the image's own offset. */
Image partOf(const Image& image, size_t field, size_t size) {
    uint32_t offset = 0;
    memcpy(&offset, &image[field], 4);
    if (offset == 0) return {};
    EXPECT_LE(offset + size, image.size());
    return {image.begin() + offset, image.begin() + static_cast<ptrdiff_t>(offset + size)};
}

TEST(Descriptor, CallsOnBothForms) {
    Image image = descriptor(stranger, "", {}, oldDacl, SE_DACL_DEFAULTED | SE_OWNER_DEFAULTED);
    PSID sid = nullptr;
    PACL list = nullptr;
    BOOL present = 7;
    BOOL defaulted = 7;
    ASSERT_TRUE(GetSecurityDescriptorOwner(image.data(), &sid, &defaulted));
    EXPECT_EQ(sid, &image[20]);
    EXPECT_EQ(defaulted, TRUE);
    ASSERT_TRUE(GetSecurityDescriptorGroup(image.data(), &sid, &defaulted));
    EXPECT_EQ(sid, nullptr);
    EXPECT_EQ(defaulted, FALSE);
    ASSERT_TRUE(GetSecurityDescriptorDacl(image.data(), &present, &list, &defaulted));
    EXPECT_EQ(static_cast<void*>(list), &image[48]);
    EXPECT_TRUE(present == TRUE && defaulted == TRUE);
    ASSERT_TRUE(GetSecurityDescriptorSacl(image.data(), &present, &list, &defaulted));
    EXPECT_TRUE(list == nullptr && present == FALSE);

    SECURITY_DESCRIPTOR absolute;
    memset(&absolute, 0xAA, sizeof absolute);
    EXPECT_FALSE(InitializeSecurityDescriptor(&absolute, 2));
    ASSERT_TRUE(InitializeSecurityDescriptor(&absolute, 1));
    Image owner = sidFromText(stranger);
    ASSERT_TRUE(SetSecurityDescriptorOwner(&absolute, owner.data(), FALSE));
    ASSERT_TRUE(GetSecurityDescriptorDacl(&absolute, &present, &list, &defaulted));
    EXPECT_EQ(present, FALSE);
    ASSERT_TRUE(SetSecurityDescriptorDacl(&absolute, TRUE, nullptr, TRUE));
    EXPECT_EQ(absolute.Control, SE_DACL_PRESENT | SE_DACL_DEFAULTED);
    ASSERT_TRUE(SetSecurityDescriptorDacl(&absolute, FALSE, nullptr, FALSE));
    EXPECT_EQ(absolute.Control, 0);
    ASSERT_TRUE(SetSecurityDescriptorDacl(&absolute, TRUE, nullptr, FALSE));
    ASSERT_TRUE(GetSecurityDescriptorDacl(&absolute, &present, &list, &defaulted));
    EXPECT_TRUE(present == TRUE && list == nullptr && defaulted == FALSE);
    ASSERT_TRUE(GetSecurityDescriptorOwner(&absolute, &sid, &defaulted));
    EXPECT_EQ(sid, owner.data());

    EXPECT_FALSE(SetSecurityDescriptorOwner(image.data(), owner.data(), FALSE)) << "a self-relative one";
    for (const size_t at : {4u, 0u}) {  // an owner inside the header, then an unknown revision
        image[at] = 8;
        SetLastError(0);
        EXPECT_FALSE(GetSecurityDescriptorOwner(image.data(), &sid, &defaulted));
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_SECURITY_DESCR));
    }
}

TEST(Descriptor, CallsOnLists) {
    Image bytes = newDacl;
    auto* list = reinterpret_cast<PACL>(bytes.data());
    ACL_SIZE_INFORMATION sizes = {};
    LPVOID found = nullptr;
    const auto error = [](BOOL done) { return done != FALSE ? 0 : GetLastError(); };
    EXPECT_EQ(error(GetAclInformation(list, &sizes, 11, AclSizeInformation)), 122u);
    EXPECT_EQ(error(GetAclInformation(list, &sizes, 12, AclSizeInformation)), 0u);
    EXPECT_EQ(sizes.AceCount, 2u);
    EXPECT_EQ(sizes.AclBytesInUse + 13, bytes.size());
    EXPECT_EQ(sizes.AclBytesFree, 13u);
    EXPECT_EQ(error(GetAce(list, 2, &found)), 87u);
    EXPECT_EQ(error(GetAce(list, 1, &found)), 0u);
    EXPECT_EQ(found, &bytes[8 + 24]);
    bytes[8 + 2] = 0xF0;
    EXPECT_EQ(error(GetAce(list, 1, &found)), 1336u);
    EXPECT_EQ(error(GetAclInformation(list, &sizes, 12, AclSizeInformation)), 1336u);
}

TEST(Descriptor, QueryGivesTheParts) {
    Image stored = descriptor(stranger, users, audits, oldDacl, 0x3C01);
    stored.resize(stored.size() + 8, 0x5A);
    const struct {
        SECURITY_INFORMATION information;
        uint16_t control;
    } rows[] = {{1, 0x8001}, {2, 0x8000},          {4, 0x9404}, {8, 0xA810},
                {7, 0x9405}, {0x80000004, 0x9404}, {0, 0x8000}};
    for (const auto& row : rows) {
        Image image;
        ASSERT_EQ(descriptorQuery(stored, row.information, image), STATUS_SUCCESS);
        EXPECT_EQ(controlOf(image), row.control) << row.information;
        const auto part = [&](SECURITY_INFORMATION bit, const Image& bytes) {
            return (row.information & bit) != 0 ? bytes : Image{};
        };
        EXPECT_EQ(partOf(image, 4, 28), part(1, sidFromText(stranger)));
        EXPECT_EQ(partOf(image, 8, 16), part(2, sidFromText(users)));
        EXPECT_EQ(partOf(image, 12, audits.size()), part(8, audits));
        EXPECT_EQ(partOf(image, 16, oldDacl.size()), part(4, oldDacl));
    }
    Image image;
    ASSERT_EQ(descriptorQuery(stored, 0xF, image), STATUS_SUCCESS);
    EXPECT_EQ(image, stored);
    stored[0] = 0;
    EXPECT_EQ(descriptorQuery(stored, 0xF, image), STATUS_INVALID_SECURITY_DESCR);
}

TEST(Descriptor, SetKeepsWhatIsNotNamed) {
    setAccessMode(AccessMode::unrefused);
    const Image stored = descriptor(stranger, users, audits, oldDacl, 0x3C01);
    const Exact given(descriptor(admins, everyone, {}, newDacl, 0x4708));
    const struct {
        std::string owner, group;
        Image sacl, dacl;
        SECURITY_INFORMATION information;
        uint16_t control;
    } rows[] = {
        {admins, users, audits, oldDacl, 1, 0xBC14},
        {stranger, users, audits, newDacl, 4, 0xAC1D},
        {stranger, users, audits, newDacl, 0x80000004, 0xBC1D},
        {admins, everyone, audits, newDacl, 7, 0xAC1C},
        {stranger, users, {}, oldDacl, 8, 0x9405},
        {admins, everyone, {}, newDacl, 0xF, 0xC40C},
        {admins, everyone, {}, newDacl, 0x4000000F, 0xE40C},
    };
    for (const auto& row : rows) {
        Image image = stored;
        ASSERT_EQ(descriptorSet(image, row.information, given.bytes.get(), image), STATUS_SUCCESS);
        ASSERT_TRUE(descriptorValid(image));
        EXPECT_EQ(controlOf(image), row.control) << std::hex << row.information;
        EXPECT_EQ(partOf(image, 4, sidFromText(row.owner).size()), sidFromText(row.owner));
        EXPECT_EQ(partOf(image, 8, sidFromText(row.group).size()), sidFromText(row.group));
        EXPECT_EQ(partOf(image, 12, row.sacl.size()), row.sacl);
        EXPECT_EQ(partOf(image, 16, row.dacl.size()), row.dacl);
        if (row.information == 0xF) {
            Image same(given.bytes.get(), given.bytes.get() + given.size);
            same[3] = 0xC4;  // without the request bits
            EXPECT_EQ(image, same) << "byte for byte";
        }
    }
    Image image;
    ASSERT_EQ(descriptorSet(stored, 0x3000000C, Exact(stored).bytes.get(), image), STATUS_SUCCESS);
    EXPECT_EQ(controlOf(image), 0x8C15) << "unprotected";
}

TEST(Descriptor, SetFromAnAbsoluteOne) {
    setAccessMode(AccessMode::checked);
    const Image stored = descriptor(stranger, users, audits, oldDacl, SE_DACL_PROTECTED | 0x40);
    const auto set = [&](const std::string& owner, SECURITY_INFORMATION information, Image& image) {
        const Exact sid(sidFromText(owner));
        SECURITY_DESCRIPTOR absolute = {};
        EXPECT_TRUE(InitializeSecurityDescriptor(&absolute, 1));
        EXPECT_TRUE(SetSecurityDescriptorOwner(&absolute, sid.size == 0 ? nullptr : sid.bytes.get(), FALSE));
        EXPECT_TRUE(SetSecurityDescriptorDacl(&absolute, TRUE, nullptr, FALSE));
        return descriptorSet(stored, information, &absolute, image);
    };
    Image image;
    for (const std::string& owner : {self, admins}) {
        ASSERT_EQ(set(owner, 5, image), STATUS_SUCCESS);
        EXPECT_EQ(controlOf(image), 0x8054);
        EXPECT_EQ(partOf(image, 4, sidFromText(owner).size()), sidFromText(owner));
        EXPECT_EQ(partOf(image, 12, audits.size()), audits);
        EXPECT_EQ(partOf(image, 16, 8), Image{}) << "a null list";
    }
    const Image before = image;
    for (const std::string& owner : {stranger, everyone, std::string()}) {
        EXPECT_EQ(set(owner, 1, image), STATUS_INVALID_OWNER) << owner;
    }
    EXPECT_EQ(image, before);
    EXPECT_EQ(set(stranger, 4, image), STATUS_SUCCESS) << "the owner is not set";
    EXPECT_EQ(descriptorSet(stored, 4, nullptr, image), STATUS_INVALID_SECURITY_DESCR);
    EXPECT_EQ(set(self, 2, image), STATUS_INVALID_SECURITY_DESCR) << "no group";
    HANDLE token = nullptr;
    TOKEN_PRIVILEGES restore = {1, {{{restorePrivilege, 0}, SE_PRIVILEGE_ENABLED}}};
    ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES, &token));
    ASSERT_TRUE(AdjustTokenPrivileges(token, FALSE, &restore, sizeof restore, nullptr, nullptr));
    CloseHandle(token);
    EXPECT_EQ(set(stranger, 1, image), STATUS_SUCCESS);
    EXPECT_EQ(set("", 1, image), STATUS_INVALID_OWNER);
    setAccessMode(AccessMode::unrefused);
    EXPECT_EQ(set(stranger, 0xF, image), STATUS_SUCCESS);
    EXPECT_EQ(controlOf(image), 0x8004) << "nothing of the old one";
    EXPECT_EQ(accessToSet(0xF), WRITE_OWNER | WRITE_DAC | ACCESS_SYSTEM_SECURITY);
    EXPECT_EQ(accessToQuery(0x8), ACCESS_SYSTEM_SECURITY);
    EXPECT_EQ(accessToQuery(0x7), READ_CONTROL);
}

TEST(Descriptor, ChildInherits) {
    setAccessMode(AccessMode::checked);
    const Image ofType = {2, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    const struct {
        const char* name;
        Image parent;
        std::vector<Image> child;
    } rows[] = {
        {"container", ace(0, 2, 1, users), {ace(0, 0x12, 1, users)}},
        {"container and object", ace(1, 3, 1, users), {ace(1, 0x13, 1, users)}},
        {"inherit-only", ace(0, 0x0A, 1, users), {ace(0, 0x12, 1, users)}},
        {"not further", ace(0, 6, 1, users), {ace(0, 0x10, 1, users)}},
        {"object", ace(0, 1, 1, users), {ace(0, 0x19, 1, users)}},
        {"object, not further", ace(0, 5, 1, users), {}},
        {"not inheritable", ace(0, 0, 1, users), {}},
        {"generic",
         ace(0, 3, GENERIC_READ, users),
         {ace(0, 0x10, KEY_READ, users), ace(0, 0x1B, GENERIC_READ, users)}},
        {"generic, not further", ace(0, 6, GENERIC_READ, users), {ace(0, 0x10, KEY_READ, users)}},
        {"creator", ace(0, 0x0B, 7, "S-1-3-0"), {ace(0, 0x10, 7, admins), ace(0, 0x1B, 7, "S-1-3-0")}},
        {"creator's group", ace(0, 6, 7, "S-1-3-1"), {ace(0, 0x10, 7, "S-1-5-21-1-2-3-513")}},
        {"one type", ace(5, 2, 7, users, ofType), {ace(5, 0x1A, 7, users, ofType)}},
        {"unknown type", Image{99, 2, 4, 0}, {Image{99, 0x12, 4, 0}}},
    };
    for (const auto& row : rows) {
        Image child;
        const Image parent =
            descriptor(stranger, stranger, {}, acl({row.parent, ace(0, 0, 1, stranger)}), 0x1000);
        ASSERT_EQ(descriptorForChild(parent, keyMapping, child), STATUS_SUCCESS);
        ASSERT_TRUE(descriptorValid(child));
        const Image expected =
            acl(!row.child.empty() ? row.child
                                   : std::vector<Image>{ace(0, 0, KEY_ALL_ACCESS, localSystem),
                                                        ace(0, 0, KEY_ALL_ACCESS, admins)});
        EXPECT_EQ(partOf(child, 16, expected.size()), expected) << row.name;
        EXPECT_EQ(controlOf(child), row.child.empty() ? 0x8004 : 0x8404) << row.name;
        EXPECT_EQ(partOf(child, 4, 16), sidFromText(admins));
        EXPECT_EQ(partOf(child, 8, 28), sidFromText("S-1-5-21-1-2-3-513"));
    }
    Image child;
    ASSERT_EQ(descriptorForChild(descriptor(admins, admins, audits, {}), keyMapping, child), STATUS_SUCCESS);
    EXPECT_EQ(partOf(child, 12, audits.size()), acl({ace(2, 0xD3, 3, everyone)}));
    EXPECT_EQ(controlOf(child), 0x8814);

    // A list that is full of entries which become two each outgrows the size of a list.
    const Image creator = ace(0, 0x0B, 7, "S-1-3-0");
    const Image full = descriptor(admins, admins, {}, acl(std::vector<Image>(3000, creator)));
    EXPECT_EQ(descriptorForChild(full, keyMapping, child), STATUS_INVALID_ACL);
}

} /* namespace */
