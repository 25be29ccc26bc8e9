/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The GUID partition table: a header in the second sector, its entries, and a copy of both at the disk's end.
 */
#include <zlib.h>

#include <array>

#include "platform/offline/volume/partition_layout.h"
#include "platform/offline/volume/partition_table.h"

namespace offline {
namespace {

using gpt::TypeGuid;

constexpr uint32_t entrySizeAtMost = 4096, entriesAtMost = 1024;

constexpr TypeGuid ntfsTypes[] = {gpt::basicData, gpt::recovery}; /* under which NTFS is kept */
constexpr TypeGuid dynamicTypes[] = {gpt::dynamicDatabase, gpt::dynamicData};

template <size_t count>
bool isOneOf(const TypeGuid& type, const TypeGuid (&types)[count]) {
    for (const TypeGuid& one : types) {
        if (one == type) return true;
    }
    return false;
}

uint32_t checksum(Bytes bytes) {
    return static_cast<uint32_t>(crc32_z(0, bytes.data(), bytes.size()));
}

struct Header {
    uint32_t entryCount, entrySize, entriesCrc;
    uint64_t entriesStart; /* sectors */
};

/* The header in a sector. Its own checksum is computed with the checksum's field as zero. */
TableState readHeader(Disk& disk, uint64_t lba, uint32_t sectorSize, Header& header, TableFault& fault) {
    std::array<uint8_t, 4096> buffer;
    if (lba >= diskSize(disk) / sectorSize) return TableState::absent;
    std::span<uint8_t> sector = std::span(buffer).first(sectorSize);
    fault.unread = diskRead(disk, lba * sectorSize, sector);
    if (fault.unread < 0) return TableState::unreadable;
    if (std::memcmp(sector.data(), gpt::signature, gpt::signatureSize) != 0) return TableState::absent;
    uint32_t size = numberAt<uint32_t>(sector, gpt::headerLength);
    uint32_t crc = numberAt<uint32_t>(sector, gpt::headerCrc);
    if (size < gpt::headerSize || size > sectorSize) return TableState::damaged;
    std::memset(sector.data() + gpt::headerCrc, 0, sizeof crc);
    if (checksum(sector.first(size)) != crc || numberAt<uint64_t>(sector, gpt::headerSector) != lba)
        return TableState::damaged;
    header.entriesStart = numberAt<uint64_t>(sector, gpt::entriesSector);
    header.entryCount = numberAt<uint32_t>(sector, gpt::entryCount);
    header.entrySize = numberAt<uint32_t>(sector, gpt::entrySize);
    header.entriesCrc = numberAt<uint32_t>(sector, gpt::entriesCrc);
    bool sound = header.entryCount <= entriesAtMost && header.entrySize >= gpt::usualEntrySize &&
                 header.entrySize <= entrySizeAtMost && header.entrySize % 8 == 0;
    return sound ? TableState::good : TableState::damaged;
}

TableEntry makeEntry(Bytes entry, uint32_t sectorSize, unsigned number, bool& sound) {
    constexpr uint64_t largest = uint64_t{1} << 50; /* sectors; keeps products in 64 bits */
    uint64_t first = numberAt<uint64_t>(entry, gpt::entryFirst),
             last = numberAt<uint64_t>(entry, gpt::entryLast);
    sound = first != 0 && first <= last && last < largest;
    TypeGuid type;
    std::memcpy(type.data(), entry.data() + gpt::entryType, type.size());
    TableEntry found;
    found.number = number;
    found.forNtfs = isOneOf(type, ntfsTypes);
    found.dynamicDisk = isOneOf(type, dynamicTypes);
    found.partition.table = PartitionTable::gpt;
    std::memcpy(found.partition.gptPartition, entry.data() + gpt::entryGuid,
                sizeof found.partition.gptPartition);
    if (sound) {
        found.partition.start = first * sectorSize;
        found.partition.size = (last - first + 1) * sectorSize;
    }
    return found;
}

/* The table whose header lies in the sector lba. */
TableState readTable(Disk& disk, uint64_t lba, uint32_t sectorSize, std::vector<TableEntry>& entries,
                     TableFault& fault) {
    Header header;
    TableState state = readHeader(disk, lba, sectorSize, header, fault);
    if (state != TableState::good) return state;
    uint64_t size = uint64_t{header.entryCount} * header.entrySize;
    uint64_t sectors = diskSize(disk) / sectorSize;
    if (header.entriesStart >= sectors || size > (sectors - header.entriesStart) * sectorSize) {
        return TableState::damaged;
    }
    std::vector<uint8_t> array(static_cast<size_t>(size));
    fault.unread = diskRead(disk, header.entriesStart * sectorSize, array);
    if (fault.unread < 0) return TableState::unreadable;
    if (checksum(array) != header.entriesCrc) return TableState::damaged;
    entries.clear();
    for (uint32_t i = 0; i < header.entryCount; ++i) {
        Bytes entry = Bytes(array).subspan(size_t{i} * header.entrySize, header.entrySize);
        static constexpr uint8_t unused[16] = {};
        if (std::memcmp(entry.data(), unused, sizeof unused) == 0) continue;
        bool sound = false;
        entries.push_back(makeEntry(entry, sectorSize, i + 1, sound));
        if (!sound) return TableState::damaged;
    }
    return TableState::good;
}

} /* namespace */

TableState readGpt(Disk& disk, std::vector<TableEntry>& entries, TableFault& fault) {
    TableState worst = TableState::absent;
    for (uint32_t sectorSize : {512u, 4096u}) {
        uint64_t sectors = diskSize(disk) / sectorSize;
        if (sectors < 3) continue;
        for (uint64_t lba : {uint64_t{1}, sectors - 1}) {
            TableState state = readTable(disk, lba, sectorSize, entries, fault);
            if (state == TableState::good) return state;
            if (state == TableState::unreadable) return state;
            if (state == TableState::damaged) worst = state;
        }
    }
    entries.clear();
    fault.damage = "neither its GPT nor the backup at its end is valid";
    return worst;
}

} /* namespace offline */
