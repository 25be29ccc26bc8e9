/* SPDX-License-Identifier: GPL-2.0-or-later */
/* A device in memory. What was never written takes no room and reads as zeros. */
#ifndef QUILLET_TESTS_SUPPORT_MEMORY_DEVICE_H
#define QUILLET_TESTS_SUPPORT_MEMORY_DEVICE_H

#include <algorithm>
#include <cstdlib>
#include <map>

#include "platform/offline/device/block_device.h"

namespace offline {

struct MemoryDevice final : BlockDevice {
    static constexpr uint64_t pageSize = 4096;
    std::map<uint64_t, ByteVector> pages; /* by number */
    uint64_t bytes;
    std::string called = "memory";
    bool protectedFromWrites = false;

    explicit MemoryDevice(uint64_t size) : bytes(size) {}
    explicit MemoryDevice(const ByteVector& contents) : bytes(contents.size()) {
        static_cast<void>(write(0, contents));
    }

    const std::string& name() const override { return called; }
    uint64_t size() const override { return bytes; }
    uint32_t sectorSize() const override { return 512; }
    bool readOnly() const override { return protectedFromWrites; }

    DeviceError read(uint64_t offset, std::span<uint8_t> into) override {
        return eachPage(offset, into.size(), [&](uint64_t page, size_t start, size_t count, size_t done) {
            const auto found = pages.find(page);
            if (found == pages.end()) {
                std::fill_n(into.begin() + static_cast<ptrdiff_t>(done), count, uint8_t{0});
            } else {
                std::copy_n(&found->second[start], count, &into[done]);
            }
        });
    }
    DeviceError write(uint64_t offset, Bytes from) override {
        return eachPage(offset, from.size(), [&](uint64_t page, size_t start, size_t count, size_t done) {
            ByteVector& there = pages[page];
            there.resize(pageSize);
            std::copy_n(&from[done], count, &there[start]);
        });
    }
    DeviceError flush() override { return 0; }
    uint64_t holeAt(uint64_t offset, uint64_t count) override {
        const auto next = pages.lower_bound(offset / pageSize);
        if (next == pages.end()) return count;
        return std::min(count, std::max(next->first * pageSize, offset) - offset);
    }
    DeviceError zero(uint64_t offset, uint64_t count) override {
        return eachPage(offset, count, [&](uint64_t page, size_t start, size_t length, size_t) {
            const auto found = pages.find(page);
            if (length == pageSize) {
                pages.erase(page);
            } else if (found != pages.end()) {
                std::fill_n(&found->second[start], length, uint8_t{0});
            }
        });
    }

    ByteVector contents() {
        ByteVector all(bytes);
        static_cast<void>(read(0, all));
        return all;
    }

private:
    /* What does not lie on the device is a fault of whoever asks. */
    template <class Body>
    DeviceError eachPage(uint64_t offset, uint64_t count, Body body) const {
        if (offset > bytes || count > bytes - offset) std::abort();
        for (uint64_t done = 0; done < count;) {
            const uint64_t start = (offset + done) % pageSize,
                           length = std::min(pageSize - start, count - done);
            body((offset + done) / pageSize, start, length, done);
            done += length;
        }
        return 0;
    }
};

} /* namespace offline */

#endif
