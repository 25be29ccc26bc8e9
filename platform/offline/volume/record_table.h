/* SPDX-License-Identifier: GPL-2.0-or-later */
/* What the MFT says of every file, in a few bytes each. Private to this room. */
#ifndef QUILLET_OFFLINE_VOLUME_RECORD_TABLE_H
#define QUILLET_OFFLINE_VOLUME_RECORD_TABLE_H

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

namespace offline {

/* What a walk asks of a file whose first record tells all of it, and whose descriptor goes by its security
 * id. */
struct RecordFacts {
    static constexpr uint16_t unknown = UINT16_MAX;

    uint32_t securityId = 0;
    uint32_t name = 0;       /* hash of the directory and the name, of the first name that is no short one */
    uint16_t sequence = 0;   /* number */
    uint16_t kind = unknown; /* index into RecordTable::kinds; unknown: the record itself must be asked */
};

/* The attributes and the reparse tag of many files. */
struct RecordKind {
    uint32_t attributes = 0, reparseTag = 0; /* as FileInfo */
    bool operator==(const RecordKind&) const = default;
};

/* A stretch of the table. Where it holds a file of which nothing is known but the security id that is still
 * to be written, the mark in changed says so. */
struct RecordChunk {
    static constexpr size_t records = 1024;
    static constexpr size_t inWindow = 64; /* records that one read and one write are for */

    std::array<RecordFacts, records> facts;
    std::array<uint64_t, records / inWindow> changed =
        {}; /* a bit for each record whose id is to be written */
};

struct RecordTable {
    bool made = false;
    uint64_t asked = 0;                               /* records that were read one by one before */
    std::vector<std::unique_ptr<RecordChunk>> chunks; /* null: nothing is known there */
    std::vector<RecordKind> kinds;
    /* Of a file with several names the further ones: the record's number above the hash. In order. */
    std::vector<uint64_t> furtherNames;
    bool anyChanged = false;

    RecordChunk* chunkOf(uint64_t number) const {
        const uint64_t index = number / RecordChunk::records;
        return index < chunks.size() ? chunks[static_cast<size_t>(index)].get() : nullptr;
    }
};

} /* namespace offline */

#endif
