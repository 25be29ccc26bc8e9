/* Descriptors by path: parts, sizes, and what they let an administrator's token do. */
#include "tests/files/files_fixture.h"

namespace offline {
namespace {

constexpr ACCESS_MASK everything = 0x1F01FF;
const std::string someone = "S-1-5-21-7-7-7-1001";

struct AccessTest : FilesTest {
    std::u16string path = u"\\\\?\\c:\\dir\\file";

    void fill(const ByteVector& directory, const ByteVector& file) {
        make(make(rootDirectory, u"dir", NewFile::directory, directory), u"file", NewFile::file, file);
    }
};

TEST_F(AccessTest, partsAndSizes) {
    const ByteVector stored = makeDescriptor(someone, everything, "S-1-1-0", SE_DACL_PROTECTED);
    fill(stored, stored);
    ByteVector buffer(stored.size());
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
    const ByteVector owner = readDescriptor(path, OWNER_SECURITY_INFORMATION);
    EXPECT_LT(owner.size(), stored.size());
    ByteVector other = makeDescriptor("S-1-5-32-544", 1, someone, SE_DACL_AUTO_INHERIT_REQ);
    EXPECT_TRUE(SetFileSecurityW(path.c_str(), DACL_SECURITY_INFORMATION, other.data()));
    EXPECT_EQ(readDescriptor(path, OWNER_SECURITY_INFORMATION), owner);
    EXPECT_TRUE(SetFileSecurityW(path.c_str(), 15, other.data()));
    other[3] &= 0xFE;
    EXPECT_EQ(readDescriptor(path), other);

    ByteVector broken = other;
    broken[20] = 9;  // the revision of the owner
    expectError(ERROR_INVALID_SECURITY_DESCR, !SetFileSecurityW(path.c_str(), 15, broken.data()));
    EXPECT_EQ(readDescriptor(path), other);
    setAccessMode(AccessMode::unrefused);
    expectError(ERROR_PRIVILEGE_NOT_HELD, !get(size));
}

TEST_F(AccessTest, refusesAndIsSeized) {
    const ByteVector closed = makeDescriptor(someone, everything, someone);
    fill(closed, closed);
    setAccessMode(AccessMode::checked);
    enablePrivilege(securityPrivilege);
    WIN32_FIND_DATAW record;
    const auto list = [&] { return FindFirstFileW(u"\\\\?\\c:\\dir\\*.*", &record); };
    expectError(ERROR_ACCESS_DENIED, readDescriptor(path).empty());
    expectError(ERROR_ACCESS_DENIED, !SetFileSecurityW(path.c_str(), 4, numberedDescriptor(1).data()));
    expectError(ERROR_ACCESS_DENIED, list() == INVALID_HANDLE_VALUE);
    expectError(ERROR_ACCESS_DENIED, GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES);

    /* Listing and attributes, but not descriptors, are open to who backs up. */
    enablePrivilege(backupPrivilege);
    EXPECT_NE(GetFileAttributesW(path.c_str()), INVALID_FILE_ATTRIBUTES);
    EXPECT_TRUE(FindClose(list()));
    expectError(ERROR_ACCESS_DENIED, readDescriptor(path).empty());
    enablePrivilege(backupPrivilege, 0);

    /* The road back: take ownership, then put a list that refuses nothing. */
    ByteVector owner = sidFromText("S-1-5-32-544");
    const auto seize = [&](std::u16string file, SECURITY_INFORMATION information) {
        return SetNamedSecurityInfoW(file.data(), SE_FILE_OBJECT, information, owner.data(), nullptr, nullptr,
                                     nullptr);
    };
    EXPECT_EQ(seize(path, OWNER_SECURITY_INFORMATION), DWORD{ERROR_ACCESS_DENIED});
    enablePrivilege(takeOwnershipPrivilege);
    for (const std::u16string& file : {std::u16string(u"\\\\?\\c:\\dir"), path}) {
        EXPECT_EQ(seize(file, OWNER_SECURITY_INFORMATION), 0u);
        EXPECT_EQ(seize(file, DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION), 0u);
        EXPECT_NE(GetFileAttributesW(path.c_str()), INVALID_FILE_ATTRIBUTES)
            << "through the directory, then the file";
    }
    const ByteVector seized = readDescriptor(path);
    ASSERT_GE(seized.size(), 20u);
    EXPECT_EQ(seized[2] & SE_DACL_PRESENT, SE_DACL_PRESENT);
    EXPECT_EQ(seized[3] & SE_DACL_PROTECTED >> 8, SE_DACL_PROTECTED >> 8);
    EXPECT_EQ(ByteVector(seized.begin() + 16, seized.begin() + 20), ByteVector(4)) << "a null list";
    EXPECT_TRUE(FindClose(list()));
    EXPECT_EQ(seize(path, GROUP_SECURITY_INFORMATION), DWORD{ERROR_INVALID_PARAMETER});
}

} /* namespace */
} /* namespace offline */
