/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Descriptors and lists: the calls, what is stored and inherited, and those that someone bent: none may be
 * read or written outside of itself. */
#include <gtest/gtest.h>

#include <random>

#include "tests/support/descriptors.h"

namespace {

using namespace offline;

const Image oldDacl = acl({ace(0, 3, 0x1F01FF, stranger)});
const Image newDacl = acl({ace(1, 0, 1, users), ace(0, 0, 3, admins)}, 13);  // its size is odd
const Image audits = acl({ace(2, 0xC3, 3, everyone)});

uint16_t controlOf(const Image& image) {
    return static_cast<uint16_t>(image[2] | image[3] << 8);
}

/* Whether an image has these bytes where its field says; without bytes, whether it has no such part. */
bool has(const Image& image, size_t field, const Image& part) {
    uint32_t offset = 0;
    memcpy(&offset, &image[field], 4);
    if (part.empty() || offset == 0) return part.empty() && offset == 0;
    return offset + part.size() <= image.size() && memcmp(&image[offset], part.data(), part.size()) == 0;
}

void expectParts(const Image& image, const std::string& owner, const std::string& groupSid, const Image& sacl,
                 const Image& dacl, uint16_t control) {
    EXPECT_TRUE(descriptorValid(image));
    EXPECT_EQ(controlOf(image), control);
    EXPECT_TRUE(has(image, 4, sidFromText(owner)));
    EXPECT_TRUE(has(image, 8, sidFromText(groupSid)));
    EXPECT_TRUE(has(image, 12, sacl));
    EXPECT_TRUE(has(image, 16, dacl));
}

TEST(Descriptor, CallsOnBothForms) {
    Image image = descriptor(stranger, "", {}, oldDacl, SE_DACL_DEFAULTED | SE_OWNER_DEFAULTED);
    PSID sid = nullptr;
    PACL list = nullptr;
    BOOL present = 7, defaulted = 7;
    EXPECT_TRUE(GetSecurityDescriptorOwner(&image[0], &sid, &defaulted) && sid == &image[20] &&
                defaulted == 1);
    EXPECT_TRUE(GetSecurityDescriptorGroup(&image[0], &sid, &defaulted) && !sid && defaulted == 0);
    EXPECT_TRUE(GetSecurityDescriptorDacl(image.data(), &present, &list, &defaulted));
    EXPECT_TRUE(reinterpret_cast<uint8_t*>(list) == &image[48] && present == 1 && defaulted == 1);
    EXPECT_TRUE(GetSecurityDescriptorSacl(&image[0], &present, &list, &defaulted) && !list && present == 0);

    SECURITY_DESCRIPTOR absolute;
    memset(&absolute, 0xAA, sizeof absolute);
    EXPECT_FALSE(InitializeSecurityDescriptor(&absolute, 2));
    ASSERT_TRUE(InitializeSecurityDescriptor(&absolute, 1));
    EXPECT_TRUE(SetSecurityDescriptorOwner(&absolute, &image[20], FALSE));
    EXPECT_TRUE(GetSecurityDescriptorOwner(&absolute, &sid, &defaulted) && sid == &image[20]);
    for (const auto& [is, by, control] : {std::tuple(0, 0, 0), {1, 1, 0xC}, {0, 1, 0}, {1, 0, 4}}) {
        EXPECT_TRUE(SetSecurityDescriptorDacl(&absolute, is, nullptr, by) && absolute.Control == control);
        EXPECT_TRUE(GetSecurityDescriptorDacl(&absolute, &present, &list, &defaulted) && list == nullptr);
        EXPECT_TRUE(present == is && defaulted == (is & by));
    }
    EXPECT_FALSE(SetSecurityDescriptorOwner(image.data(), sid, FALSE)) << "a self-relative one";
    for (const size_t at : {4u, 0u}) {  // an owner inside the header, then an unknown revision
        image[at] = 8;
        EXPECT_FALSE(GetSecurityDescriptorOwner(image.data(), &sid, &defaulted));
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_SECURITY_DESCR));
    }
}

