/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "tests/volume/images.h"

namespace offline::images {
namespace {

constexpr uint64_t volumeSectors = 4 * mebibyte / 512;
constexpr size_t entries = 446, entrySize = 16; /* of the classic table, bytes */

/* A number written over what makes a disk that is in order one that is refused. */
struct Damage {
    size_t at; /* bytes */
    uint32_t value;
    const char* words = "chain of its logical partitions";
    NTSTATUS status = STATUS_DISK_CORRUPT_ERROR;
};

struct PartitionTest : ImageTest {
    Problem problem;
    std::vector<Partition> partitions;

    NTSTATUS search(const ByteVector& bytes) {
        writeFile(path("disk"), bytes);
        DiskPtr disk;
        problem = {};
        NTSTATUS status = diskOpen({path("disk"), DiskFormat::raw}, DiskAccess::readOnly, disk, problem);
        return status < 0 ? status : diskPartitions(*disk, partitions, problem);
    }
    void expectOne(const ByteVector& bytes, PartitionTable table, uint64_t start, uint64_t size) {
        ASSERT_EQ(search(bytes), STATUS_SUCCESS) << problem.text;
        ASSERT_EQ(partitions.size(), 1u);
        EXPECT_EQ(partitions[0].table, table);
        EXPECT_EQ(partitions[0].start, start);
        EXPECT_EQ(partitions[0].size, size);
    }
    void expectRefused(const ByteVector& bytes, const std::string& words,
                       NTSTATUS status = STATUS_DISK_CORRUPT_ERROR) {
        EXPECT_EQ(search(bytes), status) << words;
        EXPECT_TRUE(partitions.empty());
        EXPECT_TRUE(problem.text.starts_with(path("disk") + ": ")) << problem.text;
        EXPECT_NE(problem.text.find(words), std::string::npos) << problem.text;
    }
    void expectRefused(const ByteVector& disk, const std::vector<Damage>& damages) {
        for (const Damage& damage : damages) {
            ByteVector bytes = disk;
            put(bytes, damage.at, damage.value);
            expectRefused(bytes, damage.words, damage.status);
        }
    }
    static void place(ByteVector& disk, const ByteVector& volume, uint64_t sector) {
        std::copy(volume.begin(), volume.end(), disk.begin() + static_cast<std::ptrdiff_t>(sector * 512));
    }
};

/* An active primary partition, a FAT one, and three logical ones, of which the last holds NTFS. */
TEST_F(PartitionTest, Mbr) {
    ByteVector volume = ntfs(4 * mebibyte, 2048), disk(16 * mebibyte);
    putMbr(disk, {{2048, volumeSectors}, {11000, 100, 0x0C}, {12000, 19000, 0x0F}});
    disk[entries] = 0x80;
    putText(disk, 11000 * 512 + 82, "FAT32   ");
    for (const uint64_t at :
         {0u, 100u, 200u, 19001u}) { /* the last one lies outside, and nothing leads there */
        const TablePart other = {10, 50, 0x83}, ours = {20, volumeSectors};
        ByteVector table(512);
        putMbr(table, {at == 200 ? ours : other, {at + 100, at < 200 ? 100u : 0u, 0x05}});
        place(disk, table, 12000 + at);
    }
    place(disk, volume, 2048);
    place(disk, volume, 12220);
    ASSERT_EQ(search(disk), STATUS_SUCCESS) << problem.text;
    ASSERT_EQ(partitions.size(), 2u);
    EXPECT_EQ(partitions[0].start, 2048u * 512);
    EXPECT_EQ(partitions[0].size, volume.size());
    EXPECT_EQ(partitions[0].serial, numberAt<uint64_t>(volume, 0x48));
    EXPECT_EQ(partitions[0].table, PartitionTable::mbr);
    EXPECT_EQ(partitions[0].mbrSignature, mbrSignature);
    EXPECT_EQ(partitions[1].start, 12220u * 512);
    { /* Both open, on the one disk, at once. */
        DiskPtr opened;
        VolumePtr first, second;
        ASSERT_EQ(diskOpen(path("disk"), DiskAccess::readWrite, opened, problem), STATUS_SUCCESS);
        EXPECT_EQ(volumeOpen(*opened, partitions[0], first, problem), STATUS_SUCCESS) << problem.text;
        EXPECT_EQ(volumeOpen(*opened, partitions[1], second, problem), STATUS_SUCCESS) << problem.text;
    }
    EXPECT_EQ(readFile(path("disk")), disk);

    constexpr size_t last = 12200 * 512; /* the chain's last table */
    expectRefused(
        disk, {{.at = last + 510, .value = 0},
               {.at = entries + 12, .value = volumeSectors - 5000, .words = "1 is truncated"},
               {.at = entries + 12, .value = 12000, .words = "overlap"},
               {.at = entries + 12, .value = 32768, .words = "reaches beyond the disk's end"},
               {.at = entries + 4, .value = 0x42, .words = "dynamic disk", .status = STATUS_NOT_SUPPORTED}});
    put(disk, last + entries + entrySize + 12, 100);
    expectRefused(disk, {{.at = last + entries + entrySize + 8, .value = 200},     /* leads to itself, */
                         {.at = last + entries + entrySize + 8, .value = 19001}}); /* and out of it */
}

TEST_F(PartitionTest, Gpt) {
    const ByteVector volume = ntfs(4 * mebibyte, 2048);
    for (size_t sectorSize : {size_t{512}, size_t{4096}}) {
        ByteVector disk(16 * mebibyte);
        const uint64_t start = mebibyte / sectorSize, count = volume.size() / sectorSize;
        putGpt(disk, sectorSize, {{40, 8}, {start, count}});
        place(disk, volume, 2048);
        expectOne(disk, PartitionTable::gpt, mebibyte, volume.size());
        EXPECT_EQ(partitions[0].gptPartition[0] + partitions[0].gptPartition[15], 2 + 2);
        ByteVector wiped = disk;
        std::fill_n(wiped.begin(), mebibyte / 2, uint8_t{0});
        expectOne(wiped, PartitionTable::gpt, mebibyte, volume.size());
        ByteVector cut = disk;
        cut.resize(4 * mebibyte);
        expectRefused(cut, "truncated or the table is damaged");
        /* How many entries, and of which size; a sector whose place in bytes needs more than 64 bits. */
        for (const auto& [field, value] :
             {std::pair<size_t, uint32_t>{80, 0x7FFFFFFF}, {84, 1 << 24}, {84, 64}}) {
            ByteVector bytes = disk;
            for (size_t header : {sectorSize, disk.size() - sectorSize}) {
                put<uint32_t>(bytes, header + field, value);
                sealGptHeader(bytes, header);
            }
            expectRefused(bytes, "neither its GPT nor the backup");
        }
        ByteVector huge = disk;
        putGpt(huge, sectorSize, {{start, count + UINT64_MAX / sectorSize + 1}});
        expectRefused(huge, "neither its GPT nor the backup");
        /* Either copy will do, and none whose checksums are wrong: of the entries, of the header. */
        for (size_t primary : {2 * sectorSize + 5, sectorSize + 50}) {
            ByteVector bytes = disk;
            bytes[primary] ^= 1;
            expectOne(bytes, PartitionTable::gpt, mebibyte, volume.size());
            bytes[disk.size() - sectorSize + 50] ^= 1;
            expectRefused(bytes, "neither its GPT nor the backup");
        }
    }
    ByteVector bare(mebibyte);
    putMbr(bare, {{1, 0xFFFFFFFF, 0xEE}});
    expectRefused(bare, "neither its GPT nor the backup");
}

TEST_F(PartitionTest, WhatIsNotForUs) {
    ByteVector text(mebibyte), unformatted(4 * mebibyte);
    putText(text, 0, "Just some text, and nothing else.\n");
    expectRefused(text, "it holds no NTFS volume and no partition table", STATUS_UNRECOGNIZED_VOLUME);
    expectRefused(ByteVector(100, 'x'), "it holds no NTFS volume", STATUS_UNRECOGNIZED_VOLUME);
    putText(text, 0, "QFI\xFB");
    expectRefused(text, "qemu-img convert", STATUS_NOT_SUPPORTED);
    putMbr(unformatted, {{2048, 2048}});
    expectRefused(unformatted, "partition 1 is meant for one", STATUS_UNRECOGNIZED_VOLUME);
    struct {
        size_t offset;
        const char *signature, *words;
        NTSTATUS status;
    } const cases[] = {
        {54, "FAT16   ", "no NTFS volume (found: FAT)", STATUS_UNRECOGNIZED_VOLUME},
        {3, "EXFAT   ", "no NTFS volume (found: exFAT)", STATUS_UNRECOGNIZED_VOLUME},
        {3, "-FVE-FS-", "BitLocker", STATUS_NOT_SUPPORTED},
        {3, "ReFS", "ReFS", STATUS_NOT_SUPPORTED},
    };
    for (const auto& one : cases) {
        ByteVector partition(mebibyte), whole = unformatted;
        std::fill_n(partition.begin() + entries, 4 * entrySize, uint8_t{0x33}); /* instructions */
        put<uint16_t>(partition, 510, 0xAA55);
        putText(partition, one.offset, one.signature);
        expectRefused(partition, one.words, one.status);
        place(whole, partition, 2048);
        expectRefused(whole, one.words, one.status);
    }
}

TEST_F(PartitionTest, AnotherFileSystemsRemainsDoNotHideATable) {
    ByteVector disk(8 * mebibyte);
    place(disk, ntfs(4 * mebibyte, 2048), 2048);
    putText(disk, 0x438, "\x53\xEF"); /* ext was on the whole disk once */
    put<uint16_t>(disk, 510, 0xAA55); /* a table without entries, as a boot sector can look */
    expectRefused(disk, "(found: ext)", STATUS_UNRECOGNIZED_VOLUME);
    putMbr(disk, {{2048, volumeSectors}});
    expectOne(disk, PartitionTable::mbr, mebibyte, 4 * mebibyte);
}

TEST_F(PartitionTest, DamagedVolumes) {
    const ByteVector raw = ntfs(2 * mebibyte);
    expectOne(raw, PartitionTable::none, 0, raw.size());
    ByteVector large = raw; /* clusters of 128 sectors, as a negative power of two */
    large[0x0D] = 0xF9;
    put<uint64_t>(large, mftField, 4);
    put<uint64_t>(large, mirrorField, 2);
    expectOne(large, PartitionTable::none, 0, raw.size());
    ByteVector damaged = raw;
    damaged.resize(raw.size() - 4096);
    expectRefused(damaged, "truncated");
    /* the sizes of sectors and clusters, the mark at the end, where the $MFT is */
    for (const auto& [at, value] : {std::pair<size_t, uint32_t>{0x0B, 513}, {510, 0}, {0x30, 2 * mebibyte}}) {
        damaged = raw;
        put(damaged, at, value);
        expectRefused(damaged, "its backup copy is intact");
        std::fill(damaged.end() - 512, damaged.end(), uint8_t{0});
        expectRefused(damaged, "the boot sector of the disk is damaged");
    }
    damaged = raw;
    std::fill_n(damaged.begin(), 512, uint8_t{0});
    expectRefused(damaged, "its backup copy is intact");
}

} /* namespace */
} /* namespace offline::images */
