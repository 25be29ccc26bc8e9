/* SPDX-License-Identifier: GPL-2.0-or-later */
/* A volume whose files' records lie in another order than its tree, in an MFT of several pieces. */
#include <algorithm>
#include <map>

#include "tests/volume/images.h"

using namespace offline;
using images::ByteVector;
using images::descriptor;
using images::OpenVolume;

namespace {

constexpr size_t recordSize = 1024, window = 64 * 1024; /* bytes */
constexpr uint32_t attributeList = 0x20, dataAttribute = 0x80;

struct RecordOrder : images::ImageTest {
    std::string image;
    std::vector<FileRef> directories, files;
    size_t alone = 0; /* calls of the device */
    FileRef linked = 0, listed = 0, lost = 0, broken = 0;

    void SetUp() override {
        image = path("volume.img");
        images::makeNtfs(image, 8 * images::mebibyte);
        OpenVolume opened(image);
        for (char16_t i = 0; i < 12; ++i)
            directories.push_back(opened.makeDirectory({u'd', char16_t(u'a' + i)}));
        for (char16_t round = 0; round < 200;
             ++round) { /* what is written between keeps the MFT from growing on end */
            for (const FileRef parent : directories) {
                files.push_back(opened.make({u'f', char16_t(0x4E00 + round)}, descriptor(1), parent));
                if (round % 8 == 0) volumeWriteFile(opened, files.back(), 0, ByteVector(8000, 'x'));
            }
        }
        linked = files[100], listed = files[200], lost = files[300], broken = files[400];
        EXPECT_GE(volumeLink(opened, linked, directories[0], u"another name"), 0);
        for (char16_t i = 0; i < 12; ++i)
            EXPECT_GE(volumeLink(opened, listed, directories[i], std::u16string(100, char16_t(u'a' + i))), 0);
        EXPECT_EQ(opened.close(), STATUS_SUCCESS);
        ByteVector bytes = images::readFile(image);
        EXPECT_EQ(images::get<uint32_t>(bytes, place(bytes, listed) + 56 + 96), attributeList);
        bytes[place(bytes, lost) + 16] ^= 1;    /* the sequence number: the directory knows another */
        bytes[place(bytes, broken) + 510] ^= 1; /* the update sequence's place */
        images::writeFile(image, bytes);
    }
    /* The pieces of the MFT, in bytes. */
    static std::vector<std::pair<size_t, size_t>> pieces(const ByteVector& bytes) {
        const size_t cluster = bytes[0x0D] * 512u;
        const size_t attribute = images::attributeAt(bytes, 0, dataAttribute);
        std::vector<std::pair<size_t, size_t>> result;
        int64_t start = 0;
        for (size_t at = attribute + images::get<uint16_t>(bytes, attribute + 32); bytes[at] != 0;) {
            const size_t counts = bytes[at] & 15, offsets = bytes[at] >> 4;
            int64_t count = 0, step = 0;
            for (size_t i = counts; i > 0; --i) count = count << 8 | bytes[at + i];
            for (size_t i = offsets; i > 0; --i) step = step << 8 | bytes[at + counts + i];
            if ((bytes[at + counts + offsets] & 0x80) != 0) step -= int64_t{1} << (8 * offsets);
            start += step;
            result.emplace_back(static_cast<size_t>(start) * cluster, static_cast<size_t>(count) * cluster);
            at += 1 + counts + offsets;
        }
        return result;
    }
    static size_t place(const ByteVector& bytes, FileRef file) {
        size_t offset = (file & UINT32_MAX) * recordSize;
        for (const auto& [start, length] : pieces(bytes)) {
            if (offset < length) return start + offset;
            offset -= length;
        }
        ADD_FAILURE();
        return 0;
    }
    /* Where in the MFT a byte of the disk lies; SIZE_MAX when it does not. */
    static size_t inMft(const std::vector<std::pair<size_t, size_t>>& mft, uint64_t offset) {
        size_t before = 0;
        for (const auto& [start, length] : mft) {
            if (offset >= start && offset < start + length) return before + offset - start;
            before += length;
        }
        return SIZE_MAX;
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
    const ByteVector before = images::readFile(image);
    const auto mft = pieces(before);
    ASSERT_GE(mft.size(), 3u);
    size_t mftSize = 0;
    for (const auto& [start, length] : mft) mftSize += length;
    std::map<uint64_t, uint32_t> expected;
    images::failures.calls.clear();
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
        const size_t calls = images::failures.calls.size();
        ASSERT_EQ(opened.close(), STATUS_SUCCESS);
        size_t reads = 0, writes = 0, last = 0;
        for (size_t i = 0; i < images::failures.calls.size(); ++i) {
            const auto& call = images::failures.calls[i];
            const size_t at = inMft(mft, call.offset);
            if (at == SIZE_MAX || at < window) continue;
            (call.kind == 'r' ? reads : writes)++;
            if (call.kind != 'w' || i < calls || call.count <= recordSize) continue;
            EXPECT_GE(at, last);
            last = at;
        }
        /* Both passes, the pieces, and what was asked before the whole was read. */
        EXPECT_LT(reads, 3 * mftSize / window + 100);
        EXPECT_LT(writes, mftSize / window + mft.size() + 20);
    }
    OpenVolume opened(image, DiskAccess::readOnly);
    for (const auto& [file, number] : expected) EXPECT_EQ(opened.read(file), descriptor(number)) << file;
    EXPECT_EQ(expected.at(listed), 2000 + recordOf(listed) % 7);
    const ByteVector after = images::readFile(image);
    for (const FileRef file : {lost, broken})
        EXPECT_TRUE(std::equal(&before[place(before, file)], &before[place(before, file)] + recordSize,
                               &after[place(after, file)]));
    const std::string report = images::outputOf("ntfssecaudit -ar " + image);
    EXPECT_NE(report.find("All keys are present in all lists"), std::string::npos) << report;
}

/* What is refused at the end is told as any other change that failed, and stays to be written. */
TEST_F(RecordOrder, ARefusedWriteIsToldLater) {
    OpenVolume opened(image);
    walk(opened, [&](FileRef file) { ASSERT_GE(volumeSetDescriptor(opened, file, descriptor(5)), 0); });
    images::failures.writesLeft = 3;
    EXPECT_EQ(volumeFlush(opened), STATUS_IO_DEVICE_ERROR);
    EXPECT_EQ(volumeWriteReason(opened), " (Input/output error)");
    images::failures.writesLeft = Faults::never;
    walk(opened, [&](FileRef file) { EXPECT_EQ(opened.read(file), descriptor(5)); });
    EXPECT_EQ(volumeFlush(opened), STATUS_SUCCESS);
    EXPECT_EQ(opened.close(), STATUS_IO_DEVICE_ERROR);
    OpenVolume again(image, DiskAccess::readOnly);
    walk(again, [&](FileRef file) { EXPECT_EQ(again.read(file), descriptor(5)); });
}

/* Where a device answers several reads at once, directories are read before they are entered, and what is
 * seen is the same, also when that fails. */
TEST_F(RecordOrder, DirectoriesAreReadAhead) {
    for (const size_t atOnce : {1u, 8u}) {
        images::failures = {};
        images::failures.atOnce = atOnce;
        const OpenVolume opened(image, DiskAccess::readOnly);
        images::failures.calls.clear();
        DirectoryListing top;
        ASSERT_GE(volumeList(opened, rootDirectory, top), 0);
        size_t names = 0;
        const auto begun = images::failures.calls.size();
        for (const DirectoryEntry& entry : top.entries) {
            FileInfo info = {};
            DirectoryListing listing;
            ASSERT_GE(volumeEntryInfo(opened, rootDirectory, top, entry, info), 0);
            ASSERT_GE(volumeList(opened, entry.file, listing), 0);
            names += listing.entries.size();
        }
        EXPECT_EQ(names, files.size() + 13);
        size_t together = 0, calls = images::failures.calls.size() - begun;
        for (const auto& call : images::failures.calls) together += call.kind == 'a' ? 1 : 0;
        EXPECT_EQ(together, atOnce == 1 ? 0u : 4u);
        if (atOnce == 1) alone = calls;
        EXPECT_LE(calls, alone);
    }
}

} /* namespace */
