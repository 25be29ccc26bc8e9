/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/device/overlay.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <iterator>

#include "platform/offline/base/guarded.h"
#include "platform/offline/device/unit_patch.h"

namespace offline {

namespace {

constexpr uint32_t patchBit = uint32_t{1} << 31;
constexpr uint64_t unitsAtOnce = 64; /* that are compared with what lies below */

} /* namespace */

Overlay::Overlay(BlockDevice& device, const std::string& inDirectory, size_t memory)
    : below(device),
      wholes(inDirectory, unitSize, memory),
      patches(inDirectory, patchSize, memory / 2),
      compares(device.readsAtOnce() == 1) {}

bool Overlay::isPatch(uint32_t slot) {
    return (slot & patchBit) != 0 && slot != ChangedUnits::noSlot;
}

bool Overlay::nextChanged(uint64_t offset, uint64_t& changed) const {
    UnitRun run;
    if (!index.next(offset / unitSize, 1, run)) return false;
    changed = run.unit * unitSize;
    return true;
}

bool Overlay::needsBelow(uint64_t offset, uint64_t count) const {
    UnitRun run;
    uint64_t from = offset / unitSize;
    while (index.next(from, count / unitSize + 1, run) && run.unit * unitSize < offset + count) {
        if (isPatch(run.slot)) return true;
        from = run.unit + run.count;
    }
    return false;
}

/* The bytes at the offset hold what lies below the run, which is of patches. */
DeviceError Overlay::patchRun(const UnitRun& run, uint64_t offset, std::span<uint8_t> bytes) const {
    constexpr uint64_t atOnce = 256;
    std::array<uint8_t, atOnce * patchSize> some;
    const uint64_t last = offset + bytes.size();
    for (uint64_t done = 0; done < run.count; done += atOnce) {
        const uint64_t count = std::min<uint64_t>(run.count - done, atOnce);
        const auto slot = static_cast<uint32_t>((run.slot & ~patchBit) + done);
        const DeviceError error = patches.read(slot, 0, std::span(some).first(count * patchSize));
        if (error != 0) return error;
        for (uint64_t i = 0; i < count; ++i) {
            const uint64_t unit = (run.unit + done + i) * unitSize;
            const uint64_t start = std::max(unit, offset), end = std::min(unit + unitSize, last);
            if (start >= end) continue;
            const auto patch = Bytes(some).subspan(i * patchSize).first<patchSize>();
            applyPatch(patch, start - unit, bytes.subspan(start - offset, end - start));
        }
    }
    return 0;
}

DeviceError Overlay::patch(uint64_t offset, std::span<uint8_t> bytes, Bytes lies) const {
    const uint64_t last = offset + bytes.size();
    const uint64_t most = bytes.size() / unitSize + 1;
    const auto keepBelow = [&](uint64_t from, uint64_t to) {
        const Bytes kept = lies.subspan(std::min<uint64_t>(from - offset, lies.size()));
        std::copy_n(kept.begin(), std::min<uint64_t>(to - from, kept.size()),
                    bytes.begin() + static_cast<std::ptrdiff_t>(from - offset));
    };
    uint64_t done = offset;
    UnitRun run;
    for (uint64_t from = offset / unitSize; index.next(from, most, run) && run.unit * unitSize < last;) {
        from = run.unit + run.count;
        const uint64_t start = std::max(run.unit * unitSize, offset);
        const uint64_t end = std::min(from * unitSize, last);
        keepBelow(done, isPatch(run.slot) ? end : start);
        const DeviceError error = isPatch(run.slot) ? patchRun(run, offset, bytes)
                                                    : wholes.read(run.slot, start % unitSize,
                                                                  bytes.subspan(start - offset, end - start));
        if (error != 0) return error;
        done = end;
    }
    keepBelow(done, last);
    return 0;
}

/* Unit by unit: what lies below one that is kept whole may be unreadable. */
DeviceError Overlay::readAround(uint64_t offset, std::span<uint8_t> bytes) {
    const uint64_t end = offset + bytes.size();
    for (uint64_t from = offset, to = 0; from < end; from = to) {
        to = std::min(end, (from / unitSize + 1) * unitSize);
        if (inWholeUnit(from, to - from)) continue;
        const DeviceError error = below.read(from, bytes.subspan(from - offset, to - from));
        if (error != 0) return error;
    }
    return patch(offset, bytes);
}

DeviceError Overlay::read(uint64_t offset, std::span<uint8_t> bytes) {
    uint64_t changed = 0;
    if (!nextChanged(offset, changed) || changed >= offset + bytes.size()) return below.read(offset, bytes);
    if (inWholeUnit(offset, bytes.size()) || below.read(offset, bytes) == 0) return patch(offset, bytes);
    return readAround(offset, bytes);
}

/* Whether it lies in one unit that is kept whole. */
bool Overlay::inWholeUnit(uint64_t offset, size_t count) const {
    const uint32_t slot = index.slotOf(offset / unitSize);
    return slot != ChangedUnits::noSlot && !isPatch(slot) && offset % unitSize + count <= unitSize;
}

/* Where one of them fails, which may be below what was changed, each is read by itself. */
DeviceError Overlay::readAll(std::span<const DeviceRead> reads) {
    return guardedOr<DeviceError>(ENOMEM, [&]() -> DeviceError {
        std::vector<DeviceRead> misses;
        std::copy_if(reads.begin(), reads.end(), std::back_inserter(misses),
                     [&](const DeviceRead& one) { return !inWholeUnit(one.offset, one.bytes.size()); });
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

/* A unit's new contents, and what lies below it where that is known. It is in the index only when they are
 * there whole. The slot is the one that the unit has: no whole one, for that is written to in its place. */
DeviceError Overlay::keep(uint64_t unit, uint32_t slot, Bytes lies, Bytes contents) {
    std::array<uint8_t, patchSize> patch;
    const bool little = !lies.empty() && makePatch(lies, contents, patch);
    const bool isNew = slot == ChangedUnits::noSlot;
    if (little && isNew && isEmptyPatch(patch)) return 0;
    if ((little ? patchSlots : wholeSlots) >= patchBit - 2) return remembered(EFBIG);
    if (!little || isNew) slot = little ? patchSlots | patchBit : wholeSlots;
    const DeviceError error =
        little ? patches.write(slot & ~patchBit, 0, patch) : wholes.write(slot, 0, contents);
    if (error != 0) return remembered(error);
    if (little && !isNew) return 0;
    index.put(unit, slot);
    ++(little ? patchSlots : wholeSlots);
    return 0;
}

/* A part of one unit. */
DeviceError Overlay::writeUnit(uint64_t unit, size_t start, Bytes bytes) {
    const uint32_t slot = index.slotOf(unit);
    if (slot != ChangedUnits::noSlot && !isPatch(slot)) return remembered(wholes.write(slot, start, bytes));
    std::array<uint8_t, unitSize> lies, contents;
    const auto length = static_cast<size_t>(std::min<uint64_t>(unitSize, size() - unit * unitSize));
    const bool covered = bytes.size() == length;
    bool known = false;
    if (compares || !covered) {
        const DeviceError error = below.read(unit * unitSize, std::span(lies).first(length));
        if (error != 0 && !covered) return error;
        known = compares && error == 0;
        contents = lies;
    }
    if (isPatch(slot) && !covered) {
        const DeviceError error =
            patchRun({unit, slot, 1}, unit * unitSize, std::span(contents).first(length));
        if (error != 0) return remembered(error);
    }
    std::copy(bytes.begin(), bytes.end(), contents.begin() + static_cast<std::ptrdiff_t>(start));
    return keep(unit, slot, Bytes(lies).first(known ? length : 0), Bytes(contents).first(length));
}

/* Whole units that can be kept at once; the others are left to further calls. */
DeviceError Overlay::writeRun(uint64_t unit, Bytes bytes, size_t& written) {
    uint64_t count = std::min<uint64_t>(bytes.size() / unitSize, unitsAtOnce);
    UnitRun run;
    const bool found = index.next(unit, count, run);
    const bool here = found && run.unit == unit;
    if (here) count = isPatch(run.slot) ? 1 : run.count;
    if (found && !here) count = std::min(count, run.unit - unit);
    written = count * unitSize;
    bytes = bytes.first(written);
    if (here && isPatch(run.slot)) return writeUnit(unit, 0, bytes);
    if (here) return remembered(wholes.write(run.slot, 0, bytes));
    there.resize(written);
    const bool known = compares && below.read(unit * unitSize, there) == 0;
    for (size_t at = 0; at < written; at += unitSize, ++unit) {
        const Bytes lies = known ? Bytes(there).subspan(at, unitSize) : Bytes();
        const DeviceError error = keep(unit, ChangedUnits::noSlot, lies, bytes.subspan(at, unitSize));
        if (error != 0) return error;
    }
    return 0;
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
