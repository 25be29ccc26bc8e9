/* The walk over a whole volume, as a caller does it: by path, one file after the other. */
#include <cstring>
#include <fstream>
#include <map>

#include "tests/files/files_fixture.h"

namespace offline {
namespace {

template <class Visit>
void walk(std::u16string& path, DWORD attributes, const Visit& visit) {
    visit(path, readDescriptor(path));
    if ((attributes & FILE_ATTRIBUTE_DIRECTORY) == 0 || (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0)
        return;
    WIN32_FIND_DATAW record;
    HANDLE search = FindFirstFileW((path + u"\\*.*").c_str(), &record);
    ASSERT_NE(search, INVALID_HANDLE_VALUE) << GetLastError();
    const size_t length = path.size();
    do {
        const std::u16string name = record.cFileName;
        if (name == u"." || name == u"..") continue;
        path += u"\\" + name;
        walk(path, record.dwFileAttributes, visit);
        path.resize(length);
    } while (FindNextFileW(search, &record));
    expectError(ERROR_NO_MORE_FILES, FindClose(search));
}

struct WalkTest : FilesTest {
    std::u16string root = u"\\\\?\\c:";
    std::map<std::u16string, Bytes> expected;

    FileRef add(FileRef directory, const std::u16string& path, const std::u16string& name, NewFile kind) {
        const Bytes descriptor = numberedDescriptor(expected.size() % 7);
        expected[path + u"\\" + name] = descriptor;
        return make(directory, name, kind, descriptor);
    }

    void expectWalk() {
        std::map<std::u16string, Bytes> seen;
        walk(root, FILE_ATTRIBUTE_DIRECTORY, [&](const std::u16string& path, const Bytes& descriptor) {
            EXPECT_TRUE(seen.emplace(path, descriptor).second) << "seen twice";
        });
        EXPECT_EQ(seen.size(), expected.size());
        EXPECT_TRUE(seen == expected);
    }
};

/* Names that begin like others, a deep branch, names that are no Unicode, a junction that would lead back up,
 * and one file under two names. */
TEST_F(WalkTest, meetsAndSetsEveryName) {
    std::u16string path = root;
    FileRef directory = rootDirectory;
    expected[root] = readDescriptor(root);
    for (unsigned depth = 0; depth < 60; depth++) {
        add(directory, path, u"same", NewFile::file);
        add(directory, path, {u'x', 0xD800, u'y'}, NewFile::file);
        add(directory, path, {u'x', 0xDC00}, NewFile::directory);
        directory = add(directory, path, u"same dir Größe", NewFile::directory);
        path += u"\\same dir Größe";
    }
    const FileRef junction = add(directory, path, u"junction", NewFile::directory);
    ASSERT_GE(volumeMakeJunction(*volume, junction, u"C:\\same dir Größe"), 0);
    const FileRef linked = add(directory, path, u"linked", NewFile::file);
    ASSERT_GE(volumeLink(*volume, linked, rootDirectory, u"other name"), 0);
    Bytes& otherName = expected[root + u"\\other name"];
    Bytes& linkedName = expected[path + u"\\linked"];
    otherName = linkedName;
    expectWalk();
    for (const auto& [name, descriptor] : expected) EXPECT_TRUE(readDescriptor(name) == descriptor);

    walk(root, FILE_ATTRIBUTE_DIRECTORY, [&](const std::u16string& name, Bytes descriptor) {
        if (name.size() == 6 || name.ends_with(u"\\linked")) return;
        descriptor[20 + 8 + 4] ^= 0x40;  // a sub-authority of the owner
        descriptor[3] ^= SE_DACL_PROTECTED >> 8;
        EXPECT_TRUE(SetFileSecurityW(name.c_str(), 15, descriptor.data())) << GetLastError();
        EXPECT_TRUE(readDescriptor(name) == descriptor);
        expected[name] = descriptor;
    });
    linkedName = otherName;
    unmount();
    mount(DiskAccess::readOnly);
    expectWalk();
}

/* A directory's entry is made to name the directory itself. */
TEST_F(WalkTest, endsWhereADirectoryLiesBelowItself) {
    const FileRef outer = make(rootDirectory, u"outer", NewFile::directory);
    const FileRef inner = make(outer, u"inner", NewFile::directory);
    unmount();
    std::string bytes(16u << 20, 0);
    std::fstream file(image, std::ios::in | std::ios::out | std::ios::binary);
    file.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    const std::string_view entry(reinterpret_cast<const char*>(&inner), 8);
    size_t at =
        bytes.find(entry);  // its reference, 8 bytes of sizes, and the parent's at the head of the name
    while (at != bytes.npos && memcmp(&bytes[at + 16], &outer, 8) != 0) at = bytes.find(entry, at + 1);
    ASSERT_NE(at, bytes.npos);
    file.seekp(static_cast<std::streamoff>(at)).write(reinterpret_cast<const char*>(&outer), 8);
    file.close();

    mount(DiskAccess::readOnly);
    WIN32_FIND_DATAW record;
    HANDLE search = FindFirstFileW(u"\\\\?\\C:\\outer\\*.*", &record);
    HANDLE below = FindFirstFileW(u"\\\\?\\C:\\outer\\inner\\*.*", &record);
    expectError(ERROR_FILE_CORRUPT, search != INVALID_HANDLE_VALUE && below == INVALID_HANDLE_VALUE);
    EXPECT_TRUE(FindClose(search));
}

} /* namespace */
} /* namespace offline */
