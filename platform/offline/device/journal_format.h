/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The file of a journal, which as an undo file is the same, and of a pointer to one. Numbers are
 * little-endian, checksums XXH3 of 64 bits, offsets and lengths in bytes.
 *
 *   head       what journal it is, of which disks, and the dirty marks
 *   pieces     stretches with what they held before and checksums of what will replace it; first the pieces
 *              with the marked stretches, which hold the marks, then the others; in each of these two
 *              classes ascending by disk and offset, no two stretches overlapping
 *   zeros      up to a multiple of 512
 *   closing    one sector, written when all before it is on its medium
 *
 * Head: magic (8), version (4), kind (4), id (16), time (8: nanoseconds since 1970), disks (4), marks (4),
 * length of what follows (4), length of the undo file's path (4), checksum of all of the head with zero in
 * this place (8). Then for each disk: its size (8), the digest of its first 8192 bytes (16), the length of
 * its journal's path (4), the path. Then for each mark: disk (4), length (4), offset (8), its bytes. Then the
 * undo file's path, where one was named.
 *
 * Piece: magic (4), disk (4), flags (4: 1 marked, 2 compressed), stretches (4), length of the table (4), of
 * the images (4) and of these as they are stored (4), zero (4), checksum of the piece with zero in this place
 * (8). Then the table: for each stretch offset (8), length (4), flags (4: 1 a hole); then for all stretches
 * the checksum (8) of what will replace each 512 bytes. Then the images: for all stretches that are no hole
 * what they held; stored as one zstd frame where the flag says so. A medium writes 512 bytes whole or not at
 * all, so that after any interruption each holds the old bytes, or the new, or the mark's.
 *
 * Closing: magic (8), id (16), length of head and pieces (8), number of stretches (8), their bytes (8),
 * checksum of head and pieces (8), checksum of this record with zero in this place (8); zeros.
 *
 * A pointer is a head alone, of kind pointer, with the id of the journal; its one disk is the one that it
 * lies beside, but the path is the journal's. */
#ifndef QUILLET_OFFLINE_DEVICE_JOURNAL_FORMAT_H
#define QUILLET_OFFLINE_DEVICE_JOURNAL_FORMAT_H

#include <string>
#include <string_view>
#include <vector>

#include "platform/offline/base/bytes.h"
#include "platform/offline/device/checksum.h"

namespace offline {

/* ---- What a head says ---- */

struct JournalDisk {
    uint64_t size = 0;
    Digest identity = {};
    std::string path; /* absolute, of the disk's journal or pointer; of a pointer's disk: of the journal */
};

/* What a volume's dirty mark looks like: whole sectors, as they lie on the disk while it is being written. */
struct DirtyMark {
    size_t disk = 0;
    uint64_t offset = 0; /* a multiple of 512, as the length is */
    ByteVector bytes;
};

enum class JournalKind : uint32_t { journal = 1, pointer = 2 };

struct JournalHead {
    JournalKind kind = JournalKind::journal;
    std::array<uint8_t, 16> id = {}; /* random */
    uint64_t time = 0;
    std::vector<JournalDisk> disks;
    std::vector<DirtyMark> marks;
    std::string undoFile; /* absolute, when one was named; else "" */
};

/* The part of a disk that its marks cover, in whole units; ascending, apart from each other. */
struct MarkedRange {
    size_t disk = 0;
    uint64_t start = 0, end = 0;
};
std::vector<MarkedRange> markedRanges(const JournalHead& head);

/* The range that overlaps these bytes of the disk; null when none does. */
const MarkedRange* markedIn(const std::vector<MarkedRange>& ranges, size_t disk, uint64_t start,
                            uint64_t end);

ByteVector encodedHead(const JournalHead& head);

/* ---- Numbers of the format ---- */

namespace journal {

constexpr std::string_view headMagic = "quilletJ", closingMagic = "quilletE";
constexpr uint32_t version = 1, pieceMagic = 0x63656970;
constexpr uint64_t tornAt = 512;         /* what a medium writes whole or not at all */
constexpr uint64_t identityBytes = 8192; /* at a disk's start; a run never changes them */

namespace head {
constexpr size_t version = 8, kind = 12, id = 16, time = 32, disks = 40, marks = 44, bodyLength = 48,
                 undoFileLength = 52, sum = 56, size = 64;
constexpr size_t diskSize = 28, markSize = 16; /* before a path, before a mark's bytes */
constexpr uint32_t maxBody = 16u << 20;
} /* namespace head */

namespace piece {
constexpr size_t disk = 4, flags = 8, stretches = 12, table = 16, images = 20, stored = 24, sum = 32,
                 size = 40;
constexpr uint32_t marked = 1, compressed = 2;
constexpr uint32_t maxStretch = 1u << 20; /* of one stretch, and of all images */
constexpr uint32_t maxTable = 64u << 10;
} /* namespace piece */

namespace stretch {
constexpr size_t offset = 0, length = 8, flags = 12, size = 16;
constexpr uint32_t hole = 1;
} /* namespace stretch */

namespace closing {
constexpr size_t id = 8, length = 24, stretches = 32, bytes = 40, sumOfAll = 48, sum = 56, used = 64,
                 size = 512;
} /* namespace closing */

inline uint64_t roundUp(uint64_t value, uint64_t unit) {
    return (value + unit - 1) / unit * unit;
}

/* How many checksums a stretch has. */
inline size_t sectorsOf(uint64_t length) {
    return static_cast<size_t>(roundUp(length, tornAt) / tornAt);
}

template <class Number>
void put(std::span<uint8_t> bytes, size_t offset, Number number) {
    std::memcpy(bytes.subspan(offset, sizeof number).data(), &number, sizeof number);
}

} /* namespace journal */

} /* namespace offline */

#endif
