/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/device/gather.h"

#include <algorithm>

#include "platform/offline/base/progress.h"
#include "platform/offline/device/device_error.h"

namespace offline {
namespace {

/* What a file system gives back at the least: a change in a hole takes a block of this size from it, so that
 * the whole block is journalled as a hole and can become one again. */
constexpr uint64_t blockSize = 4096;
constexpr uint64_t windowSize = uint64_t{256} << 10; /* what a processor has at hand */
static_assert(windowSize <= journal::piece::maxStretch);
constexpr uint64_t readThrough = 32 * blockSize; /* unchanged bytes, rather than reading twice */

constexpr uint64_t readAhead = 4 * windowSize; /* bytes that are read at once */

/* A part of the disk that is compared in one go, and what it holds there, where that was read already. */
struct Window {
    uint64_t start, end;
    ByteVector before;
};

struct Gathering {
    const JournalHead& head;
    std::span<const TransactionDisk> disks;
    JournalWriter& journal;
    Problem& problem;
    const std::vector<MarkedRange> ranges = markedRanges(head);
    bool onlyLook = true; /* whether anything differs */
    bool found = false;
    size_t disk = 0;
    std::vector<Window> windows = {};   /* the next ones */
    ByteVector before = {}, after = {}; /* of the window */
    ChangedStretch grown = {};          /* the stretch in hand, in the window */

    NTSTATUS gatherAll();
    NTSTATUS addMarked();

private:
    NTSTATUS load(uint64_t start, uint64_t end, ByteVector&& ahead = {});
    bool nextWindows(uint64_t& from);
    NTSTATUS gatherDisk();
    NTSTATUS gatherUnits(uint64_t start, uint64_t end);
    NTSTATUS compareWindow(uint64_t start);
    NTSTATUS compareBlock(uint64_t start, uint64_t offset, uint64_t end);
    void grow(uint64_t start, uint64_t offset, uint64_t end, bool hole);
    void addGrown();

