/* The GUID partition table: a header in the second sector, its entries, and a copy of both at the disk's end.
 * Structure: the GPT header of UEFI, revision 1.0. */
#include <array>
#include <string_view>

#include "platform/offline/volume/partition_table.h"

namespace offline {
namespace {

using namespace std::string_view_literals;
using TypeGuid = std::array<uint8_t, 16>; /* as it lies on the disk */

constexpr size_t headerSize = 92, entrySizeAtLeast = 128;
constexpr uint32_t entrySizeAtMost = 4096, entriesAtMost = 1024;

/* The types under which NTFS is kept: basic data, recovery. */
constexpr TypeGuid ntfsTypes[] = {
    {0xA2, 0xA0, 0xD0, 0xEB, 0xE5, 0xB9, 0x33, 0x44, 0x87, 0xC0, 0x68, 0xB6, 0xB7, 0x26, 0x99, 0xC7},
    {0xA4, 0xBB, 0x94, 0xDE, 0xD1, 0x06, 0x40, 0x4D, 0xA1, 0x6A, 0xBF, 0xD5, 0x01, 0x79, 0xD6, 0xAC},
};
/* Dynamic disks: the database, the data. */
constexpr TypeGuid dynamicTypes[] = {
    {0xAA, 0xC8, 0x08, 0x58, 0x8F, 0x7E, 0xE0, 0x42, 0x85, 0xD2, 0xE1, 0xE9, 0x04, 0x34, 0xCF, 0xB3},
    {0xA0, 0x60, 0x9B, 0xAF, 0x31, 0x14, 0x62, 0x4F, 0xBC, 0x68, 0x33, 0x11, 0x71, 0x4A, 0x69, 0xAD},
};

template <size_t count>
bool isOneOf(const TypeGuid& type, const TypeGuid (&types)[count]) {
    for (const TypeGuid& one : types) {
        if (one == type) return true;
    }
    return false;
}

constexpr std::array<uint32_t, 256> makeCrcTable() {
    std::array<uint32_t, 256> table{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t value = i;
        for (int bit = 0; bit < 8; ++bit) value = (value & 1) != 0 ? value >> 1 ^ 0xEDB88320u : value >> 1;
        table[i] = value;
    }
    return table;
}

uint32_t crc32(Bytes bytes) {
    static constexpr std::array<uint32_t, 256> table = makeCrcTable();
    uint32_t crc = 0xFFFFFFFFu;
    for (uint8_t byte : bytes) crc = table[(crc ^ byte) & 0xFF] ^ crc >> 8;
    return ~crc;
}

struct Header {
    uint32_t entryCount, entrySize, entriesCrc;
    uint64_t entriesStart; /* sectors */
};

/* The header in a sector. Its own checksum is computed with the checksum's field as zero. */
TableState readHeader(Disk& disk, uint64_t place, uint32_t sectorSize, Header& header) {
    std::array<uint8_t, 4096> buffer;
    if (place >= diskSize(disk) / sectorSize) return TableState::absent;
    std::span<uint8_t> sector = std::span(buffer).first(sectorSize);
    if (diskRead(disk, place * sectorSize, sector) < 0) return TableState::unreadable;
    if (std::memcmp(sector.data(), "EFI PART", 8) != 0) return TableState::absent;
    uint32_t size = numberAt<uint32_t>(sector, 12), crc = numberAt<uint32_t>(sector, 16);
    if (size < headerSize || size > sectorSize) return TableState::damaged;
    std::memset(sector.data() + 16, 0, 4);
    if (crc32(sector.first(size)) != crc || numberAt<uint64_t>(sector, 24) != place)
        return TableState::damaged;
    header.entriesStart = numberAt<uint64_t>(sector, 72);
    header.entryCount = numberAt<uint32_t>(sector, 80);
    header.entrySize = numberAt<uint32_t>(sector, 84);
    header.entriesCrc = numberAt<uint32_t>(sector, 88);
    bool sound = header.entryCount <= entriesAtMost && header.entrySize >= entrySizeAtLeast &&
                 header.entrySize <= entrySizeAtMost && header.entrySize % 8 == 0;
    return sound ? TableState::good : TableState::damaged;
}

TableEntry makeEntry(Bytes entry, uint32_t sectorSize, unsigned number, bool& sound) {
    constexpr uint64_t largest = uint64_t{1} << 50; /* sectors; keeps products in 64 bits */
    uint64_t first = numberAt<uint64_t>(entry, 32), last = numberAt<uint64_t>(entry, 40);
    sound = first != 0 && first <= last && last < largest;
    TypeGuid type;
    std::memcpy(type.data(), entry.data(), type.size());
    TableEntry found;
    found.number = number;
    found.forNtfs = isOneOf(type, ntfsTypes);
    found.dynamicDisk = isOneOf(type, dynamicTypes);
    found.partition.table = PartitionTable::gpt;
    std::memcpy(found.partition.gptPartition, entry.data() + 16, sizeof found.partition.gptPartition);
    if (sound) {
        found.partition.start = first * sectorSize;
        found.partition.size = (last - first + 1) * sectorSize;
    }
    return found;
}

/* The table whose header lies in the sector place. */
TableState readTable(Disk& disk, uint64_t place, uint32_t sectorSize, std::vector<TableEntry>& entries) {
    Header header;
    TableState state = readHeader(disk, place, sectorSize, header);
    if (state != TableState::good) return state;
    uint64_t size = uint64_t{header.entryCount} * header.entrySize;
    uint64_t sectors = diskSize(disk) / sectorSize;
    if (header.entriesStart >= sectors || size > (sectors - header.entriesStart) * sectorSize) {
        return TableState::damaged;
    }
    std::vector<uint8_t> array(static_cast<size_t>(size));
    if (diskRead(disk, header.entriesStart * sectorSize, array) < 0) return TableState::unreadable;
    if (crc32(array) != header.entriesCrc) return TableState::damaged;
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

TableState readGpt(Disk& disk, std::vector<TableEntry>& entries, std::string& fault) {
    TableState worst = TableState::absent;
    for (uint32_t sectorSize : {512u, 4096u}) {
        uint64_t sectors = diskSize(disk) / sectorSize;
        if (sectors < 3) continue;
        for (uint64_t place : {uint64_t{1}, sectors - 1}) {
            TableState state = readTable(disk, place, sectorSize, entries);
            if (state == TableState::good) return state;
            if (state == TableState::unreadable) return state;
            if (state == TableState::damaged) worst = state;
        }
    }
    entries.clear();
    fault = "neither its GPT nor the backup at its end is valid";
    return worst;
}

} /* namespace offline */
