/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/device/playback.h"

#include <algorithm>

#include "platform/offline/base/progress.h"
#include "platform/offline/device/device_error.h"
#include "platform/offline/device/gather.h"
#include "platform/offline/device/pointers.h"

namespace offline {
namespace {

NTSTATUS refusePlace(const TransactionDisk& disk, const char* what, uint64_t offset, size_t length,
                     DeviceError error, Problem& problem) {
    return refuseDevice(disk,
                        std::to_string(length) + " bytes at " + std::to_string(offset) + " can't be " + what,
                        error, problem);
}

/* ---- Writing ---- */

struct Playback {
    JournalReader& journal;
    const JournalDisks& disks;
    Side side;
    Problem& problem;
    std::vector<bool> written; /* which disks are to be flushed */
    bool sparing = false;      /* only what is not there is written, and only then the marks */
    bool marked = false;
    bool full = false; /* a disk had no room */
    ByteVector fresh = {}, there = {};
    ByteVector below = {}; /* what this disk held: */
    const TransactionDisk* lastRead = nullptr;
    uint64_t belowStart = 0;

    NTSTATUS mark();
    NTSTATUS play();
    NTSTATUS prepare(const TransactionDisk& disk, uint64_t offset, Bytes bytes, bool& needed);
    NTSTATUS put(const TransactionDisk& disk, size_t index, uint64_t offset, Bytes bytes);
    NTSTATUS putStretch(const JournalStretch& stretch);
    NTSTATUS readBelow(const TransactionDisk& disk, const JournalStretch& stretch, std::span<uint8_t>& bytes);
    NTSTATUS bytesBelow(const TransactionDisk& disk, const JournalStretch& stretch,
                        std::span<uint8_t>& bytes);
    NTSTATUS freshBytes(const TransactionDisk& disk, const JournalStretch& stretch, Bytes& bytes);
    NTSTATUS putPart(JournalPart part);
    NTSTATUS flushWritten();
};

/* (4) */
NTSTATUS Playback::mark() {
    marked = true;
    NTSTATUS status = STATUS_SUCCESS;
    for (const DirtyMark& mark : journal.head.marks) {
        if (status >= 0) status = put(*disks[mark.disk], mark.disk, mark.offset, mark.bytes);
    }
    return status < 0 ? status : flushWritten();
}

/* Whether the bytes have to be written; then the marks are there. */
NTSTATUS Playback::prepare(const TransactionDisk& disk, uint64_t offset, Bytes bytes, bool& needed) {
    needed = true;
    if (sparing) {
        there.resize(bytes.size());
        const DeviceError error = disk.device->read(offset, there);
        if (error != 0) return refusePlace(disk, "read", offset, bytes.size(), error, problem);
        needed = !sameBytes(there, bytes);
    }
    return needed && !marked ? mark() : STATUS_SUCCESS;
}

NTSTATUS Playback::put(const TransactionDisk& disk, size_t index, uint64_t offset, Bytes bytes) {
    bool needed = true;
    const NTSTATUS status = prepare(disk, offset, bytes, needed);
    if (status < 0 || !needed) return status;
    written[index] = true;
    const DeviceError error = disk.device->write(offset, bytes);
    full = full || noRoom(error);
    return error == 0 ? STATUS_SUCCESS : refusePlace(disk, "written", offset, bytes.size(), error, problem);
}

/* What the stretch holds, read with the stretches after it that lie near: in ascending order none of them has
 * been written yet. */
NTSTATUS Playback::readBelow(const TransactionDisk& disk, const JournalStretch& stretch,
                             std::span<uint8_t>& bytes) {
    const uint64_t start = stretch.offset, end = start + stretch.length;
    if (lastRead != &disk || start < belowStart || end > belowStart + below.size()) {
        lastRead = nullptr;
        belowStart = start;
        below.resize(std::min(disk.device->size(), std::max(end, windowEnd(disk, start))) - start);
        DeviceError error = disk.device->read(start, below);
        if (error != 0) {
            below.resize(stretch.length);
            error = disk.device->read(start, below);
        }
        if (error != 0) return refusePlace(disk, "read", start, stretch.length, error, problem);
        lastRead = &disk;
    }
    bytes = std::span(below).subspan(start - belowStart, stretch.length);
    return STATUS_SUCCESS;
}

/* What the overlay changes: below its differences lies what the disk holds, in a hole zeros, in a marked
 * stretch what the journal says, for the disk bears the mark by now. */
NTSTATUS Playback::bytesBelow(const TransactionDisk& disk, const JournalStretch& stretch,
                              std::span<uint8_t>& bytes) {
    if (!stretch.hole && !stretch.marked && disk.overlay->needsBelow(stretch.offset, stretch.length)) {
        return readBelow(disk, stretch, bytes);
    }
    fresh.resize(stretch.length);
    if (stretch.hole) std::fill(fresh.begin(), fresh.end(), uint8_t{0});
    bytes = fresh;
    return STATUS_SUCCESS;
}

/* What is to be written, if the overlay still holds what was journalled. */
NTSTATUS Playback::freshBytes(const TransactionDisk& disk, const JournalStretch& stretch, Bytes& bytes) {
    std::span<uint8_t> whole;
    const NTSTATUS status = bytesBelow(disk, stretch, whole);
    if (status < 0) return status;
    const DeviceError error = disk.overlay->patch(stretch.offset, whole, stretch.before);
    if (error != 0) {
        return refuse(problem, deviceStatus(error),
                      disk.overlay->directory() + ": the temporary file there can't be read (" +
                          deviceErrorText(error) + ")");
    }
    bytes = whole;
    Bytes left = whole;
    for (size_t sector = 0; !left.empty(); ++sector) {
        const Bytes part = left.first(std::min<size_t>(left.size(), journal::tornAt));
        if (checksum(part) != stretch.sumAt(sector)) {
            return refuse(problem, STATUS_IO_DEVICE_ERROR,
                          disk.overlay->directory() + ": the temporary file there, or " +
                              disk.device->name() +
                              ", does not hold any more what was written to it; check these media");
        }
        left = left.subspan(part.size());
    }
    return STATUS_SUCCESS;
}

NTSTATUS Playback::putStretch(const JournalStretch& stretch) {
    const TransactionDisk& disk = *disks[stretch.disk];
    progressAdd(stretch.length);
    if (side == Side::after) {
        Bytes bytes;
        const NTSTATUS status = freshBytes(disk, stretch, bytes);
        return status < 0 ? status : put(disk, stretch.disk, stretch.offset, bytes);
    }
    if (!stretch.hole) return put(disk, stretch.disk, stretch.offset, stretch.before);
    if (sparing && disk.device->holeAt(stretch.offset, stretch.length) == stretch.length) {
        return STATUS_SUCCESS;
    }
    const NTSTATUS status = marked ? STATUS_SUCCESS : mark();
    if (status < 0) return status;
    written[stretch.disk] = true;
    const DeviceError error = disk.device->zero(stretch.offset, stretch.length);
    full = full || noRoom(error);
    return error == 0 ? STATUS_SUCCESS
                      : refusePlace(disk, "written", stretch.offset, stretch.length, error, problem);
}

NTSTATUS Playback::putPart(JournalPart part) {
    const bool fromOverlay = side == Side::after && part == JournalPart::unmarked;
    const NTSTATUS status = journal.forStretches(
        part, fromOverlay ? JournalImages::asStored : JournalImages::unpacked,
        [&](const JournalStretch& stretch) { return putStretch(stretch); }, problem);
    return status < 0 ? status : flushWritten();
}

NTSTATUS Playback::flushWritten() {
    for (size_t index = 0; index < disks.size(); ++index) {
        if (!written[index]) continue;
        const DeviceError error = disks[index]->device->flush();
        full = full || noRoom(error);
        if (error != 0) return refuseDevice(*disks[index], "it can't be flushed", error, problem);
        written[index] = false;
    }
    return STATUS_SUCCESS;
}

NTSTATUS Playback::play() {
    NTSTATUS status = sparing ? STATUS_SUCCESS : mark();
    if (status >= 0) status = putPart(JournalPart::unmarked);
    marked = true; /* or not needed */
    return status < 0 ? status : putPart(JournalPart::marked);
}

/* An image that grows may have no room for what the run did not reach, and there the old bytes are. Not done
 * at first: of a medium that lost something the system may show what is not on it. */
NTSTATUS putBack(JournalReader& journal, const JournalDisks& disks, Problem& problem) {
    Playback whole{journal, disks, Side::before, problem, std::vector<bool>(disks.size())};
    const NTSTATUS status = whole.play();
    if (status >= 0 || !whole.full) return status;
    for (const TransactionDisk* const disk : disks) {
        static_cast<void>(disk->device->flush()); /* what was refused until then is known already */
    }
    problem = {};
    return Playback{journal, disks, Side::before, problem, std::vector<bool>(disks.size(), true), true}
        .play();
}

} /* namespace */

NTSTATUS playJournal(JournalReader& journal, const JournalDisks& disks, Side side, Problem& problem) {
    return Playback{journal, disks, side, problem, std::vector<bool>(disks.size())}.play();
}

NTSTATUS takeBackJournal(JournalFiles& files, JournalReader& journal, const JournalDisks& disks,
                         bool& oldBytesBack, Problem& problem) {
    oldBytesBack = false;
    const NTSTATUS status = putBack(journal, disks, problem);
    if (status < 0) return status;
    oldBytesBack = true;
    removeCopies(files, journal.head);
    int error = files.remove(journal.path);
    if (error == 0) error = files.flushDirectory(directoryOf(journal.path));
    if (error != 0) {
        return refuse(problem, deviceStatus(error),
                      journal.path + ": the old bytes are back, but the journal can't be removed (" +
                          deviceErrorText(error) + "); run `quillet-offline undo` before the disk is used");
    }
    removePointers(files, located(journal, disks));
    return STATUS_SUCCESS;
}

/* ---- Looking ---- */

namespace {

bool isMark(const JournalHead& head, size_t disk, uint64_t offset, Bytes sector) {
    for (const DirtyMark& mark : head.marks) {
        if (mark.disk != disk || offset < mark.offset) continue;
        if (sameBytes(checkedSpan(mark.bytes, offset - mark.offset, sector.size()), sector)) return true;
    }
    return false;
}

/* How many bytes of the stretch are none of those that may be there. */
uint64_t differingBytes(const JournalHead& head, const JournalStretch& stretch, Bytes there, bool anyState) {
    uint64_t differing = 0;
    size_t at = 0;
    for (size_t sector = 0; at < there.size(); ++sector) {
        const Bytes bytes = there.subspan(at, std::min<size_t>(there.size() - at, journal::tornAt));
        bool fits = checksum(bytes) == stretch.sumAt(sector);
        if (!fits && anyState) {
            fits = stretch.hole ? allZero(bytes) : sameBytes(bytes, stretch.before.subspan(at, bytes.size()));
        }
        if (!fits && anyState && stretch.marked) {
            fits = isMark(head, stretch.disk, stretch.offset + at, bytes);
        }
        if (!fits) differing += bytes.size();
        at += bytes.size();
    }
    return differing;
}

} /* namespace */

NTSTATUS compareDisks(JournalReader& journal, const JournalDisks& disks, bool anyState, Differences& found,
                      Problem& problem) {
    ByteVector there;
    return journal.forStretches(
        JournalPart::all, JournalImages::unpacked,
        [&](const JournalStretch& stretch) -> NTSTATUS {
            there.resize(stretch.length);
            const TransactionDisk& disk = *disks[stretch.disk];
            const DeviceError error = disk.device->read(stretch.offset, there);
            if (error != 0) {
                return refusePlace(disk, "read", stretch.offset, stretch.length, error, problem);
            }
            const uint64_t differing = differingBytes(journal.head, stretch, there, anyState);
            found.bytes += differing;
            found.stretches += differing > 0 ? 1 : 0;
            return STATUS_SUCCESS;
        },
        problem);
}

} /* namespace offline */
