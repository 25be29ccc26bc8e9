/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Partition tables: an MBR, or a GPT as UEFI firmware reads it. */
#include "companion/practice/whole_disk.h"

#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <cstring>

#include "companion/ending.h"
#include "platform/offline/volume/partition_layout.h"

namespace companion {
namespace {

using offline::PartitionTable;
namespace gpt = offline::gpt;
namespace mbr = offline::mbr;

constexpr uint32_t sectorSize = 512;
constexpr uint32_t tableSectors = gpt::usualEntryCount * gpt::usualEntrySize / sectorSize;

template <typename Number>
void put(ByteVector& bytes, size_t at, Number number) {
    memcpy(&bytes[at], &number, sizeof number);
}

/* The 12 bytes by which the machine's SID differs from others. */
ByteVector seed(const Machine& machine) {
    const ByteVector sid = sidBytes(machine.sid);
    return {sid.end() - 12, sid.end()};
}

uint32_t mbrSignature(const Machine& machine) {
    uint32_t signature = 0;
    for (const uint8_t byte : seed(machine)) signature = signature * 31 + byte;
    return signature | 1; /* 0 is none */
}

/* A GUID of the form of a random one; number keeps those of one machine apart. */
ByteVector guid(const Machine& machine, uint8_t number) {
    ByteVector out = seed(machine);
    out.insert(out.end(), {number, 'd', 'i', 's'});
    out[7] = static_cast<uint8_t>((out[7] & 0x0F) | 0x40);
    out[8] = static_cast<uint8_t>((out[8] & 0x3F) | 0x80);
    return out;
}
constexpr uint8_t diskNumber = 1, partitionNumber = 2;

uint32_t checksum(offline::Bytes bytes) {
    return static_cast<uint32_t>(crc32_z(0, bytes.data(), bytes.size()));
}

ByteVector mbrSector(uint32_t signature, uint8_t type, uint64_t firstSector, uint64_t sectors) {
    ByteVector sector(sectorSize);
    constexpr size_t entry = mbr::entries;
    put(sector, mbr::diskSignature, signature);
    sector[entry + mbr::status] = type == mbr::typeNtfs ? mbr::active : 0; /* the one to start from */
    memcpy(&sector[entry + 1], "\xFE\xFF\xFF", 3);                         /* what cylinders can't say */
    sector[entry + mbr::type] = type;
    memcpy(&sector[entry + 5], "\xFE\xFF\xFF", 3);
    put(sector, entry + mbr::firstSector, static_cast<uint32_t>(firstSector));
    put(sector, entry + mbr::sectorCount, static_cast<uint32_t>(std::min<uint64_t>(sectors, 0xFFFFFFFF)));
    put(sector, mbr::bootMark, mbr::bootMarkValue);
    return sector;
}

ByteVector gptEntries(const Machine& machine, uint64_t firstSector, uint64_t lastSector) {
    ByteVector table(gpt::usualEntryCount * gpt::usualEntrySize);
    const ByteVector own = guid(machine, partitionNumber);
    const ByteVector name = utf16Bytes(u"Basic data partition");
    memcpy(&table[gpt::entryType], gpt::basicData.data(), gpt::basicData.size());
    memcpy(&table[gpt::entryGuid], own.data(), own.size());
    put(table, gpt::entryFirst, firstSector);
    put(table, gpt::entryLast, lastSector);
    memcpy(&table[gpt::entryName], name.data(), name.size());
    return table;
}

struct GptSectors {
    uint64_t header, otherHeader, entries; /* sectors */
};

ByteVector gptHeader(const Machine& machine, const GptSectors& at, uint64_t diskSectors,
                     const ByteVector& entries) {
    ByteVector header(sectorSize);
    const ByteVector own = guid(machine, diskNumber);
    memcpy(&header[0], gpt::signature, gpt::signatureSize);
    put(header, gpt::revision, gpt::revision1);
    put(header, gpt::headerLength, uint32_t{gpt::headerSize});
    put(header, gpt::headerSector, at.header);
    put(header, gpt::otherHeaderSector, at.otherHeader);
    put(header, gpt::firstUsable, uint64_t{2 + tableSectors});    /* the first sector for partitions */
    put(header, gpt::lastUsable, diskSectors - 2 - tableSectors); /* and the last */
    memcpy(&header[gpt::diskGuid], own.data(), own.size());
    put(header, gpt::entriesSector, at.entries);
    put(header, gpt::entryCount, gpt::usualEntryCount);
    put(header, gpt::entrySize, gpt::usualEntrySize);
    put(header, gpt::entriesCrc, checksum(entries));
    put(header, gpt::headerCrc, checksum(std::span(header).first(gpt::headerSize)));
    return header;
}

void writeGpt(int file, uint64_t size, const Machine& machine, const std::string& image) {
    const uint64_t sectors = size / sectorSize;
    const uint64_t last = sectors - 1;
    const ByteVector entries =
        gptEntries(machine, partitionStart / sectorSize, (size - afterPartition) / sectorSize - 1);
    const GptSectors primary = {1, last, 2}, backup = {last, 1, last - tableSectors};
    writeAll(file, 0, mbrSector(0, mbr::typeProtective, 1, last), image);
    for (const GptSectors& at : {primary, backup}) {
        writeAll(file, at.header * sectorSize, gptHeader(machine, at, sectors, entries), image);
        writeAll(file, at.entries * sectorSize, entries, image);
    }
}

} /* namespace */

DiskIdentity diskIdentity(PartitionTable table, const Machine& machine) {
    if (table == PartitionTable::none) return {};
    ByteVector name;
    if (table == PartitionTable::mbr) {
        name.resize(12);
        put(name, 0, mbrSignature(machine));
        put(name, 4, partitionStart);
    } else {
        static const char tag[] = "DMIO:ID:";
        const ByteVector own = guid(machine, partitionNumber);
        name.assign(tag, tag + 8);
        name.insert(name.end(), own.begin(), own.end());
    }
    return {name};
}

void writePartitionTable(int file, uint64_t size, PartitionTable table, const Machine& machine,
                         const std::string& image) {
    if (table == PartitionTable::gpt) return writeGpt(file, size, machine, image);
    const uint64_t sectors = (size - partitionStart - afterPartition) / sectorSize;
    writeAll(file, 0, mbrSector(mbrSignature(machine), mbr::typeNtfs, partitionStart / sectorSize, sectors),
             image);
}

void writeAll(int file, uint64_t offset, offline::Bytes bytes, const std::string& image) {
    while (!bytes.empty()) {
        const ssize_t written = pwrite(file, bytes.data(), bytes.size(), static_cast<off_t>(offset));
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) {
            throw Failure{image + ": can't be written: " + strerror(errno) + "; check the room on the disk"};
        }
        bytes = bytes.subspan(static_cast<size_t>(written));
        offset += static_cast<uint64_t>(written);
    }
}

} /* namespace companion */
