/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/device/block_cache.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "tests/device/machine.h"
#include "tests/support/fault_device.h"

namespace offline::test {
namespace {

constexpr size_t mebibyte = 1024 * 1024;

struct BlockCacheTest : testing::Test {
    Machine machine;
    Faults faults;
    MachineDisk* disk = nullptr;
    BlockDevicePtr device; /* over the disk */
    std::unique_ptr<BlockCache> cache;

    void over(uint64_t size) {
        auto owned = std::make_unique<MachineDisk>(machine, "disk", ByteVector(size));
        disk = owned.get();
        device = std::make_unique<FaultDevice>(std::move(owned), faults);
        cache = std::make_unique<BlockCache>(*device);
    }
    NTSTATUS read(uint64_t offset, size_t count) const {
        ByteVector bytes(count);
        return cacheRead(*cache, offset, bytes);
    }
};

TEST_F(BlockCacheTest, RefusesRangesBeyondTheEnd) {
    over(1000);
    const ByteVector ten(10);
    for (uint64_t offset : {uint64_t{991}, uint64_t{1000}, uint64_t{1001}, UINT64_MAX, UINT64_MAX - 5}) {
        EXPECT_EQ(read(offset, 10), STATUS_INVALID_PARAMETER) << offset;
        EXPECT_EQ(cacheWrite(*cache, offset, ten), STATUS_INVALID_PARAMETER) << offset;
    }
    EXPECT_EQ(cacheWrite(*cache, 990, ten), STATUS_SUCCESS);
    EXPECT_EQ(cacheSync(*cache), STATUS_SUCCESS); /* the disk ends the test that is written to beyond */
}

/* More than the cache holds, in pieces of every size and offset, against the same bytes kept in memory. */
TEST_F(BlockCacheTest, ReadsWhatWasWritten) {
    constexpr size_t size = 40 * mebibyte + 777;
    over(size);
    ByteVector model(size), piece;
    std::mt19937 random(1);
    for (int i = 0; i < 6000; ++i) {
        size_t start = random() % size;
        size_t count = std::min<size_t>(size - start, i % 50 == 0 ? random() % 100'000 : random() % 3000);
        piece.resize(count);
        if (random() % 2 == 0) {
            for (uint8_t& byte : piece) byte = static_cast<uint8_t>(random());
            std::copy(piece.begin(), piece.end(), model.begin() + static_cast<std::ptrdiff_t>(start));
            ASSERT_EQ(cacheWrite(*cache, start, piece), STATUS_SUCCESS);
        } else {
            ASSERT_EQ(cacheRead(*cache, start, piece), STATUS_SUCCESS);
            ASSERT_EQ(std::memcmp(piece.data(), model.data() + start, count), 0) << i;
        }
        ASSERT_EQ(i % 1000 == 0 ? cacheSync(*cache) : STATUS_SUCCESS, STATUS_SUCCESS);
    }
    ASSERT_EQ(cacheSync(*cache), STATUS_SUCCESS);
    EXPECT_EQ(disk->medium.now, model);
}

/* What is asked of the device, by how the cache is used. */
TEST_F(BlockCacheTest, AsksForWhatPays) {
    over(64 * mebibyte);
    for (uint64_t at = 0; at < 64; ++at) ASSERT_GE(read(at * mebibyte + 5000, 1000), 0);
    ASSERT_GE(cacheWrite(*cache, 5 * mebibyte, ByteVector(1024, 1)), 0);
    for (const Faults::Call& call : faults.calls) EXPECT_LE(call.count, 2 * cacheUnitSize) << "jumping about";
    ASSERT_GE(cacheSync(*cache), 0);
    EXPECT_EQ(std::count(disk->grown.begin(), disk->grown.end(), true), 1) << "holes stay holes";

    over(4 * mebibyte);
    faults.calls.clear();
    for (uint64_t at = 0; at < mebibyte; at += 1024) ASSERT_GE(read(at, 1024), 0);
    EXPECT_LE(faults.calls.size(), mebibyte / cacheBlockSize + 1) << "one after the other";
    faults.calls.clear();
    ASSERT_GE(cacheWrite(*cache, 2 * mebibyte, ByteVector(16, 1)), 0); /* newer than the device */
    ByteVector all(3 * mebibyte);
    ASSERT_GE(cacheRead(*cache, mebibyte, all), 0);
    EXPECT_EQ(all[mebibyte], 1);
    EXPECT_LE(faults.calls.size(), 4u) << "long ones";
    EXPECT_EQ(cache->blocks.size(), mebibyte / cacheBlockSize + 1) << "they do not drive out the rest";
    for (const uint64_t at : {3u * 1024, 9u * 1024})
        ASSERT_GE(cacheWrite(*cache, at, ByteVector(1024, 1)), 0);
    faults.calls.clear();
    ASSERT_GE(cacheSync(*cache), 0);
    EXPECT_EQ(faults.calls.size(), 3u) << "two blocks and a flush";
}

/* The blocks are written in the device's order; a unit that it refuses keeps no other away, is told, and
 * tried again. */
TEST_F(BlockCacheTest, ARefusedWriteIsTriedAgain) {
    over(24 * mebibyte);
    for (const uint64_t at : {5 * mebibyte, 4096ul, 2048ul, 2 * mebibyte}) {
        ASSERT_GE(cacheWrite(*cache, at, ByteVector(1024, 9)), 0);
    }
    faults.writesLeft = 0;
    faults.error = ENOSPC;
    EXPECT_EQ(cacheSync(*cache), STATUS_DISK_FULL);
    EXPECT_TRUE(cache->trouble.writeRefused);
    EXPECT_EQ(cache->trouble.writeError, ENOSPC);
    ByteVector back(1024);
    EXPECT_GE(cacheRead(*cache, 4096, back), 0);
    EXPECT_EQ(back, ByteVector(1024, 9));
    faults = {};
    faults.writesLeft = 0;
    faults.once = true; /* the first block in one piece, and then by unit */
    EXPECT_EQ(cacheSync(*cache), STATUS_SUCCESS);
    std::string written;
    for (const Faults::Call& call : faults.calls) {
        if (call.kind == 'w') written += std::to_string(call.offset / 1024) + " ";
    }
    EXPECT_EQ(written, "2 4 2048 5120 ");

    /* When all of it is dirty and the device takes no more, nothing is dropped. */
    faults = {};
    faults.writesLeft = 3;
    NTSTATUS status = STATUS_SUCCESS;
    uint64_t end = 0;
    for (const ByteVector piece(1024, 3); status >= 0 && end < 24 * mebibyte; end += piece.size()) {
        status = cacheWrite(*cache, end, piece);
    }
    EXPECT_EQ(status, STATUS_IO_DEVICE_ERROR);
    EXPECT_GE(end, 16 * mebibyte);
    faults = {};
    EXPECT_EQ(cacheSync(*cache), STATUS_SUCCESS);
    const ByteVector& result = disk->medium.now;
    for (uint64_t at = 0; at + 1024 < end; at += 1024) ASSERT_EQ(result[at], 3) << at;

    faults.flushesLeft = 0;
    EXPECT_EQ(cacheSync(*cache), STATUS_IO_DEVICE_ERROR);
    faults = {};
    EXPECT_EQ(cacheSync(*cache), STATUS_IO_DEVICE_ERROR) << "what was dropped then stays an error";
}

/* One unit can't be read: it is missed by whoever needs it, and told by its place. */
TEST_F(BlockCacheTest, ARefusedReadIsTold) {
    over(4 * mebibyte);
    faults.badStart = mebibyte + 5 * cacheUnitSize;
    faults.badEnd = faults.badStart + 512;
    for (uint64_t unit = 0; unit < cacheUnitsPerBlock; ++unit) {
        EXPECT_EQ(read(mebibyte + unit * cacheUnitSize, 1000) < 0, unit == 5) << unit;
    }
    EXPECT_EQ(cache->trouble.readsRefused, 1u);
    EXPECT_EQ(read(mebibyte + 3000, 3 * cacheUnitSize), STATUS_IO_DEVICE_ERROR);
    EXPECT_EQ(cache->trouble.readsRefused, 2u);
    over(4 * mebibyte);
    EXPECT_EQ(read(0, 4 * mebibyte), STATUS_IO_DEVICE_ERROR);
    EXPECT_EQ(cache->trouble.firstRefused, faults.badStart);
    EXPECT_EQ(cache->trouble.readError, EIO);
}

} /* namespace */
} /* namespace offline::test */
