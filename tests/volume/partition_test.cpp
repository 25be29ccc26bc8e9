#include <filesystem>
#include <random>

#include "tests/volume/images.h"

using namespace offline;
using images::ByteVector;
using images::put;
using images::putText;

namespace {

constexpr size_t volumeSectors = 4 * images::mebibyte / 512;

struct PartitionTest : images::ImageTest {
    Problem problem;
    std::vector<Partition> partitions;

    NTSTATUS search(const ByteVector& bytes) {
        images::writeFile(path("disk"), bytes);
        DiskPtr disk;
        problem = {};
        NTSTATUS status = diskOpen(path("disk"), DiskAccess::readOnly, disk, problem);
        return status < 0 ? status : diskPartitions(*disk, partitions, problem);
    }
    void expectRefused(const ByteVector& bytes, NTSTATUS status, const std::string& words) {
        EXPECT_EQ(search(bytes), status) << words;
        EXPECT_TRUE(partitions.empty());
        EXPECT_TRUE(problem.text.starts_with(path("disk") + ": ")) << problem.text;
        EXPECT_NE(problem.text.find(words), std::string::npos) << problem.text;
    }
    static void place(ByteVector& disk, const ByteVector& volume, uint64_t sector, size_t sectorSize = 512) {
        std::copy(volume.begin(), volume.end(),
                  disk.begin() + static_cast<std::ptrdiff_t>(sector * sectorSize));
    }
    ByteVector small() { return ntfs(4 * images::mebibyte, 2048); }
};

TEST_F(PartitionTest, Mbr) {
    ByteVector volume = small(), disk(16 * images::mebibyte);
    /* An active primary one, a FAT one, and two logical ones, the second of which holds NTFS. */
    images::putMbr(disk, {{2048, volumeSectors, 0x07}, {11000, 100, 0x0C}, {12000, 19000, 0x0F}});
    disk[446] = 0x80;
    putText(disk, 11000 * 512 + 82, "FAT32   ");
    ByteVector table(512);
    images::putMbr(table, {{10, 50, 0x83}, {100, 18000, 0x05}});
    place(disk, table, 12000);
    table.assign(512, 0);
    images::putMbr(table, {{20, volumeSectors, 0x07}});
    place(disk, table, 12100);
    place(disk, volume, 2048);
    place(disk, volume, 12120);
    ASSERT_EQ(search(disk), STATUS_SUCCESS) << problem.text;
    ASSERT_EQ(partitions.size(), 2u);
    EXPECT_EQ(partitions[0].start, 2048u * 512);
    EXPECT_EQ(partitions[0].size, volume.size());
    EXPECT_EQ(partitions[0].table, PartitionTable::mbr);
    EXPECT_EQ(partitions[0].mbrSignature, images::mbrSignature);
    EXPECT_EQ(partitions[1].start, 12120u * 512);
    /* Both open, on the one disk, at once. */
    DiskPtr opened;
    VolumePtr first, second;
    ASSERT_EQ(diskOpen(path("disk"), DiskAccess::readWrite, opened, problem), STATUS_SUCCESS);
    EXPECT_EQ(volumeOpen(*opened, partitions[0], first, problem), STATUS_SUCCESS) << problem.text;
    EXPECT_EQ(volumeOpen(*opened, partitions[1], second, problem), STATUS_SUCCESS) << problem.text;
    first.reset();
    second.reset();
    opened.reset();
    EXPECT_EQ(images::readFile(path("disk")), disk);

    ByteVector broken = disk;
    put<uint32_t>(broken, 12100 * 512 + 446 + 16 + 8, 100); /* the chain's end leads to itself */
    put<uint32_t>(broken, 12100 * 512 + 446 + 16 + 12, 100);
    broken[12100 * 512 + 446 + 16 + 4] = 0x05;
    expectRefused(broken, STATUS_DISK_CORRUPT_ERROR, "chain of its logical partitions");
    broken = disk;
    put<uint16_t>(broken, 12100 * 512 + 510, 0);
    expectRefused(broken, STATUS_DISK_CORRUPT_ERROR, "chain of its logical partitions");
    broken = disk;
    broken.resize(8 * images::mebibyte);
    expectRefused(broken, STATUS_DISK_CORRUPT_ERROR, "truncated or the table is damaged");
    broken = disk;
    put<uint32_t>(broken, 446 + 12, volumeSectors - 5000);
    expectRefused(broken, STATUS_DISK_CORRUPT_ERROR, "partition 1 is truncated");
    broken = disk;
    put<uint32_t>(broken, 446 + 12, 12000);
    expectRefused(broken, STATUS_DISK_CORRUPT_ERROR, "overlap");
    broken = disk;
    broken[446 + 4] = 0x42;
    expectRefused(broken, STATUS_NOT_SUPPORTED, "dynamic disk");
}

TEST_F(PartitionTest, Gpt) {
    ByteVector volume = small();
    for (size_t sectorSize : {size_t{512}, size_t{4096}}) {
        ByteVector disk(16 * images::mebibyte);
        uint64_t start = images::mebibyte / sectorSize, count = volume.size() / sectorSize;
        images::putGpt(disk, sectorSize, {{40, 8}, {start, count}});
        place(disk, volume, start, sectorSize);
        auto expectFound = [&](const ByteVector& bytes) {
            ASSERT_EQ(search(bytes), STATUS_SUCCESS) << problem.text;
            ASSERT_EQ(partitions.size(), 1u);
            EXPECT_EQ(partitions[0].start, images::mebibyte);
            EXPECT_EQ(partitions[0].size, volume.size());
            EXPECT_EQ(partitions[0].table, PartitionTable::gpt);
            EXPECT_EQ(ByteVector(partitions[0].gptPartition, partitions[0].gptPartition + 16),
                      ByteVector(16, 2));
        };
        expectFound(disk);
        ByteVector damaged = disk;
        damaged[2 * sectorSize + 5] ^= 1; /* the primary entries */
        expectFound(damaged);
        damaged[damaged.size() - sectorSize + 24] ^= 1; /* the backup header */
        expectRefused(damaged, STATUS_DISK_CORRUPT_ERROR, "neither its GPT nor the backup");
        damaged = disk;
        std::fill_n(damaged.begin(), images::mebibyte / 2, uint8_t{0}); /* MBR and primary table wiped */
        expectFound(damaged);
        damaged = disk;
        damaged.resize(4 * images::mebibyte);
        expectRefused(damaged, STATUS_DISK_CORRUPT_ERROR, "truncated or the table is damaged");
        for (size_t field : {size_t{80}, size_t{84}}) { /* entries: too many, too large */
            damaged = disk;
            for (size_t header : {sectorSize, damaged.size() - sectorSize}) {
                put<uint32_t>(damaged, header + field, 0x7FFFFFFF);
                images::sealGptHeader(damaged, header);
            }
            expectRefused(damaged, STATUS_DISK_CORRUPT_ERROR, "neither its GPT nor the backup");
        }
    }
    ByteVector bare(images::mebibyte);
    images::putMbr(bare, {{1, 0xFFFFFFFF, 0xEE}});
    expectRefused(bare, STATUS_DISK_CORRUPT_ERROR, "neither its GPT nor the backup");
}

TEST_F(PartitionTest, WhatIsNotForUs) {
    ByteVector raw = ntfs(2 * images::mebibyte), disk(images::mebibyte);
    putText(disk, 0, "Just some text, and nothing else.\n");
    expectRefused(disk, STATUS_UNRECOGNIZED_VOLUME, "it holds no NTFS volume and no partition table");
    expectRefused(ByteVector(100, 'x'), STATUS_UNRECOGNIZED_VOLUME, "it holds no NTFS volume");
    struct {
        size_t offset;
        const char* signature;
        NTSTATUS status;
        const char* words;
    } const cases[] = {
        {54, "FAT16   ", STATUS_UNRECOGNIZED_VOLUME, "no NTFS volume (found: FAT)"},
        {3, "EXFAT   ", STATUS_UNRECOGNIZED_VOLUME, "no NTFS volume (found: exFAT)"},
        {3, "-FVE-FS-", STATUS_NOT_SUPPORTED, "BitLocker"},
        {3, "ReFS", STATUS_NOT_SUPPORTED, "ReFS"},
    };
    for (const auto& one : cases) {
        ByteVector partition(images::mebibyte);
        put<uint16_t>(partition, 510, 0xAA55);
        putText(partition, one.offset, one.signature);
        expectRefused(partition, one.status, one.words);
        ByteVector whole(4 * images::mebibyte);
        images::putMbr(whole, {{2048, 2048, 0x07}});
        place(whole, partition, 2048);
        expectRefused(whole, one.status, one.words);
    }
    ByteVector qcow(images::mebibyte);
    putText(qcow, 0, "QFI\xFB");
    expectRefused(qcow, STATUS_NOT_SUPPORTED, "qemu-img convert");
    ByteVector unformatted(4 * images::mebibyte);
    images::putMbr(unformatted, {{2048, 2048, 0x07}});
    expectRefused(unformatted, STATUS_UNRECOGNIZED_VOLUME, "partition 1 is meant for one");
}

TEST_F(PartitionTest, DamagedVolumes) {
    ByteVector raw = ntfs(2 * images::mebibyte);
    ASSERT_EQ(search(raw), STATUS_SUCCESS) << problem.text;
    ASSERT_EQ(partitions.size(), 1u);
    EXPECT_EQ(partitions[0].table, PartitionTable::none);
    EXPECT_EQ(partitions[0].size, raw.size());
    ByteVector damaged = raw;
    damaged.resize(raw.size() - 4096);
    expectRefused(damaged, STATUS_DISK_CORRUPT_ERROR, "truncated");
    damaged = raw;
    std::fill_n(damaged.begin(), 512, uint8_t{0});
    expectRefused(damaged, STATUS_DISK_CORRUPT_ERROR, "its backup copy is intact");
    damaged = raw;
    put<uint16_t>(damaged, 0x0B, 513); /* the size of a sector */
    expectRefused(damaged, STATUS_DISK_CORRUPT_ERROR, "its backup copy is intact");
    std::fill(damaged.end() - 512, damaged.end(), uint8_t{0});
    expectRefused(damaged, STATUS_DISK_CORRUPT_ERROR, "the boot sector of the disk is damaged");
}

/* Whatever a table says: no crash, and only partitions that lie on the disk. */
TEST_F(PartitionTest, MutatedTables) {
    std::mt19937 random(20);
    ByteVector boot = ntfs(2 * images::mebibyte);
    boot.resize(512);
    put<uint64_t>(boot, 0x28, 20);
    put<uint64_t>(boot, 0x30, 1);
    put<uint64_t>(boot, 0x38, 1);
    boot[0x0D] = 1;
    ByteVector mbr(64 * 1024), gpt(64 * 1024);
    images::putMbr(mbr, {{8, 24, 0x07}, {40, 80, 0x05}});
    ByteVector table(512);
    images::putMbr(table, {{2, 24, 0x07}, {40, 30, 0x05}});
    place(mbr, table, 40);
    place(mbr, table, 80);
    images::putGpt(gpt, 512, {{34, 24}, {60, 24}});
    place(mbr, boot, 8);
    place(mbr, boot, 42);
    place(gpt, boot, 34);
    place(gpt, boot, 60);
    int found = 0;
    for (int i = 0; i < 1500; ++i) {
        bool isGpt = i % 2 == 0;
        ByteVector disk = isGpt ? gpt : mbr;
        for (auto changes = 1 + random() % 3; changes > 0; --changes) {
            size_t area = isGpt ? (random() % 2 == 0 ? 512 + random() % 92 : 1024 + random() % 256)
                                : (random() % 3 == 0 ? 40 * 512 : 0) + 440 + random() % 72;
            disk[area] = static_cast<uint8_t>(random() % 4 == 0 ? random() : 1u << random() % 8);
        }
        if (isGpt && random() % 2 == 0) { /* keep the backup out of it, and some headers valid */
            put<uint64_t>(disk, disk.size() - 512, 0u);
            images::sealGptHeader(disk, 512);
        }
        if (search(disk) < 0) continue;
        ++found;
        for (const Partition& partition : partitions) {
            ASSERT_LE(partition.start, disk.size());
            ASSERT_LE(partition.size, disk.size() - partition.start);
        }
    }
    EXPECT_GT(found, 100); /* not all of them are refused at the first look */
}

} /* namespace */
