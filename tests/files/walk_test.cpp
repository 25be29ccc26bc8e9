/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The walk over a whole volume, as a caller does it: by path, one file after the other. */
#include "tests/files/files_fixture.h"

namespace offline {
namespace {

/* What a walk met: entries, and directories that could not be entered. */
struct Met {
    size_t seen = 0, refused = 0;
};

void walk(std::u16string& path, DWORD attributes, Met& met) {
    met.seen++;
    readDescriptor(path);
    if ((attributes & FILE_ATTRIBUTE_DIRECTORY) == 0 || (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0)
        return;
    WIN32_FIND_DATAW record;
    FindClose(FindFirstFileW((path + u"\\*.*").c_str(), &record)); /* the same entry, once before */
    HANDLE search = FindFirstFileW((path + u"\\*.*").c_str(), &record);
    if (search == INVALID_HANDLE_VALUE) {
        met.refused++;
        return;
    }
    const size_t length = path.size();
    do {
        const std::u16string name = record.cFileName;
        if (name == u"." || name == u"..") continue;
        path += u"\\" + name;
        walk(path, record.dwFileAttributes, met);
        path.resize(length);
    } while (FindNextFileW(search, &record));
    expectError(ERROR_NO_MORE_FILES, FindClose(search));
}

/* Where the entry of a directory lies that names a file: its reference, 8 bytes of sizes, and the parent's
 * record at the head of the name. */
size_t entryPlace(const Image& bytes, FileRef named, FileRef folder) {
    constexpr uint64_t record = 0xFFFFFFFFFFFF;
    for (size_t at = 0; at + 24 <= bytes.size(); at += 8) {
        if (loadNumber<FileRef>(&bytes[at]) == named &&
            ((loadNumber<FileRef>(&bytes[at + 16]) ^ folder) & record) == 0)
            return at;
    }
    ADD_FAILURE() << named;
    return 0;
}

using WalkTest = FilesTest;

/* Damage by which a file is out of reach, though nothing that is met has anything wrong with it; and what
 * looks like such and is none. */
TEST_F(WalkTest, tellsOfWhatItCannotReach) {
    const FileRef parent = volume->makeDirectory(u"directory");
    const FileRef below = volume->makeDirectory(u"below", parent);
    const FileRef file = volume->make(u"file", images::descriptor(1), parent);
    const FileRef same = volume->make(u"other", images::descriptor(1), parent);
    const FileRef far = volume->make(u"file");
    const FileRef linked = volume->make(u"linked", images::descriptor(1), below);
    ASSERT_GE(volumeLink(*volume, linked, below, u"link"), 0);
    const FileRef large = volume->makeDirectory(u"large");
    const FileRef within = volume->fill(large, 200);
    unmount();
    const Image sound = images::readFile(image);
    constexpr size_t all = 9 + 200, some = SIZE_MAX; /* places that the walk meets */
    constexpr FileRef secureFile = 9 | 9ULL << 48;
    const size_t belowEntry = entryPlace(sound, below, parent), fileEntry = entryPlace(sound, file, parent);
    const size_t name = fileEntry + 16, linkName = entryPlace(sound, linked, below) + 16;
    const size_t block = entryPlace(sound, within, large) / 4096 * 4096;
    const size_t blocksInUse = images::valueAt(sound, large, 0xB0);
    const size_t attributes = images::valueAt(sound, parent, 0x10) + 32;
    const size_t sectorEnd = images::recordAt(sound, below) + 510;
    struct Damage {
        const char* what;
        size_t at = 0;       /* bytes */
        FileRef leadsTo = 0; /* the entry there; otherwise a byte is changed: */
        uint8_t bits = 0;
        size_t seen = all;
        FileRef told = 0;   /* the record that is damaged; 0: none is */
        size_t refused = 0; /* directories that can't be entered */
    };
    const Damage damages[] = {
        {.what = "nothing"},
        {.what = "to a file", .at = belowEntry, .leadsTo = file, .seen = all - 2, .told = file},
        {.what = "up", .at = belowEntry, .leadsTo = parent, .seen = all - 2, .told = parent, .refused = 1},
        {.what = "to a directory", .at = fileEntry, .leadsTo = below, .told = below, .refused = 1},
        {.what = "to a file of another name", .at = fileEntry, .leadsTo = same, .told = same},
        {.what = "to a file of another directory", .at = fileEntry, .leadsTo = far, .told = far},
        {.what = "to metadata", .at = fileEntry, .leadsTo = secureFile, .seen = all - 1, .told = parent},
        {.what = "a terminator in a name", .at = name + 66, .bits = 'f', .seen = all - 1, .told = file},
        {.what = "an entry without a name", .at = name + 64, .bits = 4, .seen = all - 1, .told = parent},
        {.what = "to a block, where there is none below", .at = fileEntry + 12, .bits = 1, .told = parent},
        {.what = "a short name without a long one", .at = name + 65, .bits = 2},
        {.what = "a short name beside a long one", .at = linkName + 65, .bits = 2, .seen = all - 1},
        {.what = "a reparse point without data", .at = attributes + 1, .bits = 0x04},
        {.what = "a block without an update sequence", .at = block + 6, .bits = 1, .told = large},
        {.what = "blocks in use, but free", .at = blocksInUse, .bits = 1, .seen = some, .told = large},
        {.what = "an unreadable record",
         .at = sectorEnd,
         .bits = 1,
         .seen = all - 2,
         .told = below,
         .refused = 1},
    };
    for (const Damage& damage : damages) {
        Image bytes = sound;
        if (damage.leadsTo != 0) images::put(bytes, damage.at, damage.leadsTo);
        bytes[damage.at] ^= damage.bits;
        images::writeFile(image, bytes);
        mount(DiskAccess::readOnly);
        std::u16string root = u"\\\\?\\c:";
        Met met;
        walk(root, FILE_ATTRIBUTE_DIRECTORY, met);
        EXPECT_TRUE(damage.seen == some ? met.seen < all : met.seen == damage.seen)
            << damage.what << " " << met.seen;
        const DiskTrouble& trouble = diskTrouble(*volume->disk);
        EXPECT_EQ(trouble.damaged != 0, damage.told != 0) << damage.what;
        EXPECT_EQ(trouble.damagedRecord, damage.told & UINT32_MAX) << damage.what;
        EXPECT_EQ(met.refused, damage.refused) << damage.what;
        unmount();
    }
}

} /* namespace */
} /* namespace offline */
