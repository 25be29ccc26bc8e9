/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The classic partition table: four entries in the first sector, and a chain of further tables in each
 * extended partition, one logical partition in each. */
#include <algorithm>
#include <array>

#include "platform/offline/volume/partition_layout.h"
#include "platform/offline/volume/partition_table.h"

namespace offline {
namespace {

constexpr unsigned firstLogical = 5;
constexpr unsigned largestChain =
    128; /* logical partitions of a disk; bounds a chain that runs in a circle */

struct Entry {
    uint8_t status; /* 0x80 when active */
    uint8_t type;
    uint32_t start; /* sectors */
    uint32_t count; /* sectors */
};

Entry entryAt(Bytes sector, size_t index) {
    Bytes entry = sector.subspan(mbr::entries + index * mbr::entrySize, mbr::entrySize);
    return {entry[mbr::status], entry[mbr::type], numberAt<uint32_t>(entry, mbr::firstSector),
            numberAt<uint32_t>(entry, mbr::sectorCount)};
}

bool isExtended(uint8_t type) {
    return type == mbr::typeExtended || type == mbr::typeExtendedLba || type == mbr::typeExtendedLinux;
}
bool isForNtfs(uint8_t type) {
    return type == mbr::typeNtfs || type == mbr::typeNtfsHidden || type == mbr::typeRecovery;
}

bool isTable(Bytes sector) {
    if (numberAt<uint16_t>(sector, mbr::bootMark) != mbr::bootMarkValue) return false;
    for (size_t i = 0; i < mbr::entryCount; ++i) {
        if ((entryAt(sector, i).status & ~mbr::active) != 0) return false;
    }
    return true;
}

struct Reader {
    Disk& disk;
    uint32_t sectorSize;
    uint32_t signature;
    std::vector<TableEntry>& entries;
    unsigned nextLogical = firstLogical;

    void add(const Entry& entry, uint64_t base, unsigned number) const {
        TableEntry found;
        found.partition.start = (base + entry.start) * sectorSize;
        found.partition.size = uint64_t{entry.count} * sectorSize;
        found.partition.table = PartitionTable::mbr;
        found.partition.mbrSignature = signature;
        found.number = number;
        found.forNtfs = isForNtfs(entry.type);
        found.dynamicDisk = entry.type == mbr::typeDynamic;
        entries.push_back(found);
    }

    /* Each table of the chain holds a logical partition, counted from that table, and the start of the next
     * table, counted from the extended partition's start. */
    TableState chain(const Entry& extended, TableFault& fault) {
        uint64_t table = extended.start;
        while (true) {
            std::array<uint8_t, 512> sector;
            if (table * sectorSize >= diskSize(disk) || nextLogical - firstLogical >= largestChain) break;
            if (diskSize(disk) - table * sectorSize < sector.size()) break;
            fault.unread = diskRead(disk, table * sectorSize, sector);
            if (fault.unread < 0) return TableState::unreadable;
            if (!isTable(sector)) break;
            Entry logical = entryAt(sector, 0), next = entryAt(sector, 1);
            if (logical.type != 0 && logical.count != 0) add(logical, table, nextLogical);
            ++nextLogical;
            if (!isExtended(next.type) || next.count == 0) return TableState::good;
            if (next.start >= extended.count) break;
            table = uint64_t{extended.start} + next.start;
        }
        fault.damage = "the chain of its logical partitions is broken";
        return TableState::damaged;
    }
};

} /* namespace */

TableState readMbr(Disk& disk, Bytes sector, uint32_t sectorSize, std::vector<TableEntry>& entries,
                   TableFault& fault) {
    if (sector.size() < 512 || !isTable(sector)) return TableState::absent;
    for (size_t i = 0; i < mbr::entryCount; ++i) {
        if (entryAt(sector, i).type == mbr::typeProtective) return TableState::protective;
    }
    Reader reader{disk, sectorSize, numberAt<uint32_t>(sector, mbr::diskSignature), entries};
    for (size_t i = 0; i < mbr::entryCount; ++i) {
        Entry entry = entryAt(sector, i);
        if (entry.type == 0 || entry.count == 0) continue;
        if (!isExtended(entry.type)) {
            reader.add(entry, 0, static_cast<unsigned>(i + 1));
            continue;
        }
        TableState state = reader.chain(entry, fault);
        if (state != TableState::good) return state;
    }
    return TableState::good;
}

} /* namespace offline */
