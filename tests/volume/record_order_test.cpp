/* SPDX-License-Identifier: GPL-2.0-or-later */
/* A volume whose files' records lie in another order than its tree, in an MFT of several pieces. */
#include <algorithm>
#include <map>

#include "tests/volume/images.h"

namespace offline::images {
namespace {

constexpr size_t recordSize = 1024, window = 64 * 1024; /* bytes */
constexpr uint32_t recordMark = 0x454C4946 /* "FILE" */, attributeList = 0x20;

struct RecordOrder : FreshVolumeTest {
    ByteVector before;                /* the image */
    std::map<size_t, size_t> records; /* of the MFT: their numbers, by where they lie */
    std::vector<FileRef> directories, files;
    size_t alone = 0; /* calls of the device */
    FileRef listed = 0, lost = 0, broken = 0;

    void SetUp() override {
        makeNtfs(image, 8 * mebibyte);
        before = changed([&](OpenVolume& opened) { grow(opened); });
        for (size_t at = 0; at < before.size(); at += recordSize) {
            if (numberAt<uint32_t>(before, at) == recordMark)
                records[at] = numberAt<uint32_t>(before, at + 44);
        }
        EXPECT_EQ(numberAt<uint32_t>(before, place(listed) + 56 + 96), attributeList);
        before[place(lost) + 16] ^= 1;    /* the sequence number: the directory knows another */
        before[place(broken) + 510] ^= 1; /* the update sequence's place */
        writeFile(image, before);
    }
    void grow(OpenVolume& opened) {
        for (char16_t i = 0; i < 12; ++i)
            directories.push_back(opened.makeDirectory({u'd', char16_t(u'a' + i)}));
        for (char16_t round = 0; round < 200; ++round) {
            for (const FileRef parent : directories) { /* what is written keeps the MFT from growing on end */
                files.push_back(opened.make({u'f', char16_t(0x4E00 + round)}, descriptor(1), parent));
                if (round % 8 == 0) volumeWriteFile(opened, files.back(), 0, ByteVector(8000, 'x'));
            }
        }
        listed = files[200], lost = files[300], broken = files[400];
        EXPECT_GE(volumeLink(opened, files[100], directories[0], u"another name"), 0);
        for (char16_t i = 0; i < 12; ++i)
            EXPECT_GE(volumeLink(opened, listed, directories[i], std::u16string(100, char16_t(u'a' + i))), 0);
    }
    size_t place(FileRef file) const {
        for (const auto& [at, number] : records) {
            if (number == recordOf(file)) return at;
        }
        ADD_FAILURE();
        return 0;
    }
    /* Calls use for each entry below the directories. */
    template <class Use>
    void walk(Volume& volume, Use use) const {
        for (const FileRef parent : directories) {
            DirectoryListing listing;
            ASSERT_GE(volumeList(volume, parent, listing), 0);
            for (const DirectoryEntry& entry : listing.entries) {
                FileInfo info = {};
                const NTSTATUS status = volumeEntryInfo(volume, parent, listing, entry, info);
                const bool gone =
                    recordOf(entry.file) == recordOf(lost) || recordOf(entry.file) == recordOf(broken);
                EXPECT_EQ(status, gone ? STATUS_FILE_CORRUPT_ERROR : STATUS_SUCCESS);
                if (!gone) use(entry.file);
            }
        }
    }
    static uint64_t recordOf(FileRef file) { return file & UINT32_MAX; }
};

/* The whole of a run: every descriptor is read, set, read, set again and read; what can't be reached is told
 * of, once for each, and what lies on the disk afterwards is what was set last. */
TEST_F(RecordOrder, RecordsAreReadAndWrittenInTheOrderOfTheDisk) {
    const size_t mftSize = records.size() * recordSize;
    const auto pieces = static_cast<size_t>(std::ranges::count_if(
        records, [&](const auto& one) { return !records.contains(one.first - recordSize); }));
    ASSERT_GE(pieces, 4u); /* and one of them is the mirror */
    std::map<uint64_t, uint32_t> expected;
    failures.calls.clear();
    {
        OpenVolume opened(image);
        for (int pass = 0; pass < 2; ++pass) {
            walk(opened, [&](FileRef file) {
                for (const uint32_t number : {1000u, 2000u}) {
                    const uint32_t fresh = number + static_cast<uint32_t>(recordOf(file)) % 7;
                    ASSERT_EQ(volumeSetDescriptor(opened, file, descriptor(fresh)), STATUS_SUCCESS);
                    EXPECT_EQ(opened.read(file), descriptor(fresh));
                    expected[file] = fresh;
                }
            });
        }
        /* The library changes some of them in between. */
        ASSERT_EQ(volumeSetAttributes(opened, files[7], FILE_ATTRIBUTE_HIDDEN), STATUS_SUCCESS);
        ASSERT_EQ(volumeWriteFile(opened, files[8], 0, ByteVector(5000, 'y')), STATUS_SUCCESS);
        ASSERT_EQ(volumeLink(opened, files[9], directories[1], u"later"), STATUS_SUCCESS);
        for (const size_t i : {7u, 8u, 9u}) EXPECT_EQ(opened.read(files[i]), descriptor(expected[files[i]]));
        ASSERT_EQ(volumeSetDescriptor(opened, files[9], descriptor(77)), STATUS_SUCCESS);
        expected[files[9]] = 77;
        const size_t calls = failures.calls.size();
        ASSERT_EQ(opened.close(), STATUS_SUCCESS);
        size_t reads = 0, writes = 0, last = 0;
        for (size_t i = 0; i < failures.calls.size(); ++i) {
            const auto& call = failures.calls[i];
            const auto record = records.find(call.offset);
            if (record == records.end() || record->second * recordSize < window) continue;
            (call.kind == 'r' ? reads : writes)++;
            if (call.kind != 'w' || i < calls || call.count <= recordSize) continue;
            EXPECT_GE(record->second, last);
            last = record->second;
        }
        /* Both passes, the pieces, and what was asked before the whole was read. */
        EXPECT_LT(reads, 3 * mftSize / window + 100);
        EXPECT_LT(writes, mftSize / window + pieces + 20);
    }
    OpenVolume opened(image, DiskAccess::readOnly);
    for (const auto& [file, number] : expected) EXPECT_EQ(opened.read(file), descriptor(number)) << file;
    EXPECT_EQ(expected.at(listed), 2000 + recordOf(listed) % 7);
    const ByteVector after = readFile(image);
    for (const FileRef file : {lost, broken})
        EXPECT_TRUE(std::equal(&before[place(file)], &before[place(file)] + recordSize, &after[place(file)]));
    expectAudited();
}

/* Where a device answers several reads at once, directories are read before they are entered, and what is
 * seen is the same, also when that fails. */
TEST_F(RecordOrder, DirectoriesAreReadAhead) {
    for (const size_t atOnce : {1u, 8u}) {
        failures = {};
        failures.atOnce = atOnce;
        const OpenVolume opened(image, DiskAccess::readOnly);
        failures.calls.clear();
        DirectoryListing top;
        ASSERT_GE(volumeList(opened, rootDirectory, top), 0);
        size_t names = 0;
        const auto begun = failures.calls.size();
        for (const DirectoryEntry& entry : top.entries) {
            FileInfo info = {};
            DirectoryListing listing;
            ASSERT_GE(volumeEntryInfo(opened, rootDirectory, top, entry, info), 0);
            ASSERT_GE(volumeList(opened, entry.file, listing), 0);
            names += listing.entries.size();
        }
        EXPECT_EQ(names, files.size() + 13);
        size_t together = 0, calls = failures.calls.size() - begun;
        for (const auto& call : failures.calls) together += call.kind == 'a' ? 1 : 0;
        EXPECT_EQ(together, atOnce == 1 ? 0u : 4u);
        if (atOnce == 1) alone = calls;
        EXPECT_LE(calls, alone);
    }
}

} /* namespace */
} /* namespace offline::images */
