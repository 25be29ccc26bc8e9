/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/device/unit_patch.h"

#include <algorithm>

namespace offline {
namespace {

constexpr uint16_t endOfPatch = 0xffff;
constexpr size_t headerSize = sizeof(uint16_t), maxLength = 64;

/* Whether so many bytes at the offset are the same; without a call, for most of a unit is. */
template <size_t count>
bool sameAt(Bytes below, Bytes changed, size_t at) {
    if (at % count != 0 || below.size() - at < count) return false;
    uint64_t difference = 0;
    for (size_t i = 0; i < count; i += sizeof difference) {
        difference |= numberAt<uint64_t>(below, at + i) ^ numberAt<uint64_t>(changed, at + i);
    }
    return difference == 0;
}

/* The first byte from there on that differs. */
size_t nextDifference(Bytes below, Bytes changed, size_t at) {
    while (at < below.size()) {
        if (sameAt<64>(below, changed, at)) {
            at += 64;
        } else if (sameAt<8>(below, changed, at)) {
            at += 8;
        } else if (below[at] == changed[at]) {
            ++at;
        } else {
            break;
        }
    }
    return at;
}

/* Behind the last byte that goes into one run with the one that differs: as far as another header costs more
 * than the equal bytes between. */
size_t runEnd(Bytes below, Bytes changed, size_t start) {
    size_t end = start + 1;
    for (size_t at = end; at < std::min(below.size(), start + maxLength) && at <= end + headerSize; ++at) {
        if (below[at] != changed[at]) end = at + 1;
    }
    return end;
}

} /* namespace */

bool makePatch(Bytes below, Bytes changed, Patch patch) {
    size_t used = 0;
    for (size_t at = nextDifference(below, changed, 0); at < below.size();) {
        const size_t end = runEnd(below, changed, at), length = end - at;
        if (headerSize + length > patch.size() - used) return false;
        const auto header = static_cast<uint16_t>(at | (length - 1) << 10);
        std::memcpy(&patch[used], &header, headerSize);
        std::memcpy(&patch[used + headerSize], &changed[at], length);
        used += headerSize + length;
        at = nextDifference(below, changed, end);
    }
    std::fill(patch.begin() + static_cast<std::ptrdiff_t>(used), patch.end(), uint8_t{0xff});
    return true;
}

bool isEmptyPatch(PatchBytes patch) {
    return numberAt<uint16_t>(patch, 0) == endOfPatch;
}

void applyPatch(PatchBytes patch, size_t offset, std::span<uint8_t> part) {
    for (size_t at = 0; at + headerSize < patch.size();) {
        const auto header = numberAt<uint16_t>(patch, at);
        if (header == endOfPatch) break;
        const size_t start = header & 0x3ff, length = (header >> 10) + size_t{1};
        const size_t from = std::max(start, offset), to = std::min(start + length, offset + part.size());
        const size_t run = at + headerSize;
        if (from < to) std::memcpy(&part[from - offset], &patch[run + from - start], to - from);
        at = run + length;
    }
}

} /* namespace offline */