TEST(Descriptor, CallsOnLists) {
    const Exact bytes(newDacl);
    auto* list = reinterpret_cast<PACL>(bytes.bytes.get());
    ACL_SIZE_INFORMATION sizes = {};
    LPVOID found = nullptr;
    const auto error = [](BOOL done) { return done != FALSE ? 0 : GetLastError(); };
    EXPECT_EQ(error(GetAclInformation(list, &sizes, 11, AclSizeInformation)), 122u);
    EXPECT_EQ(error(GetAclInformation(list, &sizes, 12, AclSizeInformation)), 0u);
    EXPECT_TRUE(sizes.AceCount == 2 && sizes.AclBytesInUse + 13 == bytes.size && sizes.AclBytesFree == 13);
    EXPECT_EQ(error(GetAce(list, 2, &found)), 87u);
    EXPECT_EQ(error(GetAce(list, 1, &found)), 0u);
    EXPECT_EQ(found, bytes.bytes.get() + 8 + 24);
    for (const size_t at : {8u + 24 + 9, 8u + 2}) {  // the SID beyond its entry, an entry beyond the list
        bytes.bytes[at] = 0xF0;
        EXPECT_EQ(error(GetAce(list, 1, &found)), 1336u);
        EXPECT_EQ(error(GetAclInformation(list, &sizes, 12, AclSizeInformation)), 1336u);
    }
}

/* A list is asked for entry by entry, in the order that the caller likes, and changes while it is. */
TEST(Descriptor, EntriesOfALongListInAnyOrder) {
    std::vector<Image> entries;
    for (uint32_t i = 0; i < 1000; i++)
        entries.push_back(i % 3 == 0 ? Image{99, 0, 4, 0} : ace(0, 0, i, users));
    std::vector<size_t> offsets = {8};
    for (const Image& one : entries) offsets.push_back(offsets.back() + one.size());
    const Exact bytes(acl(entries));
    auto* const list = reinterpret_cast<PACL>(bytes.bytes.get());
    std::mt19937 random(11);
    for (size_t index = 0, turn = 0; turn < 5000; turn++) {
        LPVOID found = nullptr;
        ASSERT_TRUE(GetAce(list, static_cast<DWORD>(index), &found)) << index;
        ASSERT_EQ(found, bytes.bytes.get() + offsets[index]) << index;
        if (entries[index].size() > 4) memset(static_cast<uint8_t*>(found) + 16, 0xFF, 4);
        if (turn % 50 == 0 && index + 1 < entries.size()) { /* two neighbours change places */
            const Image first = entries[index], second = entries[index + 1];
            memcpy(&bytes.bytes[offsets[index]], second.data(), second.size());
            offsets[index + 1] = offsets[index] + second.size();
            memcpy(&bytes.bytes[offsets[index + 1]], first.data(), first.size());
            std::swap(entries[index], entries[index + 1]);
        }
        index = turn % 40 == 0 ? random() : index + random() % 3 + entries.size() - 1;
        index %= entries.size();
    }
}

TEST(Descriptor, SetKeepsWhatIsNotNamed) {
    setAccessMode(AccessMode::unrefused);
    const Image stored = descriptor(stranger, users, audits, oldDacl, 0x3C01);
    Image given = descriptor(admins, everyone, {}, newDacl, 0x4708), image;
    struct {
        SECURITY_INFORMATION parts;
        uint16_t control;
        std::string owner = stranger, group = users;
        Image sacl = audits, dacl = oldDacl;
    } const rows[] = {
        {.parts = 1, .control = 0xBC14, .owner = admins},
        {.parts = 4, .control = 0xAC1D, .dacl = newDacl},
        {.parts = 0x80000004, .control = 0xBC1D, .dacl = newDacl},
        {.parts = 7, .control = 0xAC1C, .owner = admins, .group = everyone, .dacl = newDacl},
        {.parts = 8, .control = 0x9405, .sacl = {}},
        {.parts = 0x4000000F,
         .control = 0xE40C,
         .owner = admins,
         .group = everyone,
         .sacl = {},
         .dacl = newDacl},
        {.parts = 0xF, .control = 0xC40C, .owner = admins, .group = everyone, .sacl = {}, .dacl = newDacl},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.parts);
        image = stored;
        ASSERT_EQ(descriptorSet(image, row.parts, Exact(given).bytes.get(), image), STATUS_SUCCESS);
        expectParts(image, row.owner, row.group, row.sacl, row.dacl, row.control);
    }
    given[3] = 0xC4;  // without the request bits
    EXPECT_EQ(image, given) << "byte for byte";
    Image laidOut; /* with the list first */
    ASSERT_EQ(descriptorQuery(given, 7, laidOut), STATUS_SUCCESS);
    ASSERT_EQ(descriptorSet(stored, 0xF, Exact(laidOut).bytes.get(), image), STATUS_SUCCESS);
    EXPECT_EQ(image, laidOut) << "byte for byte";
    EXPECT_EQ(descriptorSet({}, 4, Exact(given).bytes.get(), image), STATUS_INVALID_SECURITY_DESCR);
    Image absent = descriptor(admins, everyone, {}, newDacl);
    absent[2] = 0;  // not present
    ASSERT_EQ(descriptorSet(stored, 0xF, Exact(absent).bytes.get(), image), STATUS_SUCCESS);
    expectParts(image, admins, everyone, {}, {}, 0x8000);
    EXPECT_EQ(image.size(), 20u + 16 + 12) << "the list is not kept";
    ASSERT_EQ(descriptorSet(stored, 0x3000000C, Exact(stored).bytes.get(), image), STATUS_SUCCESS);
    EXPECT_EQ(controlOf(image), 0x8C15) << "unprotected";
}

