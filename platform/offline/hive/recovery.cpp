/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/hive/recovery.h"

#include <algorithm>
#include <bit>

#include "platform/offline/hive/base_block.h"
#include "platform/offline/hive/format.h"

namespace offline {
namespace {

using namespace regf;

/* ---- The hash of the new form's entries: Marvin32 with the platform's seed ---- */

struct Marvin {
    uint32_t low = 0x7A4E55C5;
    uint32_t high = 0x82EF4D88;

    void mix(uint32_t word) {
        low += word;
        high ^= low;
        low = std::rotl(low, 20) + high;
        high = std::rotl(high, 9) ^ low;
        low = std::rotl(low, 27) + high;
        high = std::rotl(high, 19);
    }
};

} /* namespace */

uint64_t marvin(Bytes bytes) {
    Marvin state;
    for (; bytes.size() >= 4; bytes = bytes.subspan(4)) state.mix(load<uint32_t>(bytes.data()));
    uint32_t tail = 0x80;
    for (size_t i = bytes.size(); i > 0; i--) tail = tail << 8 | bytes[i - 1];
    state.mix(tail);
    state.mix(0);
    return uint64_t{state.high} << 32 | state.low;
}

namespace {

/* ---- What logs hold ---- */

/* A log whose first sector is sound and of this type. */
bool isLog(Bytes log, uint32_t type) {
    return log.size() >= log::sectorSize && get(log, base::signature) == base::magic &&
           get(log, base::type) == type && baseBlockSealed(log);
}

bool plausibleBins(uint64_t size) {
    return size != 0 && size % pageSize == 0 && size <= largestBins;
}

/* The entry at an offset of a new log; empty when there is none that is whole. */
Bytes entryAt(Bytes log, size_t offset) {
    if (log.size() - offset < log::header) return {};
    const Bytes rest = log.subspan(offset);
    const uint32_t size = get(rest, log::size);
    if (get(rest, log::signature) != log::entryMagic || size < log::header || size % log::sectorSize != 0 ||
        size > rest.size()) {
        return {};
    }
    const Bytes entry = rest.first(size);
    const bool whole = marvin(entry.subspan(log::header)) == get(entry, log::bodyHash) &&
                       marvin(entry.first(log::headHash.at)) == get(entry, log::headHash);
    return whole && plausibleBins(get(entry, log::binsSize)) ? entry : Bytes();
}

/* The entries of a new log that follow each other from the one that its base block names. */
std::vector<Bytes> entriesOf(Bytes log) {
    std::vector<Bytes> entries;
    if (!isLog(log, log::newType)) return entries;
    uint32_t expected = get(log, base::primarySequence);
    for (size_t offset = log::sectorSize; offset < log.size(); expected++) {
        const Bytes entry = entryAt(log, offset);
        if (entry.empty() || get(entry, log::sequence) != expected) break;
        entries.push_back(entry);
        offset += entry.size();
    }
    return entries;
}

uint32_t firstSequence(const std::vector<Bytes>& entries) {
    return get(entries.front(), log::sequence);
}
uint32_t lastSequence(const std::vector<Bytes>& entries) {
    return get(entries.back(), log::sequence);
}

/* ---- Applying ---- */

/* A hive file on its way to being whole. */
struct Recovery {
    std::vector<uint8_t>& bytes;
    std::vector<RecoveredPart>& parts;
    uint64_t mostBytes; /* as many as the file and its logs can fill */
};

bool makeRoom(const Recovery& recovery, uint32_t binsSize) {
    const uint64_t size = pageSize + uint64_t{binsSize};
    if (size > recovery.mostBytes) return false;
    if (recovery.bytes.size() < size) recovery.bytes.resize(static_cast<size_t>(size));
    return true;
}

void putPart(Recovery& recovery, uint32_t offset, Bytes part) {
    std::copy(part.begin(), part.end(), recovery.bytes.begin() + pageSize + offset);
    recovery.parts.push_back({offset, static_cast<uint32_t>(part.size())});
}

/* Writes what an entry holds; false, with nothing done, when its parts do not lie in it and in the bins. */
bool applyEntry(Recovery& recovery, Bytes entry) {
    const uint32_t binsSize = get(entry, log::binsSize);
    const uint64_t count = get(entry, log::count);
    if (count > (entry.size() - log::header) / log::partEntry) return false;
    const Bytes list = entry.subspan(log::header, static_cast<size_t>(count) * log::partEntry);
    Bytes rest = entry.subspan(log::header + list.size());
    uint64_t total = 0;
    for (size_t at = 0; at < list.size(); at += log::partEntry) {
        const Bytes part = list.subspan(at, log::partEntry);
        const uint64_t size = get(part, log::partSize);
        if (size == 0 || get(part, log::partOffset) + size > binsSize) return false;
        total += size;
    }
    if (total > rest.size() || !makeRoom(recovery, binsSize)) return false;
    for (size_t at = 0; at < list.size(); at += log::partEntry) {
        const Bytes part = list.subspan(at, log::partEntry);
        const uint32_t size = get(part, log::partSize);
        putPart(recovery, get(part, log::partOffset), rest.first(size));
        rest = rest.subspan(size);
    }
    return true;
}

/* Makes the base block what it is after the last entry that was applied. */
void settle(Recovery& recovery, Bytes entry) {
    const std::span<uint8_t> block(recovery.bytes.data(), base::size);
    set(block, base::binsSize, get(entry, log::binsSize));
    set(block, base::flags, (get(Bytes(block), base::flags) & ~1u) | (get(entry, log::flags) & 1u));
    const uint32_t above = get(entry, log::sequence) + 1;
    sealBaseBlock(block, above, above);
}

/* The base block of a log in place of the hive's own. */
void takeBaseBlock(Recovery& recovery, Bytes log) {
    const std::span<uint8_t> block(recovery.bytes.data(), base::size);
    std::copy_n(log.begin(), log::sectorSize, block.begin());
    set(block, base::type, 0);
}

bool applyEntries(Recovery& recovery, const std::vector<Bytes>& entries) {
    Bytes last;
    for (const Bytes entry : entries) {
        if (!applyEntry(recovery, entry)) break;
        last = entry;
    }
    if (last.empty()) return false;
    settle(recovery, last);
    return true;
}

/* The hive's base block is sound: what both logs hold beyond it, in the order of their numbers and without a
 * gap between them. */
bool applyBoth(Recovery& recovery, std::vector<Bytes> first, std::vector<Bytes> second) {
    const uint32_t reached = get(Bytes(recovery.bytes), base::secondarySequence);
    const auto stale = [&](const std::vector<Bytes>& entries) {
        return entries.empty() || firstSequence(entries) < reached;
    };
    if (stale(first)) first.clear();
    if (stale(second)) second.clear();
    if (first.empty() || (!second.empty() && firstSequence(second) < firstSequence(first))) {
        std::swap(first, second);
    }
    if (!first.empty() && !second.empty() && firstSequence(second) == lastSequence(first) + 1) {
        first.insert(first.end(), second.begin(), second.end());
    }
    return applyEntries(recovery, first);
}

/* Whether the file has bins of this size together, one after the other. */
bool fileHasBins(Bytes file, uint32_t binsSize) {
    const Bytes bins = file.subspan(base::size);
    size_t offset = 0;
    while (offset < binsSize && bins.size() - offset >= bin::headerSize) {
        const Bytes header = bins.subspan(offset, bin::headerSize);
        const uint32_t size = get(header, bin::size);
        if (get(header, bin::signature) != bin::magic || get(header, bin::offset) != offset || size == 0)
            break;
        if (size % pageSize != 0 || size > bins.size() - offset) break;
        offset += size;
    }
    return offset == binsSize;
}

/* The hive's base block is lost and nothing is waiting in the logs: the bins are as they were written last,
 * and a log's base block counts them if they are all there. */
bool applyBaseBlock(Recovery& recovery, Bytes log) {
    if (!isLog(log, log::newType) || !fileHasBins(recovery.bytes, get(log, base::binsSize))) return false;
    takeBaseBlock(recovery, log);
    const uint32_t above = get(log, base::primarySequence) + 1;
    sealBaseBlock({recovery.bytes.data(), base::size}, above, above);
    return true;
}

/* The number of a log's base block; 0 for what is no log. */
uint32_t reachedBy(Bytes log) {
    return isLog(log, log::newType) ? get(log, base::primarySequence) : 0;
}

/* The hive's base block is lost: the log with the latest entries, and its base block. */
bool applyLatest(Recovery& recovery, const HiveLogs& logs, const std::vector<Bytes>& first,
                 const std::vector<Bytes>& second) {
    const bool useSecond = first.empty() || (!second.empty() && lastSequence(second) > lastSequence(first));
    const std::vector<Bytes>& entries = useSecond ? second : first;
    if (entries.empty()) {
        const bool secondLater = reachedBy(logs.second) > reachedBy(logs.first);
        return applyBaseBlock(recovery, secondLater ? logs.second : logs.first) ||
               applyBaseBlock(recovery, secondLater ? logs.first : logs.second);
    }
    takeBaseBlock(recovery, useSecond ? logs.second : logs.first);
    return applyEntries(recovery, entries);
}

bool applyNewLogs(Recovery& recovery, const HiveLogs& logs) {
    const std::vector<Bytes> first = entriesOf(logs.first);
    const std::vector<Bytes> second = entriesOf(logs.second);
    return baseBlockSealed(recovery.bytes) ? applyBoth(recovery, first, second)
                                           : applyLatest(recovery, logs, first, second);
}

/* The time of the last write, by which a hive and an old log know each other. */
uint64_t lastWrite(Bytes file) {
    if (baseBlockSealed(file)) return get(file, base::lastWrite);
    const Bytes firstBin = file.subspan(base::size);
    return firstBin.size() < bin::headerSize ? 0 : get(firstBin, bin::lastWrite);
}

bool applyOldLog(Recovery& recovery, Bytes log) {
    if (!isLog(log, log::oldType) || log.size() < log::bits ||
        get(log, base::primarySequence) != get(log, base::secondarySequence) ||
        load<uint32_t>(log.data() + log::sectorSize) != log::dirtyMagic ||
        get(log, base::lastWrite) != lastWrite(recovery.bytes)) {
        return false;
    }
    const uint32_t binsSize = get(log, base::binsSize);
    const size_t sectors = binsSize / log::sectorSize;
    const size_t bitmapEnd = log::bits + (sectors + 7) / 8;
    const size_t data = (bitmapEnd + log::sectorSize - 1) / log::sectorSize * log::sectorSize;
    if (!plausibleBins(binsSize) || data > log.size()) return false;
    const auto isDirty = [&](size_t sector) {
        return (log[log::bits + sector / 8] >> (sector % 8) & 1) != 0;
    };
    size_t dirty = 0;
    for (size_t sector = 0; sector < sectors; sector++) dirty += isDirty(sector) ? 1 : 0;
    if (dirty > (log.size() - data) / log::sectorSize || !makeRoom(recovery, binsSize)) return false;
    Bytes rest = log.subspan(data);
    for (size_t sector = 0; sector < sectors; sector++) {
        if (!isDirty(sector)) continue;
        putPart(recovery, static_cast<uint32_t>(sector * log::sectorSize), rest.first(log::sectorSize));
        rest = rest.subspan(log::sectorSize);
    }
    takeBaseBlock(recovery, log);
    const uint32_t above = get(log, base::primarySequence) + 1;
    sealBaseBlock({recovery.bytes.data(), base::size}, above, above);
    return true;
}

} /* namespace */

bool applyLogs(std::vector<uint8_t>& bytes, const HiveLogs& logs, std::vector<RecoveredPart>& parts) {
    parts.clear();
    if (bytes.size() < base::size) return false;
    Recovery recovery{bytes, parts, bytes.size() + logs.first.size() + logs.second.size()};
    return applyNewLogs(recovery, logs) || applyOldLog(recovery, logs.first) ||
           applyOldLog(recovery, logs.second);
}

} /* namespace offline */
