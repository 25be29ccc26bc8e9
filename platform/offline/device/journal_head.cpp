/* SPDX-License-Identifier: GPL-2.0-or-later */
#include <algorithm>

#include "platform/offline/device/journal_format.h"
#include "platform/offline/device/unit_store.h"

namespace offline {

std::vector<MarkedRange> markedRanges(const JournalHead& head) {
    std::vector<MarkedRange> ranges;
    for (const DirtyMark& mark : head.marks) {
        const uint64_t start = mark.offset - mark.offset % unitSize;
        const uint64_t end = journal::roundUp(mark.offset + mark.bytes.size(), unitSize);
        ranges.push_back({mark.disk, start, std::min(end, head.disks[mark.disk].size)});
    }
    std::sort(ranges.begin(), ranges.end(), [](const MarkedRange& one, const MarkedRange& other) {
        return one.disk != other.disk ? one.disk < other.disk : one.start < other.start;
    });
    size_t kept = 0;
    for (const MarkedRange& range : ranges) {
        if (kept > 0 && ranges[kept - 1].disk == range.disk && range.start <= ranges[kept - 1].end) {
            ranges[kept - 1].end = std::max(ranges[kept - 1].end, range.end);
        } else {
            ranges[kept++] = range;
        }
    }
    ranges.resize(kept);
    return ranges;
}

const MarkedRange* markedIn(const std::vector<MarkedRange>& ranges, size_t disk, uint64_t start,
                            uint64_t end) {
    for (const MarkedRange& range : ranges) {
        if (range.disk == disk && range.start < end && start < range.end) return &range;
    }
    return nullptr;
}

ByteVector encodedHead(const JournalHead& head) {
    using namespace journal;
    size_t size = head::size + head.undoFile.size();
    for (const JournalDisk& disk : head.disks) size += head::diskSize + disk.path.size();
    for (const DirtyMark& mark : head.marks) size += head::markSize + mark.bytes.size();
    ByteVector bytes(size);
    std::copy(headMagic.begin(), headMagic.end(), bytes.begin());
    put(bytes, head::version, version);
    put(bytes, head::kind, head.kind);
    put(bytes, head::id, head.id);
    put(bytes, head::time, head.time);
    put(bytes, head::disks, static_cast<uint32_t>(head.disks.size()));
    put(bytes, head::marks, static_cast<uint32_t>(head.marks.size()));
    put(bytes, head::bodyLength, static_cast<uint32_t>(size - head::size));
    put(bytes, head::undoFileLength, static_cast<uint32_t>(head.undoFile.size()));
    size_t at = head::size;
    for (const JournalDisk& disk : head.disks) {
        put(bytes, at, disk.size);
        put(bytes, at + 8, disk.identity);
        put(bytes, at + 24, static_cast<uint32_t>(disk.path.size()));
        at += head::diskSize;
        std::copy(disk.path.begin(), disk.path.end(), bytes.begin() + static_cast<std::ptrdiff_t>(at));
        at += disk.path.size();
    }
    for (const DirtyMark& mark : head.marks) {
        put(bytes, at, static_cast<uint32_t>(mark.disk));
        put(bytes, at + 4, static_cast<uint32_t>(mark.bytes.size()));
        put(bytes, at + 8, mark.offset);
        at += head::markSize;
        std::copy(mark.bytes.begin(), mark.bytes.end(), bytes.begin() + static_cast<std::ptrdiff_t>(at));
        at += mark.bytes.size();
    }
    std::copy(head.undoFile.begin(), head.undoFile.end(), bytes.begin() + static_cast<std::ptrdiff_t>(at));
    put(bytes, head::sum, checksum(bytes));
    return bytes;
}

} /* namespace offline */
