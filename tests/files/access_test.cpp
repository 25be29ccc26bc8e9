/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Descriptors by path: parts, sizes, and what they let an administrator's token do. */
#include "tests/files/files_fixture.h"

namespace offline {
namespace {

constexpr ACCESS_MASK everything = 0x1F01FF;

struct AccessTest : FilesTest {
    std::u16string path = u"\\\\?\\c:\\dir\\file";

    void fill(const Image& stored) {
        const FileRef folder = volume->make(u"dir", stored, rootDirectory, NewFile::directory);
        volume->make(u"file", stored, folder);
    }
    /* A list of one entry; the owner is the group as well. */
    static Image allowing(const std::string& owner, ACCESS_MASK rights, const std::string& who,
                          uint16_t control = 0) {
        return descriptor(owner, owner, {}, acl({ace(0, 0, rights, who)}), control);
    }
};

TEST_F(AccessTest, partsAndSizes) {
    const Image stored = allowing(stranger, everything, everyone, SE_DACL_PROTECTED);
    fill(stored);
    Image buffer(stored.size());
    DWORD needed = 0;
    const auto size = static_cast<DWORD>(stored.size());
    expectError(ERROR_INSUFFICIENT_BUFFER, !GetFileSecurityW(path.c_str(), 15, nullptr, 0, &needed));
    EXPECT_EQ(needed, size);
    const auto get = [&](DWORD room) {
        return GetFileSecurityW(path.c_str(), 15, buffer.data(), room, &needed);
    };
    expectError(ERROR_INSUFFICIENT_BUFFER, !get(size - 1));
    EXPECT_TRUE(get(size));
    EXPECT_EQ(buffer, stored);

    /* A new list only: owner and group stay; request bits are never kept. */
    const Image owner = readDescriptor(path, OWNER_SECURITY_INFORMATION);
    EXPECT_LT(owner.size(), stored.size());
    Image other = allowing(admins, 1, stranger, SE_DACL_AUTO_INHERIT_REQ);
    EXPECT_TRUE(SetFileSecurityW(path.c_str(), DACL_SECURITY_INFORMATION, other.data()));
    EXPECT_EQ(readDescriptor(path, OWNER_SECURITY_INFORMATION), owner);
    EXPECT_TRUE(SetFileSecurityW(path.c_str(), 15, other.data()));
    other[3] &= 0xFE;
    EXPECT_EQ(readDescriptor(path), other);

    Image broken = other;
    broken[20] = 9;  // the revision of the owner
    expectError(ERROR_INVALID_SECURITY_DESCR, !SetFileSecurityW(path.c_str(), 15, broken.data()));
    EXPECT_EQ(readDescriptor(path), other);
    setAccessMode(AccessMode::unrefused);
    expectError(ERROR_PRIVILEGE_NOT_HELD, !get(size));
}

TEST_F(AccessTest, refusesAndIsSeized) {
    fill(allowing(stranger, everything, stranger));
    setAccessMode(AccessMode::checked);
    EXPECT_EQ(enable(securityPrivilege), 0u);
    WIN32_FIND_DATAW record;
    const auto list = [&] { return FindFirstFileW(u"\\\\?\\c:\\dir\\*.*", &record); };
    expectError(ERROR_ACCESS_DENIED, readDescriptor(path).empty());
    expectError(ERROR_ACCESS_DENIED, !SetFileSecurityW(path.c_str(), 4, images::descriptor(1).data()));
    expectError(ERROR_ACCESS_DENIED, list() == INVALID_HANDLE_VALUE);
    expectError(ERROR_ACCESS_DENIED, GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES);

    /* Listing and attributes, but not descriptors, are open to who backs up. */
    EXPECT_EQ(enable(backupPrivilege), 0u);
    EXPECT_NE(GetFileAttributesW(path.c_str()), INVALID_FILE_ATTRIBUTES);
    EXPECT_TRUE(FindClose(list()));
    expectError(ERROR_ACCESS_DENIED, readDescriptor(path).empty());
    removePrivilege(backupPrivilege);

    /* The road back: take ownership, then put a list that refuses nothing. */
    Image owner = sidFromText(admins);
    const auto seize = [&](std::u16string file, SECURITY_INFORMATION information) {
        return SetNamedSecurityInfoW(file.data(), SE_FILE_OBJECT, information, owner.data(), nullptr, nullptr,
                                     nullptr);
    };
    EXPECT_EQ(seize(path, OWNER_SECURITY_INFORMATION), DWORD{ERROR_ACCESS_DENIED});
    EXPECT_EQ(enable(takeOwnershipPrivilege), 0u);
    for (const std::u16string& file : {std::u16string(u"\\\\?\\c:\\dir"), path}) {
        EXPECT_EQ(seize(file, OWNER_SECURITY_INFORMATION), 0u);
        EXPECT_EQ(seize(file, DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION), 0u);
        EXPECT_NE(GetFileAttributesW(path.c_str()), INVALID_FILE_ATTRIBUTES)
            << "through the directory, then the file";
    }
    const Image nullList = descriptor(admins, stranger, {}, {}, SE_DACL_PRESENT | SE_DACL_PROTECTED);
    EXPECT_EQ(readDescriptor(path), nullList);
    EXPECT_TRUE(FindClose(list()));
    EXPECT_EQ(seize(path, GROUP_SECURITY_INFORMATION), DWORD{ERROR_INVALID_PARAMETER});
}

} /* namespace */
} /* namespace offline */
