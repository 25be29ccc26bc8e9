/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Which files paths and patterns name, and what the calls tell of them. */
#include <set>

#include "tests/files/files_fixture.h"

namespace offline {
namespace {

using Names = std::multiset<std::u16string>;

struct CallsTest : FilesTest {
    WIN32_FIND_DATAW record = {};
    FileRef outer = 0, inner = 0, file = 0;

    void SetUp() override {
        FilesTest::SetUp();
        outer = volume->makeDirectory(u"Ä");
        inner = volume->makeDirectory(u"inner", outer);
        file = volume->make(u"one.TXT", images::descriptor(0), outer);
        for (const char16_t* name : {u"three", u"ÄÖ.txt", u"a.b.txt"})
            volume->make(name, images::descriptor(0), outer);
        const FileRef junction = volume->makeDirectory(u"junction", outer);
        ASSERT_GE(volumeCreateJunction(*volume, junction, u"C:\\Ä"), 0);
    }

    Names find(const char16_t* pattern) {
        HANDLE search = FindFirstFileW(pattern, &record);
        if (search == INVALID_HANDLE_VALUE) return {};
        Names names;
        do names.insert(record.cFileName);
        while (FindNextFileW(search, &record));
        EXPECT_TRUE(FindClose(search));
        return names;
    }
};

TEST_F(CallsTest, paths) {
    using namespace std::literals;
    const std::pair<std::u16string_view, int64_t> cases[] = {
        {u"\\\\?\\c:", rootDirectory},
        {u"\\\\?\\C:\\Ä\\one.TXT", file},
        {u"\\??\\c:\\ä\\One.txt", file},
        {u"c:/Ä\\\\inner/./../One.txt", file},
        {u"c:\\Ä.\\one.txt. .", file},
        {u"\\\\?\\c:\\ä\\inner\\", inner},
        {u"c:\\x\\..\\..\\..\\Ä\\inner\\../", outer},
        {u"c:file", STATUS_OBJECT_PATH_SYNTAX_BAD},
        {u"\\\\?\\c:/Ä", STATUS_OBJECT_PATH_SYNTAX_BAD},
        {u"\\\\?\\d:\\Ä", STATUS_OBJECT_PATH_NOT_FOUND},
        {u"\\\\?\\c:\\\\Ä", STATUS_OBJECT_NAME_INVALID},
        {u"\\\\?\\c:\\Ä\\..", STATUS_OBJECT_NAME_INVALID},
        {u"\\\\?\\c:\\Ä\0"sv, STATUS_OBJECT_NAME_INVALID},
        {u"\\\\?\\c:\\Ä\\one.TXT\\", STATUS_OBJECT_NAME_INVALID},
        {u"\\\\?\\c:\\Ä/inner", STATUS_OBJECT_NAME_NOT_FOUND},
        {u"\\\\?\\c:\\Ä\\one.TXT.", STATUS_OBJECT_NAME_NOT_FOUND},
        {u"\\\\?\\c:\\missing\\inner", STATUS_OBJECT_PATH_NOT_FOUND},
        {u"\\\\?\\c:\\Ä\\junction\\inner", STATUS_OBJECT_PATH_NOT_FOUND},
    };
    for (size_t i = 0; i < 2 * std::size(cases); i++) {  // each twice: the second time it may be remembered
        Volume* found = nullptr;
        FileRef reference = 0;
        const NTSTATUS status = driveFind(cases[i / 2].first, found, reference);
        EXPECT_EQ(status < 0 ? status : static_cast<int64_t>(reference), cases[i / 2].second) << i / 2;
    }
    std::u16string path = u"c:" + std::u16string(32765, u'\\');
    EXPECT_NE(GetFileAttributesW(path.c_str()), INVALID_FILE_ATTRIBUTES);
    path += u'\\';
    expectError(ERROR_FILENAME_EXCED_RANGE, GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES);
}

TEST_F(CallsTest, searches) {
    const Names all = {u".", u"..", u"one.TXT", u"three", u"ÄÖ.txt", u"a.b.txt", u"inner", u"junction"};
    EXPECT_EQ(find(u"\\\\?\\c:\\Ä\\*.*"), all);
    EXPECT_EQ(find(u"\\\\?\\c:\\*"), (Names{u"Ä"}));
    EXPECT_EQ(find(u"c:/ä/*.txt"), (Names{u"one.TXT", u"ÄÖ.txt", u"a.b.txt"}));
    EXPECT_EQ(find(u"c:\\Ä\\äö.*"), (Names{u"ÄÖ.txt"}));
    EXPECT_EQ(find(u"c:\\Ä\\t?r*.*"), (Names{u"three"}));
    EXPECT_EQ(find(u"c:\\Ä\\*b*t"), (Names{u"a.b.txt"}));
    EXPECT_EQ(find(u"c:\\Ä\\*e"), (Names{u"three"}));
    const std::pair<const char16_t*, LONG> failures[] = {
        {u"c:\\missing\\*.*", ERROR_PATH_NOT_FOUND}, {u"d:\\*.*", ERROR_PATH_NOT_FOUND},
        {u"c:\\Ä\\one.txt\\*", ERROR_DIRECTORY},     {u"c:\\Ä\\junction\\*", ERROR_PATH_NOT_FOUND},
        {u"c:\\Ä\\x*", ERROR_FILE_NOT_FOUND},        {u"c:\\Ä\\missing", ERROR_FILE_NOT_FOUND},
        {u"c:\\Ä\\inner\\", ERROR_FILE_NOT_FOUND},
    };
    for (const auto& [pattern, error] : failures) {
        expectError(error, FindFirstFileW(pattern, &record) == INVALID_HANDLE_VALUE);
    }

    ASSERT_GE(volumeWriteFile(*volume, file, 0, Image(70000, 1)), 0);
    ASSERT_GE(volumeSetAttributes(*volume, file, FILE_ATTRIBUTE_HIDDEN), 0);
    EXPECT_EQ(find(u"c:\\Ä\\inner\\..\\ONE.txt"), (Names{u"one.TXT"}));
    EXPECT_EQ(record.dwFileAttributes, FILE_ATTRIBUTE_HIDDEN);
    EXPECT_EQ(record.nFileSizeLow + record.nFileSizeHigh, 70000u);
    EXPECT_GT(record.ftCreationTime.dwHighDateTime, 0x01D00000u);
    EXPECT_EQ(find(u"c:\\Ä\\junction").size(), 1u);
    EXPECT_EQ(record.dwFileAttributes & 0x410u, FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT);
    EXPECT_EQ(record.dwReserved0, 0xA0000003u);
}

/* More searches than a walk has open, ended in an order that isn't theirs, the last by the volume's end. */
TEST_F(CallsTest, manySearches) {
    std::vector<HANDLE> searches;
    for (size_t i = 0; i < 300; i++) searches.push_back(FindFirstFileW(u"c:\\Ä\\*", &record));
    EXPECT_TRUE(FindNextFileW(searches[0], &record) && FindNextFileW(searches[0], &record));
    const std::u16string elsewhere = u"c:\\B\\" + std::u16string(record.cFileName);
    expectError(ERROR_PATH_NOT_FOUND, GetFileAttributesW(elsewhere.c_str()) == INVALID_FILE_ATTRIBUTES);
    for (size_t i = 0; i < 300; i = i == 298 ? 1 : i + 2) {
        size_t count = i == 0 ? 3 : 1;
        while (FindNextFileW(searches[i], &record)) count++;
        EXPECT_EQ(count, 8u);
        EXPECT_TRUE(FindClose(searches[i]));
        expectError(ERROR_INVALID_HANDLE, !FindClose(searches[i]));
    }
    HANDLE search = FindFirstFileW(u"c:\\Ä\\*", &record);
    unmount();
    expectError(ERROR_NO_MORE_FILES, !FindNextFileW(search, &record));
    expectError(ERROR_PATH_NOT_FOUND, GetFileAttributesW(u"c:\\Ä") == INVALID_FILE_ATTRIBUTES);
    EXPECT_TRUE(FindClose(search));
}

TEST_F(CallsTest, drivesAndVolumes) {
    for (const char16_t* root : {u"C:", u"c:\\", u"\\\\?\\C:\\"}) EXPECT_EQ(GetDriveTypeW(root), DRIVE_FIXED);
    images::writeFile(path("other"), ntfs());
    {
        images::OpenVolume other(path("other"));
        driveSet('D', other);
        EXPECT_NE(GetFileAttributesW(u"C:\\Ä"), INVALID_FILE_ATTRIBUTES);
        expectError(ERROR_FILE_NOT_FOUND, GetFileAttributesW(u"D:\\Ä") == INVALID_FILE_ATTRIBUTES);
    }
    unmount();
    mount(DiskAccess::readWrite);
    for (const char16_t* root : {u"D:\\", u"C", u"C:\\Ä"}) EXPECT_EQ(GetDriveTypeW(root), DRIVE_NO_ROOT_DIR);
    const auto open = [](const char16_t* path, DWORD access) {
        return CreateFileW(path, access, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    };
    expectError(ERROR_FILE_NOT_FOUND, open(u"\\\\.\\D:", GENERIC_WRITE) == INVALID_HANDLE_VALUE);
    expectError(ERROR_NOT_SUPPORTED, open(u"\\\\?\\C:\\Ä", GENERIC_WRITE) == INVALID_HANDLE_VALUE);
    HANDLE writing = open(u"\\\\.\\c:", GENERIC_READ | GENERIC_WRITE);
    HANDLE reading = open(u"\\\\?\\C:", GENERIC_READ);
    EXPECT_TRUE(FlushFileBuffers(writing));
    expectError(ERROR_ACCESS_DENIED, !FlushFileBuffers(reading));
    unmount();
    mount(DiskAccess::readOnly);
    expectError(ERROR_INVALID_HANDLE, !FlushFileBuffers(writing));
    EXPECT_TRUE(CloseHandle(writing) && CloseHandle(reading));
    expectError(ERROR_WRITE_PROTECT, open(u"\\\\?\\C:", GENERIC_WRITE) == INVALID_HANDLE_VALUE);
    expectError(ERROR_WRITE_PROTECT, !SetFileSecurityW(u"C:\\Ä", 15, images::descriptor(1).data()));
    EXPECT_TRUE(readDescriptor(u"C:\\Ä") == images::descriptor(1));
}

} /* namespace */
} /* namespace offline */