TEST(Descriptor, SetFromAnAbsoluteOne) {
    setAccessMode(AccessMode::checked);
    const Image stored = descriptor(stranger, users, audits, oldDacl, SE_DACL_PROTECTED | 0x40);
    Image image;
    const auto set = [&](const std::string& owner, SECURITY_INFORMATION parts) {
        const Exact sid(sidFromText(owner));
        SECURITY_DESCRIPTOR absolute = {};
        EXPECT_TRUE(InitializeSecurityDescriptor(&absolute, 1));
        EXPECT_TRUE(SetSecurityDescriptorOwner(&absolute, sid.size == 0 ? nullptr : sid.bytes.get(), FALSE));
        EXPECT_TRUE(SetSecurityDescriptorDacl(&absolute, TRUE, nullptr, FALSE));
        return descriptorSet(stored, parts, &absolute, image);
    };
    for (const std::string& owner : {self, admins}) {
        ASSERT_EQ(set(owner, 5), STATUS_SUCCESS);
        expectParts(image, owner, users, audits, {}, 0x8054);
    }
    const Image before = image;
    for (const std::string& owner : {stranger, everyone, std::string()})
        EXPECT_EQ(set(owner, 1), STATUS_INVALID_OWNER) << owner;
    EXPECT_EQ(image, before);
    EXPECT_EQ(set(stranger, 4), STATUS_SUCCESS) << "the owner is not set";
    EXPECT_EQ(set(self, 2), STATUS_INVALID_SECURITY_DESCR) << "no group";
    EXPECT_EQ(descriptorSet(stored, 4, nullptr, image), STATUS_INVALID_SECURITY_DESCR);
    EXPECT_EQ(enable(restorePrivilege), 0u);
    EXPECT_EQ(set(stranger, 1), STATUS_SUCCESS);
    EXPECT_EQ(set("", 1), STATUS_INVALID_OWNER);
    setAccessMode(AccessMode::unrefused);
    EXPECT_EQ(set(stranger, 0xF), STATUS_SUCCESS);
    EXPECT_EQ(controlOf(image), 0x8004) << "nothing of the old one";
    EXPECT_EQ(accessToSet(0xF), WRITE_OWNER | WRITE_DAC | ACCESS_SYSTEM_SECURITY);
    EXPECT_EQ(accessToQuery(0x8), ACCESS_SYSTEM_SECURITY);
    EXPECT_EQ(accessToQuery(0x7), READ_CONTROL);
}

