/* The walk over a whole volume, as a caller does it: by path, one file after the other. */
#include <array>
#include <cstring>
#include <fstream>
#include <map>

#include "platform/offline/base/unicode.h"
#include "tests/files/files_fixture.h"

namespace offline {
namespace {

void neverRefused(const std::u16string& path) {
    ADD_FAILURE() << toUtf8(path) << ": " << GetLastError();
}

template <class Visit, class Refused = decltype(&neverRefused)>
void walk(std::u16string& path, DWORD attributes, const Visit& visit,
          const Refused& refused = &neverRefused) {
    visit(path, readDescriptor(path));
    if ((attributes & FILE_ATTRIBUTE_DIRECTORY) == 0 || (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0)
        return;
    WIN32_FIND_DATAW record;
    HANDLE search = FindFirstFileW((path + u"\\*.*").c_str(), &record);
    if (search == INVALID_HANDLE_VALUE) return refused(path);
    const size_t length = path.size();
    do {
        const std::u16string name = record.cFileName;
        if (name == u"." || name == u"..") continue;
        path += u"\\" + name;
        walk(path, record.dwFileAttributes, visit, refused);
        path.resize(length);
    } while (FindNextFileW(search, &record));
    expectError(ERROR_NO_MORE_FILES, FindClose(search));
}

struct WalkTest : FilesTest {
    std::u16string root = u"\\\\?\\c:";
    std::map<std::u16string, ByteVector> expected;

    FileRef add(FileRef directory, const std::u16string& path, const std::u16string& name, NewFile kind) {
        const ByteVector descriptor = numberedDescriptor(expected.size() % 7);
        expected[path + u"\\" + name] = descriptor;
        return make(directory, name, kind, descriptor);
    }

    std::string readImage() const {
        std::string bytes(16u << 20, 0);
        std::ifstream(image, std::ios::binary).read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        return bytes;
    }
    void writeImage(size_t at, std::string_view bytes) const {
        std::fstream file(image, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(static_cast<std::streamoff>(at))
            .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    }

    /* Where an attribute of the file lies in the image, which is as the library makes one. */
    static size_t attributePlace(const std::string& bytes, FileRef file, uint32_t type) {
        const auto number = [&](size_t at) {
            uint32_t value;
            memcpy(&value, &bytes[at], sizeof value);
            return value;
        };
        size_t at = number(0x30) * size_t{4096} + (file & UINT32_MAX) * 1024;
        at += number(at + 20) & UINT16_MAX;
        while (number(at) < type) at += number(at + 4);
        EXPECT_EQ(number(at), type);
        return at;
    }

    /* Where the entry of a directory lies that names a file. */
    static size_t entryPlace(const std::string& bytes, FileRef named, FileRef directory) {
        const std::string_view entry(reinterpret_cast<const char*>(&named), 8);
        /* its reference, 8 bytes of sizes, and the parent's record at the head of the name */
        size_t at = bytes.find(entry);
        while (at != bytes.npos && memcmp(&bytes[at + 16], &directory, 6) != 0)
            at = bytes.find(entry, at + 1);
        EXPECT_NE(at, bytes.npos);
        return at;
    }

    /* Makes the entry of a directory that names a file name another. */
    void renameEntry(FileRef named, FileRef other, FileRef directory) const {
        writeImage(entryPlace(readImage(), named, directory), {reinterpret_cast<const char*>(&other), 8});
    }

    void expectWalk() {
        std::map<std::u16string, ByteVector> seen;
        walk(root, FILE_ATTRIBUTE_DIRECTORY, [&](const std::u16string& path, const ByteVector& descriptor) {
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
    ASSERT_GE(volumeCreateJunction(*volume, junction, u"C:\\same dir Größe"), 0);
    const FileRef linked = add(directory, path, u"linked", NewFile::file);
    ASSERT_GE(volumeLink(*volume, linked, rootDirectory, u"other name"), 0);
    ByteVector& otherName = expected[root + u"\\other name"];
    ByteVector& linkedName = expected[path + u"\\linked"];
    otherName = linkedName;
    expectWalk();
    for (const auto& [name, descriptor] : expected) EXPECT_TRUE(readDescriptor(name) == descriptor);

    walk(root, FILE_ATTRIBUTE_DIRECTORY, [&](const std::u16string& name, ByteVector descriptor) {
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

/* Each of 14 directories, one below the other, has two entries that lead to the next, and the last one's lead
 * back to the first: a walk that followed all would see 16,000 and then begin anew. */
TEST_F(WalkTest, entersADirectoryOnce) {
    constexpr size_t levels = 14;
    FileRef parent = rootDirectory;
    std::vector<std::array<FileRef, 3>> entries; /* what the entry names, what it is to name, its directory */
    for (size_t level = 0; level < levels; level++) {
        const FileRef next = make(parent, u"a", NewFile::directory);
        entries.push_back({make(parent, u"b", NewFile::directory), next, parent});
        parent = next;
    }
    entries.push_back({make(parent, u"up", NewFile::directory), entries[0][1], parent});
    unmount();
    for (const auto& [named, other, in] : entries) renameEntry(named, other, in);

    mount(DiskAccess::readOnly);
    for (int turn = 0; turn < 2; turn++) {
        size_t seen = 0, refused = 0;
        walk(
            root, FILE_ATTRIBUTE_DIRECTORY, [&](const std::u16string&, const ByteVector&) { seen++; },
            [&](const std::u16string&) {
                refused++;
                EXPECT_EQ(GetLastError(), DWORD{ERROR_FILE_CORRUPT});
            });
        EXPECT_EQ(seen, 2 * levels + 2);
        EXPECT_EQ(refused, levels + 1);
    }
    Problem problem;
    EXPECT_EQ(diskReadWhole(*disk, problem), STATUS_DISK_CORRUPT_ERROR);

    /* Who names a directory himself is let in, below a walk too, and as often as he likes. */
    WIN32_FIND_DATAW record;
    HANDLE above = FindFirstFileW(u"\\\\?\\C:\\*.*", &record);
    for (const char16_t* path : {u"C:\\a\\a\\*", u"C:\\b\\a\\*", u"C:\\A\\B\\*", u"C:\\a\\a\\*"}) {
        HANDLE search = FindFirstFileW(path, &record);
        ASSERT_NE(search, INVALID_HANDLE_VALUE) << GetLastError();
        EXPECT_TRUE(FindClose(search));
    }
    EXPECT_TRUE(FindClose(above));
}

/* Damage by which a file is out of reach, though nothing that is met has anything wrong with it; and what
 * looks like such and is none. */
TEST_F(WalkTest, tellsOfWhatItCannotReach) {
    const FileRef directory = make(rootDirectory, u"directory", NewFile::directory);
    const FileRef below = make(directory, u"below", NewFile::directory);
    const FileRef file = make(directory, u"file", NewFile::file);
    const FileRef same = make(directory, u"other", NewFile::file);
    const FileRef far = make(rootDirectory, u"file", NewFile::file);
    const FileRef linked = make(below, u"linked", NewFile::file);
    ASSERT_GE(volumeLink(*volume, linked, directory, u"link"), 0);
    const FileRef large = make(rootDirectory, u"large", NewFile::directory);
    constexpr unsigned many = 200;
    FileRef within = 0;
    for (unsigned i = 0; i < many; i++) {
        within = make(large, u"a rather long name of a file " + std::u16string(1, char16_t(0x4E00 + i)),
                      NewFile::file);
    }
    unmount();
    const std::string sound = readImage();
    constexpr size_t all = 9 + many, none = 0,
                     entryBlock = 4096; /* bytes: in the block that an entry lies in */
    struct Damage {
        const char* what;
        FileRef entry, leadsTo, in; /* an entry that leads elsewhere, or of which a byte is changed; or: */
        FileRef changed;            /* a record of which one is */
        uint32_t attribute;
        size_t at, seen; /* places that the walk meets */
        char bits;
        FileRef told; /* the record that is damaged; 0: none is */
    };
    // clang-format off
    const Damage damages[] = {
        {"nothing", none, none, none, none, 0, 0, all, 0, 0},
        {"a directory's entry leads to a file", below, file, directory, none, 0, 0, all - 1, 0, file},
        {"a file's entry leads to a directory", file, below, directory, none, 0, 0, all, 0, below},
        {"an entry leads to a file of another name", file, same, directory, none, 0, 0, all, 0, same},
        {"an entry leads to a file of another directory", file, far, directory, none, 0, 0, all, 0, far},
        {"an entry leads to the volume's own metadata", file, 9 | 9ULL << 48, directory, none, 0, 0, all - 1, 0, directory},
        {"a name that begins with a terminator", file, none, directory, none, 0, 16 + 66, all - 1, 'f', file},
        {"an entry without a name", file, none, directory, none, 0, 16 + 64, all - 1, 4, directory},
        {"an entry that leads to a block, where there is none below", file, none, directory, none, 0, 12, all, 1, directory},
        {"a short name without a long one", file, none, directory, none, 0, 16 + 65, all, 2, 0},
        {"a reparse point without data", none, none, none, directory, 0x10, 24 + 33, all, 0x04, 0},
        {"a block without an update sequence", within, none, large, none, 0, entryBlock + 6, all, 1, large},
        {"blocks that are in use but free by the bitmap", none, none, none, large, 0xB0, 24 + 8, 0, 0x01, large},
    };
    // clang-format on
    for (const Damage& damage : damages) {
        writeImage(0, sound);
        if (damage.leadsTo != 0) {
            renameEntry(damage.entry, damage.leadsTo, damage.in);
        } else if (damage.entry != 0 || damage.changed != 0) {
            size_t at = damage.entry != 0 ? entryPlace(sound, damage.entry, damage.in)
                                          : attributePlace(sound, damage.changed, damage.attribute);
            if (damage.at >= entryBlock) at = at / entryBlock * entryBlock - entryBlock;
            at += damage.at;
            writeImage(at, std::string(1, static_cast<char>(sound[at] ^ damage.bits)));
        }
        mount(DiskAccess::readOnly);
        size_t seen = 0;
        walk(
            root, FILE_ATTRIBUTE_DIRECTORY, [&](const std::u16string&, const ByteVector&) { seen++; },
            [](const std::u16string&) {});
        EXPECT_EQ(damage.seen != 0 ? seen : std::min(seen, all - 1), damage.seen != 0 ? damage.seen : seen)
            << damage.what;
        EXPECT_EQ(diskTrouble(*disk).damaged != 0, damage.told != 0) << damage.what;
        EXPECT_EQ(diskTrouble(*disk).damagedRecord, damage.told & UINT32_MAX) << damage.what;
        unmount();
    }
}

} /* namespace */
} /* namespace offline */
