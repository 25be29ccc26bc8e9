/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/device/overlay.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <iterator>

#include "platform/offline/base/guarded.h"

namespace offline {

Overlay::Overlay(BlockDevice& device, std::string inDirectory, size_t memory)
    : below(device), store(std::move(inDirectory), memory) {}

bool Overlay::nextChanged(uint64_t offset, uint64_t& changed) const {
    UnitRun run;
    if (!index.next(offset / unitSize, 1, run)) return false;
    changed = run.unit * unitSize;
    return true;
}

DeviceError Overlay::patch(uint64_t offset, std::span<uint8_t> bytes, Bytes around) const {
    const uint64_t last = offset + bytes.size();
    const uint64_t most = bytes.size() / unitSize + 1;
    const auto keep = [&](uint64_t from, uint64_t to) {
        const Bytes kept = around.subspan(std::min<uint64_t>(from - offset, around.size()));
        std::copy_n(kept.begin(), std::min<uint64_t>(to - from, kept.size()),
                    bytes.begin() + static_cast<std::ptrdiff_t>(from - offset));
    };
    uint64_t done = offset;
    UnitRun run;
    for (uint64_t from = offset / unitSize; index.next(from, most, run) && run.unit * unitSize < last;) {
        from = run.unit + run.count;
        const uint64_t start = std::max(run.unit * unitSize, offset);
        const uint64_t end = std::min(from * unitSize, last);
        keep(done, start);
        const DeviceError error =
            store.read(run.slot, start % unitSize, bytes.subspan(start - offset, end - start));
        if (error != 0) return error;
        done = end;
    }
    keep(done, last);
    return 0;
}

/* The stretches between changed units, one by one: what lies below a changed one may be unreadable. */
DeviceError Overlay::readAround(uint64_t offset, std::span<uint8_t> bytes) {
    const uint64_t end = offset + bytes.size();
    uint64_t from = offset, changed = 0;
    while (from < end) {
        const uint64_t to = nextChanged(from, changed) ? std::clamp(changed, from, end) : end;
        if (to > from) {
            const DeviceError error = below.read(from, bytes.subspan(from - offset, to - from));
            if (error != 0) return error;
        }
        from = (to / unitSize + 1) * unitSize;
    }
    return patch(offset, bytes);
}

DeviceError Overlay::read(uint64_t offset, std::span<uint8_t> bytes) {
    uint64_t changed = 0;
    if (!nextChanged(offset, changed) || changed >= offset + bytes.size()) return below.read(offset, bytes);
    const bool oneUnit = changed <= offset && offset + bytes.size() <= changed + unitSize;
    if (oneUnit || below.read(offset, bytes) == 0) return patch(offset, bytes);
    return readAround(offset, bytes);
}

/* Whether it lies in one changed unit. */
bool Overlay::changedWhole(const DeviceRead& read) const {
    uint64_t changed = 0;
    return nextChanged(read.offset, changed) && changed <= read.offset &&
           read.offset + read.bytes.size() <= changed + unitSize;
}

/* Where one of them fails, which may be below what was changed, each is read by itself. */
DeviceError Overlay::readAll(std::span<const DeviceRead> reads) {
    return guardedOr<DeviceError>(ENOMEM, [&]() -> DeviceError {
        std::vector<DeviceRead> misses;
        std::copy_if(reads.begin(), reads.end(), std::back_inserter(misses),
                     [&](const DeviceRead& one) { return !changedWhole(one); });
        if (below.readAll(misses) != 0) return BlockDevice::readAll(reads);
        for (const DeviceRead& one : reads) {
            if (const DeviceError error = patch(one.offset, one.bytes)) return error;
        }
        return 0;
    });
}

DeviceError Overlay::remembered(DeviceError error) {
    if (failed == 0) failed = error;
    return error;
}

/* A part of one unit. It is in the index only when its contents are there whole. */
DeviceError Overlay::writeUnit(uint64_t unit, size_t start, Bytes bytes) {
    const uint32_t slot = index.slotOf(unit);
    if (slot != ChangedUnits::noSlot) return remembered(store.write(slot, start, bytes));
    if (index.count() >= ChangedUnits::noSlot) return remembered(EFBIG);
    const auto fresh = static_cast<uint32_t>(index.count());
    std::array<uint8_t, unitSize> contents;
    const auto length = static_cast<size_t>(std::min<uint64_t>(unitSize, size() - unit * unitSize));
    if (bytes.size() < length) {
        const DeviceError error = below.read(unit * unitSize, std::span(contents).first(length));
        if (error != 0) return error;
    }
    std::copy(bytes.begin(), bytes.end(), contents.begin() + static_cast<std::ptrdiff_t>(start));
    const DeviceError error = store.write(fresh, 0, Bytes(contents).first(length));
    if (error == 0) index.add(unit, fresh);
    return remembered(error);
}

/* Whole units whose contents can be stored at once; the others are left to further calls. */
DeviceError Overlay::writeRun(uint64_t unit, Bytes bytes, size_t& written) {
    uint64_t count = bytes.size() / unitSize;
    UnitRun run;
    const bool found = index.next(unit, count, run);
    if (found) count = run.unit == unit ? run.count : std::min(count, run.unit - unit);
    written = count * unitSize;
    if (found && run.unit == unit) return remembered(store.write(run.slot, 0, bytes.first(written)));
    if (index.count() >= ChangedUnits::noSlot - count) return remembered(EFBIG);
    const auto fresh = static_cast<uint32_t>(index.count());
    const DeviceError error = store.write(fresh, 0, bytes.first(written));
    for (uint32_t i = 0; i < count && error == 0; ++i) index.add(unit + i, fresh + i);
    return remembered(error);
}

DeviceError Overlay::write(uint64_t offset, Bytes bytes) {
    const DeviceError error = guardedOr<DeviceError>(ENOMEM, [&]() -> DeviceError {
        while (!bytes.empty()) {
            const size_t start = offset % unitSize;
            size_t count = std::min(bytes.size(), unitSize - start);
            const DeviceError refused = count == unitSize
                                            ? writeRun(offset / unitSize, bytes, count)
                                            : writeUnit(offset / unitSize, start, bytes.first(count));
            if (refused != 0) return refused;
            offset += count;
            bytes = bytes.subspan(count);
        }
        return 0;
    });
    return error == ENOMEM ? remembered(error) : error;
}

DeviceError Overlay::zero(uint64_t offset, uint64_t count) {
    static constexpr std::array<uint8_t, 64 * unitSize> zeros = {};
    while (count > 0) {
        const auto part = static_cast<size_t>(std::min<uint64_t>(count, zeros.size()));
        if (const DeviceError error = write(offset, Bytes(zeros).first(part))) return error;
        offset += part;
        count -= part;
    }
    return 0;
}

uint64_t Overlay::holeAt(uint64_t offset, uint64_t count) {
    uint64_t changed = 0;
    if (nextChanged(offset, changed)) {
        if (changed <= offset) return 0;
        count = std::min(count, changed - offset);
    }
    return below.holeAt(offset, count);
}

} /* namespace offline */