TEST(Descriptor, ChildInherits) {
    setAccessMode(AccessMode::checked);
    const std::string creator = "S-1-3-0";
    const Image ofType = {2, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    const std::vector<Image> standard = {ace(0, 0, KEY_ALL_ACCESS, localSystem),
                                         ace(0, 0, KEY_ALL_ACCESS, admins)};
    const std::tuple<const char*, Image, std::vector<Image>> rows[] = {
        // clang-format off
        {"container", ace(0, 2, 1, users), {ace(0, 0x12, 1, users)}},
        {"container and object", ace(1, 3, 1, users), {ace(1, 0x13, 1, users)}},
        {"inherit-only", ace(0, 0x0A, 1, users), {ace(0, 0x12, 1, users)}},
        {"not further", ace(0, 6, 1, users), {ace(0, 0x10, 1, users)}},
        {"object", ace(0, 1, 1, users), {ace(0, 0x19, 1, users)}},
        {"object, not further", ace(0, 5, 1, users), standard},
        {"not inheritable", ace(0, 0, 1, users), standard},
        {"generic", ace(0, 3, GENERIC_READ, users),
         {ace(0, 0x10, KEY_READ, users), ace(0, 0x1B, GENERIC_READ, users)}},
        {"generic, not further", ace(0, 6, GENERIC_READ, users), {ace(0, 0x10, KEY_READ, users)}},
        {"creator", ace(0, 0x0B, 7, creator), {ace(0, 0x10, 7, admins), ace(0, 0x1B, 7, creator)}},
        {"creator's group", ace(0, 6, 7, "S-1-3-1"), {ace(0, 0x10, 7, group)}},
        {"one type", ace(5, 2, 7, users, ofType), {ace(5, 0x1A, 7, users, ofType)}},
        {"unknown type", Image{99, 2, 4, 0}, {Image{99, 0x12, 4, 0}}},
        // clang-format on
    };
    Image child;
    for (const auto& [name, parent, entries] : rows) {
        SCOPED_TRACE(name);
        const Image dacl = acl({parent, ace(0, 0, 1, stranger)});
        ASSERT_EQ(descriptorForChild(descriptor(stranger, stranger, {}, dacl, 0x1000), keyMapping, child), 0);
        expectParts(child, admins, group, {}, acl(entries), entries == standard ? 0x8004 : 0x8404);
    }
    ASSERT_EQ(descriptorForChild(descriptor(admins, admins, audits, {}), keyMapping, child), STATUS_SUCCESS);
    expectParts(child, admins, group, acl({ace(2, 0xD3, 3, everyone)}), acl(standard), 0x8814);

    // A list that is full of entries which become two each outgrows the size of a list.
    const Image full =
        descriptor(admins, admins, {}, acl(std::vector<Image>(3000, ace(0, 0x0B, 7, creator))));
    EXPECT_EQ(descriptorForChild(full, keyMapping, child), STATUS_INVALID_ACL);
}

/* ---- Bent ones ---- */

TEST(Hostile, EveryCutIsRefused) {
    Image object(36);
    object[0] = 3;
    const Image dacl =
        acl({ace(0, 0x0B, GENERIC_ALL, "S-1-3-0"), ace(5, 2, 1, users, object), ace(9, 0, 1, users)}, 24);
    const Image sacl = acl({ace(2, 0xC2, 0x1301BF, stranger), ace(0x11, 0, 1, "S-1-16-8192")});
    Image shared = descriptor(stranger, "", sacl, {}, SE_DACL_PRESENT);
    memcpy(&shared[8], &shared[4], 4);    // the group is the owner
    memcpy(&shared[16], &shared[12], 4);  // and one list serves for both
    for (const Image& shape : {descriptor(stranger, users, sacl, dacl, 0x0C00), shared,
                               descriptor("", "", {}, {}, SE_DACL_PRESENT)}) {
        EXPECT_TRUE(descriptorValid(shape) && exercise(shape));
        for (size_t size = 0; size < shape.size(); size++) {
            const Image cut(shape.begin(), shape.begin() + static_cast<ptrdiff_t>(size));
            EXPECT_TRUE(exercise(cut) && !descriptorValid(cut)) << size;
        }
    }
}

TEST(Hostile, OneRuleEach) {
    Image good = descriptor(stranger, users, {}, acl({ace(0, 0, 1, admins), ace(0, 0, 1, users)}, 4));
    const size_t list = good[16];
    const auto off = static_cast<uint8_t>(good.size() + 2);  // a whole SID where none may begin
    good.resize(off);
    put(good, sidFromText(admins));
    const std::pair<const char*, std::vector<std::pair<size_t, size_t>>> rows[] = {
        // clang-format off
        {"revision", {{0, 2}}}, {"not self-relative", {{3, 0}}}, {"sub-authorities", {{21, 16}}},
        {"owner inside the header", {{4, 12}, {12, 1}}}, {"owner off by two", {{4, off}}},
        {"owner beyond the end", {{5, 1}}}, {"owner across the group", {{21, 6}}},
        {"owner inside the list", {{4, list + 16}}}, {"group inside the list", {{8, list + 16}}},
        {"audits in an entry of the list", {{3, 0x80}, {2, 0x14}, {12, list + 20}, {list + 20, 2}, {list + 22, 8}}},
        {"list revision below", {{list, 1}}}, {"list revision above", {{list, 5}}},
        {"list beyond the end", {{list + 2, 0xFF}}}, {"list below its header", {{list + 2, 4}}},
        {"one entry too many", {{list + 4, 3}}}, {"entry of no size", {{list + 10, 0}}},
        {"entry of an odd size", {{list + 8 + 24 + 2, 26}}}, {"entry below its SID", {{list + 10, 12}}},
        {"SID beyond its entry", {{list + 17, 15}}},
        // clang-format on
    };
    ASSERT_TRUE(descriptorValid(good));
    for (const auto& [name, bytes] : rows) {
        Image bad = good;
        for (const auto& [at, value] : bytes) bad[at] = static_cast<uint8_t>(value);
        EXPECT_FALSE(descriptorValid(bad)) << name;
    }
}

} /* namespace */
