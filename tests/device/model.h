/* SPDX-License-Identifier: GPL-2.0-or-later */
/* A device against a plain row of bytes. */
#ifndef QUILLET_TESTS_DEVICE_MODEL_H
#define QUILLET_TESTS_DEVICE_MODEL_H

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "platform/offline/device/block_device.h"

namespace offline::test {

inline ByteVector contentsOf(BlockDevice& device) {
    ByteVector bytes(device.size());
    EXPECT_EQ(device.read(0, bytes), 0);
    return bytes;
}

/* Whatever is done in whatever pieces, of a few bytes up to the longest, the device holds what the row would;
 * what it calls a hole is zero. Some of the pieces are whole blocks. */
inline void compareWithModel(BlockDevice& device, uint32_t seed, uint64_t longest = 300'000) {
    std::mt19937 random(seed);
    ByteVector model = contentsOf(device);
    const auto place = [&](bool blocks) {
        uint64_t offset = random() % model.size(), end = offset + 1 + random() % (longest >> random() % 12);
        if (blocks) offset = offset / 4096 * 4096, end = (end + 4095) / 4096 * 4096;
        return std::pair<uint64_t, size_t>(offset, std::min<uint64_t>(end, model.size()) - offset);
    };
    for (int turn = 0; turn < 500; ++turn) {
        const auto [offset, count] = place(turn % 9 == 0);
        const auto there = model.begin() + static_cast<ptrdiff_t>(offset);
        if (turn % 4 == 0) {
            ASSERT_EQ(device.zero(offset, count), 0);
            std::fill_n(there, count, uint8_t{0});
        } else {
            ByteVector bytes(count);
            for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random());
            ASSERT_EQ(device.write(offset, bytes), 0);
            std::copy(bytes.begin(), bytes.end(), there);
        }
        ByteVector around(std::min<uint64_t>(longest, model.size() - offset));
        ASSERT_EQ(device.read(offset, around), 0);
        ASSERT_TRUE(sameBytes(around, Bytes(model).subspan(offset, around.size())));
        std::vector<ByteVector> found(5);
        std::vector<DeviceRead> reads;
        for (ByteVector& one : found) {
            const auto [at, length] = place(false);
            one.resize(length);
            reads.push_back({at, one});
        }
        ASSERT_EQ(device.readAll(reads), 0);
        for (const DeviceRead& one : reads)
            ASSERT_TRUE(sameBytes(one.bytes, Bytes(model).subspan(one.offset, one.bytes.size())));
        const uint64_t hole = device.holeAt(offset, model.size() - offset);
        ASSERT_TRUE(allZero(Bytes(model).subspan(offset, hole)));
    }
    ASSERT_EQ(device.flush(), 0);
    ASSERT_EQ(contentsOf(device), model);
}

} /* namespace offline::test */

#endif
