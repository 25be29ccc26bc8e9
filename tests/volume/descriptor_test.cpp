/* SPDX-License-Identifier: GPL-2.0-or-later */
#include <algorithm>
#include <functional>

#include "tests/support/scarce_memory.h"
#include "tests/volume/images.h"

namespace offline::images {
namespace {

struct DescriptorTest : FreshVolumeTest {
    /* As another program sees it; with this many descriptors beside the two of a fresh volume. */
    void expectSound(size_t stored) const {
        expectAudited({"No errors were found", std::to_string(stored + 2) + " valid entries in $SII"});
    }
};

/* Of many entries, and 36 bytes for each. */
ByteVector largeDescriptor(uint32_t number, uint16_t entries) {
    ByteVector large = descriptor(number);
    for (size_t i = 1; i < entries; ++i) large.insert(large.end(), large.begin() + 72, large.begin() + 108);
    put<uint16_t>(large, 66, static_cast<uint16_t>(8 + entries * 36));
    put<uint16_t>(large, 68, entries);
    return large;
}

/* Each is set on three files, in two openings. Several large ones fill more than a block of the stream, so
 * that one would cross into a copy. */
TEST_F(DescriptorTest, EveryValidOneIsKeptByteForByteAndShared) {
    std::vector<ByteVector> usual = {descriptor(500)};
    for (int control : {0x9C04, 0x8404, 0x8C14, 0x8004, 0x8804})
        usual.push_back(descriptor(600, static_cast<uint16_t>(control)));
    usual.push_back(descriptor(700)); /* an entry of a kind that the library knows nothing of */
    usual.back()[72] = 9;
    usual.push_back(descriptor(800, SE_SELF_RELATIVE)); /* no list */
    put<uint32_t>(usual.back(), 16, 0);
    usual.back().resize(64);
    for (uint32_t number = 900; number < 906; ++number) usual.push_back(largeDescriptor(number, 1600));
    usual.push_back(descriptor(950)); /* bytes after the last part */
    usual.back().resize(usual.back().size() + 8, 0x5A);

    /* What the platform takes and libntfs-3g refuses; and two of one hash. */
    const std::function<void(ByteVector&)> bends[] = {
        [](ByteVector& bytes) { put<uint32_t>(bytes, 4, 0); },                /* no owner */
        [](ByteVector& bytes) { put<uint32_t>(bytes, 8, 0); },                /* no group */
        [](ByteVector& bytes) { bytes[64] = 3; },                             /* revision of the list */
        [](ByteVector& bytes) { put<uint16_t>(bytes, 2, SE_SELF_RELATIVE); }, /* the list's present bit */
        [](ByteVector& bytes) { bytes[81] = 4; }, /* bytes after the SID of an entry */
        [](ByteVector& bytes) { bytes[49] = 0; }, /* a group without sub-authorities */
        [](ByteVector& bytes) { put<uint64_t>(bytes, 32, 0x1001 | (0x2000ULL - 8) << 32); },
        [](ByteVector& bytes) { put<uint64_t>(bytes, 32, 0x1000 | 0x2000ULL << 32); },
    };
    std::vector<ByteVector> unusual;
    for (uint32_t i = 0; i < 16; ++i) {
        const size_t bend = i % std::size(bends);
        unusual.push_back(descriptor(bend == 6 || bend == 7 ? 1000 : 1000 + i));
        bends[bend](unusual.back());
    }

    std::vector<std::pair<FileRef, ByteVector>> files;
    for (const std::vector<ByteVector>& shapes : {usual, unusual}) {
        OpenVolume opened(image);
        FileInfo before = {}, after = {};
        for (size_t i = 0; i < 3 * shapes.size(); ++i) {
            const ByteVector& shape = shapes[i % shapes.size()];
            const FileRef file = opened.make({char16_t(0x4E00 + files.size())});
            ASSERT_EQ(volumeFileInfo(opened, file, before), STATUS_SUCCESS);
            ASSERT_EQ(volumeSetDescriptor(opened, file, shape), STATUS_SUCCESS) << i;
            EXPECT_EQ(opened.read(file), shape) << i;
            ASSERT_EQ(volumeFileInfo(opened, file, after), STATUS_SUCCESS);
            EXPECT_EQ(before.lastWritten, after.lastWritten);
            EXPECT_EQ(before.created, after.created);
            files.emplace_back(file, shape);
        }
        ASSERT_EQ(opened.close(), STATUS_SUCCESS);
        if (files.size() == 3 * usual.size()) expectSound(1 + usual.size());
    }
    /* Opening goes through both indexes and holds them against the stream. */
    OpenVolume opened(image);
    ASSERT_NE(opened.volume, nullptr) << opened.problem.text;
    for (const auto& [file, bytes] : files) EXPECT_EQ(opened.read(file), bytes);
}

/* More than is remembered, less than what is kept of the stream: what waits to be written is found
 * there. */
TEST_F(DescriptorTest, OneIsFoundBeforeItIsWritten) {
    constexpr uint32_t there = 2950; /* of 1368 bytes */
    image = path("large.img");
    makeNtfs(image, 24 * mebibyte);
    FileRef first = 0, second = 0;
    changed([&](OpenVolume& opened) {
        first = opened.make(u"first"), second = opened.make(u"second");
        for (uint32_t i = 0; i < there; ++i)
            ASSERT_EQ(volumeSetDescriptor(opened, second, largeDescriptor(i, 36)), STATUS_SUCCESS);
    });
    OpenVolume opened(image);
    const ByteVector fresh = largeDescriptor(there, 36);
    EXPECT_EQ(opened.read(second), largeDescriptor(there - 1, 36));
    ASSERT_EQ(volumeSetDescriptor(opened, first, fresh), STATUS_SUCCESS);
    for (uint32_t i = 0; i < there; ++i)
        ASSERT_EQ(volumeSetDescriptor(opened, second, largeDescriptor(i, 36)), STATUS_SUCCESS);
    EXPECT_EQ(opened.read(first), fresh);
    ASSERT_EQ(volumeSetDescriptor(opened, second, fresh), STATUS_SUCCESS);
    ASSERT_EQ(opened.close(), STATUS_SUCCESS);
    expectSound(1 + there + 1);
}

/* While one is stored nothing of it stays, and the next does not overwrite it. What is missing when all are
 * written counts as a failed change, and is completed. */
TEST_F(DescriptorTest, MemoryMayRunOutAtEachStep) {
    OpenVolume opened(image);
    const FileRef file = opened.make(u"file");
    NTSTATUS status = STATUS_NO_MEMORY;
    for (uint32_t i = 0; status == STATUS_NO_MEMORY; ++i) {
        const ByteVector bytes = descriptor(3000 + i), next = descriptor(5000 + i);
        allocationsLeft = i;
        status = volumeSetDescriptor(opened, file, bytes);
        allocationsLeft = -1;
        ASSERT_EQ(volumeSetDescriptor(opened, file, next), STATUS_SUCCESS) << i;
    }
    EXPECT_EQ(status, STATUS_SUCCESS);
    uint32_t failed = 0;
    for (uint32_t number = 10'000; number < 10'300; ++number)
        ASSERT_EQ(volumeSetDescriptor(opened, file, descriptor(number)), STATUS_SUCCESS);
    for (long allocations = 0;; allocations += 1 + allocations / 8) {
        allocationsLeft = allocations;
        status = volumeFlush(opened);
        allocationsLeft = -1;
        if (status >= 0) break;
        ASSERT_EQ(status, STATUS_NO_MEMORY) << allocations;
        ++failed;
    }
    EXPECT_GT(failed, 20u);
    EXPECT_EQ(opened.read(file), descriptor(10'299));
    ASSERT_EQ(volumeSetDescriptor(opened, file, descriptor(20'000)), STATUS_SUCCESS); /* into the new index */
    EXPECT_EQ(opened.close(), STATUS_NO_MEMORY);
    expectAudited({"No errors were found"});
}

/* mkntfs gives the root an attribute of its own; other metadata is left alone, and so is what is none. */
TEST_F(DescriptorTest, TheRootAndTheMetadata) {
    OpenVolume opened(image);
    EXPECT_GT(opened.read(rootDirectory).size(), 4096u);
    for (uint32_t number : {42u, 43u, 42u}) {
        ASSERT_EQ(volumeSetDescriptor(opened, rootDirectory, descriptor(number)), STATUS_SUCCESS);
        EXPECT_EQ(opened.read(rootDirectory), descriptor(number));
    }
    for (FileRef metadata : std::initializer_list<FileRef>{0, 3, 9, 11, 23})
        EXPECT_EQ(volumeSetDescriptor(opened, metadata, descriptor(42)), STATUS_ACCESS_DENIED);
    ByteVector bad = descriptor(42);
    put<uint16_t>(bad, 68, 2); /* one entry too many */
    FileRef made = 0;
    EXPECT_EQ(volumeSetDescriptor(opened, rootDirectory, bad), STATUS_INVALID_SECURITY_DESCR);
    EXPECT_EQ(volumeCreate(opened, rootDirectory, u"new", NewFile::file, bad, made),
              STATUS_INVALID_SECURITY_DESCR);
    EXPECT_EQ(volumeFind(opened, u"new", made), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(opened.read(rootDirectory), descriptor(42));
    EXPECT_EQ(opened.close(), STATUS_SUCCESS);
    expectSound(2);
}

/* Each descriptor is there twice; the second serves when the first is damaged, but never one of another id.
 * Where both are gone, none is made up, and a new one can be given all the same. */
TEST_F(DescriptorTest, TheSecondCopyServesAndNoneIsInvented) {
    FileRef file = 0, dangling = 0, without = 0;
    ByteVector sound = changed([&](OpenVolume& opened) {
        file = opened.make(u"file", descriptor(3));
        dangling = opened.make(u"dangling", descriptor(2));
        without = opened.make(u"without", descriptor(2));
    });
    const ByteVector stored = descriptor(3);
    constexpr size_t securityId = 52; /* in the standard information */
    put<uint32_t>(sound, valueAt(sound, dangling, 0x10) + securityId, 0x7777);
    put<uint32_t>(sound, valueAt(sound, without, 0x10) + securityId, 0);
    const auto first = std::search(sound.begin(), sound.end(), stored.begin(), stored.end());
    const auto second = std::search(first + 1, sound.end(), stored.begin(), stored.end());
    ASSERT_NE(second, sound.end());
    const long a = first - sound.begin(), b = second - sound.begin();
    ByteVector changed = stored;
    changed[40] ^= 1;
    struct {
        std::vector<long> first, second; /* bytes that are changed in either copy */
        uint8_t by;
        ByteVector expected = {}; /* none */
    } const rows[] = {
        {.first = {40}, .second = {}, .by = 1, .expected = stored},      /* a byte of a SID */
        {.first = {66, 21}, .second = {}, .by = 16, .expected = stored}, /* sizes */
        {.first = {66}, .second = {-16}, .by = 1},                       /* the other copy has another id */
        {.first = {40}, .second = {40}, .by = 1, .expected = changed},   /* what lies there is valid */
        {.first = {21}, .second = {21}, .by = 200},
    };
    for (const auto& row : rows) {
        ByteVector bytes = sound;
        for (long at : row.first) bytes[static_cast<size_t>(a + at)] ^= row.by;
        for (long at : row.second) bytes[static_cast<size_t>(b + at)] ^= row.by;
        writeFile(image, bytes);
        OpenVolume opened(image, DiskAccess::readOnly);
        for (FileRef one : {file, file, dangling, without}) {
            const ByteVector& expected = one == file ? row.expected : ByteVector();
            Bytes got;
            EXPECT_EQ(volumeDescriptor(opened, one, got),
                      expected.empty() ? STATUS_INVALID_SECURITY_DESCR : STATUS_SUCCESS);
            EXPECT_EQ(ByteVector(got.begin(), got.end()), expected);
        }
    }
    OpenVolume opened(image); /* after the last row, in which both were damaged */
    for (FileRef one : {file, dangling, without}) {
        EXPECT_EQ(volumeSetDescriptor(opened, one, descriptor(9)), STATUS_SUCCESS);
        EXPECT_EQ(opened.read(one), descriptor(9));
    }
    EXPECT_EQ(opened.close(), STATUS_SUCCESS);
}

} /* namespace */
} /* namespace offline::images */