    bool isHole(Bytes there, uint64_t offset) const {
        return allZero(there) && disks[disk].device->holeAt(offset, there.size()) == there.size();
    }
    bool enough() const { return (onlyLook && found) || (journal.error != 0 && !noRoom(journal.error)); }
    bool differs(uint64_t start, uint64_t from, uint64_t to) const {
        return !sameBytes(Bytes(before).subspan(from - start, to - from),
                          Bytes(after).subspan(from - start, to - from));
    }
};

/* The bytes as they are, and as they are to be. */
NTSTATUS Gathering::load(uint64_t start, uint64_t end, ByteVector&& ahead) {
    const TransactionDisk& one = disks[disk];
    const bool there = !ahead.empty();
    before = std::move(ahead);
    before.resize(end - start);
    DeviceError error = there ? 0 : one.device->read(start, before);
    if (error != 0) {
        return refuse(problem, deviceStatus(error),
                      one.device->name() + ": what is to be changed there can't be read (" +
                          one.device->reason(error) + ")");
    }
    after.resize(before.size());
    error = one.overlay->patch(start, after, before);
    if (error == 0) return STATUS_SUCCESS;
    return refuse(problem, deviceStatus(error),
                  one.overlay->directory() + ": the temporary file there can't be read (" +
                      deviceErrorText(error) + ")");
}

/* ---- The marked stretches ---- */

/* All of them, for the marks are written over them whether they differ in the end or not. */
NTSTATUS Gathering::addMarked() {
    for (const MarkedRange& range : ranges) {
        disk = range.disk;
        for (uint64_t start = range.start; start < range.end; start += windowSize) {
            const NTSTATUS status = load(start, std::min(range.end, start + windowSize));
            if (status < 0) return status;
            journal.add({disk, start, true, false, before, after});
        }
    }
    return STATUS_SUCCESS;
}

/* ---- All others ---- */

void Gathering::addGrown() {
    if (!grown.before.empty()) journal.add(grown);
    grown.before = {};
}

/* Lengthens the stretch in hand, or puts it away and takes up another. */
void Gathering::grow(uint64_t start, uint64_t offset, uint64_t end, bool hole) {
    const bool goesOn = grown.offset + grown.before.size() == offset && grown.hole == hole;
    if (grown.before.empty() || !goesOn) {
        addGrown();
        grown = {disk, offset, false, hole, {}, {}};
    }
    grown.before = Bytes(before).subspan(grown.offset - start, end - grown.offset);
    grown.after = Bytes(after).subspan(grown.offset - start, end - grown.offset);
    progressAdd(end - offset);
}

/* One block of the window that was loaded from the start. */
NTSTATUS Gathering::compareBlock(uint64_t start, uint64_t offset, uint64_t end) {
    if (!differs(start, offset, end)) return STATUS_SUCCESS;
    if (offset < journal::identityBytes) {
        return refuse(
            problem, STATUS_INVALID_PARAMETER,
            disks[disk].device->name() + ": its beginning would change, by which its journal knows it");
    }
    found = true;
    if (onlyLook) return STATUS_SUCCESS;
    const bool marks = markedIn(ranges, disk, offset, end) != nullptr;
    if (!marks && isHole(Bytes(before).subspan(offset - start, end - offset), offset)) {
        grow(start, offset, end, true);
        return STATUS_SUCCESS;
    }
    for (uint64_t unit = offset; unit < end; unit += unitSize) {
        const uint64_t unitEnd = std::min(end, unit + unitSize);
        if (marks && markedIn(ranges, disk, unit, unitEnd) != nullptr) continue;
        if (differs(start, unit, unitEnd)) grow(start, unit, unitEnd, false);
    }
    return STATUS_SUCCESS;
}

NTSTATUS Gathering::compareWindow(uint64_t start) {
    const uint64_t end = start + before.size();
    for (uint64_t block = start, next = 0; block < end; block = next) {
        next = std::min(end, block - block % blockSize + blockSize);
        const NTSTATUS status = compareBlock(start, block, next);
        if (status < 0) return status;
    }
    addGrown();
    return STATUS_SUCCESS;
}

/* One by one: what lies between the changed units can't be read. */
NTSTATUS Gathering::gatherUnits(uint64_t start, uint64_t end) {
    const TransactionDisk& one = disks[disk];
    for (uint64_t unit = start; one.overlay->nextChanged(unit, unit) && unit < end; unit += unitSize) {
        NTSTATUS status = load(unit, std::min(unit + unitSize, one.device->size()));
        if (status >= 0) status = compareWindow(unit);
        if (status < 0) return status;
    }
    return STATUS_SUCCESS;
}

/* The windows from there on that are worth reading at once; false when there is none. Where one can't be
 * read, each is by itself. */
bool Gathering::nextWindows(uint64_t& from) {
    const TransactionDisk& one = disks[disk];
    const size_t most = onlyLook ? 1 : one.device->readsAtOnce();
    uint64_t changed = 0, bytes = 0;
    windows.clear();
    while (windows.size() < most && bytes < readAhead && one.overlay->nextChanged(from, changed)) {
        const uint64_t start = changed - changed % blockSize;
        from = windowEnd(one, start);
        windows.push_back({start, std::min(from, one.device->size()), {}});
        bytes += from - start;
    }
    if (windows.size() < 2) return !windows.empty();
    std::vector<DeviceRead> reads;
    for (Window& window : windows) {
        window.before.resize(window.end - window.start);
        reads.push_back({window.start, window.before});
    }
    if (one.device->readAll(reads) == 0) return true;
    for (Window& window : windows) window.before.clear();
    return true;
}

NTSTATUS Gathering::gatherDisk() {
    uint64_t from = 0;
    while (!enough() && nextWindows(from)) {
        for (Window& window : windows) {
            NTSTATUS status = load(window.start, window.end, std::move(window.before));
            status = status < 0 ? gatherUnits(window.start, window.end) : compareWindow(window.start);
            if (status < 0) return status;
        }
    }
    return STATUS_SUCCESS;
}

NTSTATUS Gathering::gatherAll() {
    NTSTATUS status = STATUS_SUCCESS;
    for (disk = 0; disk < disks.size() && status >= 0; ++disk) status = gatherDisk();
    return status;
}

} /* namespace */

uint64_t windowEnd(const TransactionDisk& disk, uint64_t start) {
    uint64_t end = start + blockSize, changed = 0;
    while (disk.overlay->nextChanged(end, changed) && changed < end + readThrough) {
        const uint64_t further = changed - changed % blockSize + blockSize;
        if (further - start > windowSize) break;
        end = further;
    }
    return end;
}

NTSTATUS gatherStretches(JournalFiles& files, const std::string& path, const JournalHead& head,
                         std::span<const TransactionDisk> disks, JournalWriter& journal, Problem& problem) {
    Gathering gathering{head, disks, journal, problem};
    NTSTATUS status = gathering.gatherAll();
    if (status < 0 || !gathering.found) return status;
    journal.begin(files, path, head);
    gathering.onlyLook = false;
    status = gathering.addMarked();
    return status < 0 ? status : gathering.gatherAll();
}

} /* namespace offline */
