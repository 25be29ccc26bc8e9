/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The MFT as a whole. A walk over a tree meets the files in any order, and a disk wants its records in its
 * own: so they are gone through once, front to back, and a few bytes are kept of each; and what is to be
 * written into them is collected, and written in one pass. */
#include "platform/offline/volume/open_volume.h"
/* before everything else */
#include <bit>
#include <cerrno>

#include "platform/offline/base/progress.h"

namespace offline {
namespace {

using ntfs3g::MFT_RECORD;

constexpr size_t stretchSize = 256 * 1024; /* bytes that are read at once */
constexpr size_t inWindow = RecordChunk::inWindow;

/* Records of the volume's own, and those of which the volume keeps a second copy, go through the library. */
uint64_t firstTabled(const Volume& volume) {
    return std::max(firstOrdinaryRecord, static_cast<uint64_t>(std::max(volume.ntfs->mftmirr_size, 0)));
}

/* Record numbers that fit beside a hash. */
constexpr uint64_t tabledRecords = uint64_t{1} << 32;

uint32_t nameHash(FileRef directory, Bytes name) {
    constexpr uint64_t spread = 0x9E3779B97F4A7C15; /* the golden ratio of 64 bits */
    uint64_t hash = (recordNumberOf(directory) + name.size()) * spread;
    while (!name.empty()) {
        uint64_t part = 0;
        const size_t count = std::min(name.size(), sizeof part);
        std::memcpy(&part, name.data(), count);
        hash = (std::rotl(hash, 29) ^ part) * spread;
        name = name.subspan(count);
    }
    return static_cast<uint32_t>(hash >> 32);
}

uint64_t furtherName(uint64_t number, uint32_t hash) {
    return number << 32 | hash;
}

/* ---- Reading ---- */

/* As a walk: what a directory's index may call the file. Short names stand beside long ones. */
void takeNames(RecordTable& table, Bytes record, uint64_t number, const FileRecord& file,
               RecordFacts& facts) {
    const Bytes used = checkedSpan(record, 0, numberAt<uint32_t>(record, offsetof(MFT_RECORD, bytes_in_use)));
    size_t offset = file.firstName;
    bool any = false;
    Attribute attribute;
    while (offset != 0 && attributeAt(used, offset, attribute) && attribute.type == ntfs3g::AT_FILE_NAME) {
        offset += attribute.header.size();
        FileName name;
        if (!takeFileName(attribute.value, name) || name.type == ntfs3g::FILE_NAME_DOS) continue;
        const uint32_t hash = nameHash(name.directory, name.text);
        if (any) table.furtherNames.push_back(furtherName(number, hash));
        if (!any) facts.name = hash;
        any = true;
    }
}

/* False when there are more kinds than the table has numbers for. */
bool takeKind(RecordTable& table, const FileInfo& info, RecordFacts& facts) {
    const RecordKind kind = {info.attributes, info.reparseTag};
    auto found = std::find(table.kinds.begin(), table.kinds.end(), kind);
    constexpr size_t most = 256;
    if (found == table.kinds.end() && table.kinds.size() == most) return false;
    if (found == table.kinds.end()) found = table.kinds.insert(found, kind);
    facts.kind = static_cast<uint16_t>(found - table.kinds.begin());
    return true;
}

void takeRecord(RecordTable& table, std::span<uint8_t> record, uint64_t number) {
    FileRecord file;
    if (!parseRecord(record, number, file) || !tellsAll(file)) return;
    if (file.securityId == 0 || file.ownDescriptor) return;
    RecordFacts facts;
    if (!takeKind(table, file.info, facts)) return;
    facts.securityId = file.securityId;
    facts.sequence = numberAt<uint16_t>(record, offsetof(MFT_RECORD, sequence_number));
    auto& chunk = table.chunks[static_cast<size_t>(number / RecordChunk::records)];
    if (chunk == nullptr) chunk = std::make_unique<RecordChunk>();
    takeNames(table, record, number, file, facts);
    chunk->facts[number % RecordChunk::records] = facts;
}

/* Takes the records of a stretch. Where the disk refuses it, smaller parts are tried; what it does not give,
 * or is damaged, is left to whoever asks for the record itself. */
void takeStretch(Volume& volume, uint64_t first, uint64_t place, std::span<uint8_t> bytes) {
    const size_t size = volume.ntfs->mft_record_size;
    const size_t small = inWindow * size;
    if (diskReadPast(*volume.device.disk, volume.device.start + place, bytes) < 0) {
        if (bytes.size() <= small) return;
        for (size_t at = 0; at < bytes.size(); at += small)
            takeStretch(volume, first + at / size, place + at,
                        bytes.subspan(at, std::min(small, bytes.size() - at)));
        return;
    }
    for (size_t at = 0; at < bytes.size(); at += size)
        takeRecord(volume.table, bytes.subspan(at, size), first + at / size);
}

bool liesOn(const Volume& volume, uint64_t place, uint64_t length) {
    return place <= volume.device.size && length <= volume.device.size - place;
}

void readTable(Volume& volume) {
    RecordTable& table = volume.table;
    table.made = true;
    const size_t size = volume.ntfs->mft_record_size;
    const uint64_t end = std::min(recordCount(volume), tabledRecords);
    const ProgressPart part({"Reading file records", end});
    std::vector<uint8_t> bytes(stretchSize);
    table.chunks.resize(static_cast<size_t>((end + RecordChunk::records - 1) / RecordChunk::records));
    for (uint64_t number = firstTabled(volume); number < end;) {
        uint64_t place = 0, length = 0, count = 1;
        if (recordPlace(volume, number, place, length)) {
            count = std::min({length / size, uint64_t{stretchSize / size}, end - number});
            if (liesOn(volume, place, count * size))
                takeStretch(volume, number, place, std::span(bytes).first(static_cast<size_t>(count) * size));
        }
        number += count;
        progressAdd(count);
    }
    std::sort(table.furtherNames.begin(), table.furtherNames.end());
}

/* Reading one record here and there costs a disk about as much as reading this many bytes on end. Once that
 * has come to as much as the whole, the whole is read: never more than twice what would have been best. */
bool worthReading(const Volume& volume) {
    constexpr uint64_t bytesForOne = 1024 * 1024;
    constexpr uint64_t fewest = 16;
    const uint64_t all = recordCount(volume) << volume.ntfs->mft_record_size_bits;
    return volume.table.asked > fewest + all / bytesForOne;
}

/* ---- Writing ---- */

uint64_t& windowOf(RecordChunk& chunk, uint64_t number) {
    return chunk.changed[number % RecordChunk::records / inWindow];
}
uint64_t bitOf(uint64_t number) {
    return uint64_t{1} << number % inWindow;
}

/* Some of the records of a window, in one piece on the disk. */
struct Stretch {
    uint64_t first = 0, end = 0; /* records */
    uint64_t place = 0;          /* bytes */
    std::span<uint8_t> bytes;
};

/* From the first changed record of a window on to the last that lies in one piece with it. */
bool nextStretch(const Volume& volume, uint64_t base, uint64_t changed, std::vector<uint8_t>& buffer,
                 Stretch& stretch) {
    const size_t size = volume.ntfs->mft_record_size;
    uint64_t length = 0;
    stretch.first = base + static_cast<uint64_t>(std::countr_zero(changed));
    stretch.end = base + static_cast<uint64_t>(std::bit_width(changed));
    if (!recordPlace(volume, stretch.first, stretch.place, length)) return false;
    stretch.end = std::min(stretch.end, stretch.first + length / size);
    buffer.resize(inWindow * size);
    stretch.bytes = std::span(buffer).first(static_cast<size_t>(stretch.end - stretch.first) * size);
    return liesOn(volume, stretch.place, stretch.bytes.size());
}

/* Puts the id into a record. Its update sequence is renewed as with every write. */
bool putId(std::span<uint8_t> record, uint64_t number, uint32_t id) {
    FileRecord file;
    if (!parseRecord(record, number, file) || file.securityIdOffset == 0) return false;
    std::memcpy(record.data() + file.securityIdOffset, &id, sizeof id);
    return ntfs3g::ntfs_mst_pre_write_fixup(reinterpret_cast<ntfs3g::NTFS_RECORD*>(record.data()),
                                            static_cast<uint32_t>(record.size())) == 0;
}

/* One read and one write. */
NTSTATUS writeStretch(Volume& volume, const RecordChunk& chunk, uint64_t changed, const Stretch& stretch) {
    const size_t size = volume.ntfs->mft_record_size;
    const uint64_t at = volume.device.start + stretch.place;
    NTSTATUS status = diskReadPast(*volume.device.disk, at, stretch.bytes);
    if (status < 0) return status;
    for (uint64_t number = stretch.first; number < stretch.end; ++number) {
        if ((changed & bitOf(number)) == 0) continue;
        beginCall(volume, number);
        const auto place = static_cast<size_t>(number - stretch.first) * size;
        if (!putId(stretch.bytes.subspan(place, size), number,
                   chunk.facts[number % RecordChunk::records].securityId))
            return libraryStatus(volume, 0);
        /* The library may keep a copy of the record from an earlier use, which must not come back. */
        ntfs3g::ntfs_inode_invalidate(volume.ntfs, number);
    }
    ++volume.device.writes;
    return diskWritePast(*volume.device.disk, at, stretch.bytes);
}

/* The changed records of a window; those that are written are changed no more. */
NTSTATUS writeWindow(Volume& volume, RecordChunk& chunk, uint64_t base, std::vector<uint8_t>& buffer) {
    uint64_t& changed = windowOf(chunk, base);
    uint64_t left = changed;
    NTSTATUS first = STATUS_SUCCESS;
    while (left != 0) {
        Stretch stretch;
        NTSTATUS status = nextStretch(volume, base, left, buffer, stretch)
                              ? writeStretch(volume, chunk, left, stretch)
                              : STATUS_FILE_CORRUPT_ERROR;
        const uint64_t count = stretch.end - stretch.first;
        const uint64_t tried = (count < inWindow ? (uint64_t{1} << count) - 1 : UINT64_MAX)
                               << (stretch.first - base);
        left &= ~tried;
        if (status >= 0) changed &= ~tried;
        if (status < 0 && first >= 0) first = status;
    }
    return first;
}

} /* namespace */

RecordFacts* factsOf(Volume& volume, FileRef file) {
    if (!volume.table.made) {
        if (!worthReading(volume)) return nullptr;
        readTable(volume);
    }
    const uint64_t number = recordNumberOf(file);
    RecordChunk* const chunk = volume.table.chunkOf(number);
    if (chunk == nullptr) return nullptr;
    RecordFacts& facts = chunk->facts[number % RecordChunk::records];
    const bool fits = MSEQNO(file) == 0 || MSEQNO(file) == facts.sequence;
    return facts.kind != RecordFacts::unknown && fits ? &facts : nullptr;
}

bool factsNamed(const Volume& volume, FileRef file, const RecordFacts& facts, FileRef directory,
                std::u16string_view name) {
    const uint32_t hash =
        nameHash(directory, {reinterpret_cast<const uint8_t*>(name.data()), name.size() * sizeof(char16_t)});
    const auto& further = volume.table.furtherNames;
    return hash == facts.name ||
           std::binary_search(further.begin(), further.end(), furtherName(recordNumberOf(file), hash));
}

void changeSecurityId(Volume& volume, FileRef file, RecordFacts& facts, uint32_t id) {
    const uint64_t number = recordNumberOf(file);
    facts.securityId = id;
    windowOf(*volume.table.chunkOf(number), number) |= bitOf(number);
    volume.table.anyChanged = true;
}

bool changedId(const Volume& volume, uint64_t number, uint32_t& id) {
    RecordChunk* const chunk = volume.table.chunkOf(number);
    if (chunk == nullptr || (windowOf(*chunk, number) & bitOf(number)) == 0) return false;
    id = chunk->facts[number % RecordChunk::records].securityId;
    return true;
}

void forgetChangedId(Volume& volume, uint64_t number) {
    if (RecordChunk* const chunk = volume.table.chunkOf(number)) windowOf(*chunk, number) &= ~bitOf(number);
}

void forgetRecord(Volume& volume, FileRef file) {
    volume.recordNumber = UINT64_MAX;
    const uint64_t number = recordNumberOf(file);
    if (RecordChunk* const chunk = volume.table.chunkOf(number))
        chunk->facts[number % RecordChunk::records].kind = RecordFacts::unknown;
}

NTSTATUS writeSecurityIds(Volume& volume) {
    RecordTable& table = volume.table;
    if (!table.anyChanged) return STATUS_SUCCESS;
    NTSTATUS first = STATUS_SUCCESS;
    std::vector<uint8_t> buffer;
    const ProgressPart part({"Writing file records", std::min(recordCount(volume), tabledRecords)});
    for (size_t index = 0; index < table.chunks.size(); ++index) {
        progressAdd(RecordChunk::records);
        if (table.chunks[index] == nullptr) continue;
        for (size_t window = 0; window < RecordChunk::records / inWindow; ++window) {
            const uint64_t base = index * RecordChunk::records + window * inWindow;
            const NTSTATUS status = writeWindow(volume, *table.chunks[index], base, buffer);
            if (status < 0 && first >= 0) first = status;
        }
    }
    table.anyChanged = first < 0;
    return first;
}

} /* namespace offline */
