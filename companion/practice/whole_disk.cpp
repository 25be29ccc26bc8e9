/* Partition tables: an MBR, or a GPT as UEFI firmware reads it. */
#include "companion/practice/whole_disk.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "companion/failure.h"

namespace companion {
namespace {

using offline::PartitionTable;

constexpr uint32_t sectorSize = 512;
constexpr uint32_t tableEntries = 128;
constexpr uint32_t entrySize = 128;
constexpr uint32_t tableSectors = tableEntries * entrySize / sectorSize;
constexpr uint8_t ntfsPartition = 0x07;
constexpr uint8_t gptProtection = 0xEE;
constexpr uint8_t basicDataPartition[16] = {0xA2, 0xA0, 0xD0, 0xEB, 0xE5, 0xB9, 0x33, 0x44,
                                            0x87, 0xC0, 0x68, 0xB6, 0xB7, 0x26, 0x99, 0xC7};

template <typename Number>
void put(Bytes& bytes, size_t at, Number number) {
    memcpy(&bytes[at], &number, sizeof number);
}

/* The 12 bytes that tell the machine's SID from others. */
Bytes seed(const Machine& machine) {
    const Bytes sid = sidBytes(machine.sid);
    return {sid.end() - 12, sid.end()};
}

uint32_t mbrSignature(const Machine& machine) {
    uint32_t signature = 0;
    for (const uint8_t byte : seed(machine)) signature = signature * 31 + byte;
    return signature | 1; /* 0 is none */
}

/* A GUID of the form of a random one; number tells those of one machine apart. */
Bytes guid(const Machine& machine, uint8_t number) {
    Bytes out = seed(machine);
    out.insert(out.end(), {number, 'd', 'i', 's'});
    out[7] = static_cast<uint8_t>((out[7] & 0x0F) | 0x40);
    out[8] = static_cast<uint8_t>((out[8] & 0x3F) | 0x80);
    return out;
}
constexpr uint8_t diskGuid = 1, partitionGuid = 2;

uint32_t crc32(std::span<const uint8_t> bytes) {
    uint32_t crc = 0xFFFFFFFF;
    for (const uint8_t byte : bytes) {
        crc ^= byte;
        for (int bit = 0; bit < 8; bit++) crc = crc >> 1 ^ ((crc & 1) != 0 ? 0xEDB88320u : 0);
    }
    return ~crc;
}

Bytes mbrSector(uint32_t signature, uint8_t type, uint64_t firstSector, uint64_t sectors) {
    Bytes mbr(sectorSize);
    constexpr size_t entry = 446;
    put(mbr, 440, signature);
    mbr[entry] = type == ntfsPartition ? 0x80 : 0; /* the one to start from */
    memcpy(&mbr[entry + 1], "\xFE\xFF\xFF", 3);    /* what cylinders can't say */
    mbr[entry + 4] = type;
    memcpy(&mbr[entry + 5], "\xFE\xFF\xFF", 3);
    put(mbr, entry + 8, static_cast<uint32_t>(firstSector));
    put(mbr, entry + 12, static_cast<uint32_t>(std::min<uint64_t>(sectors, 0xFFFFFFFF)));
    put(mbr, 510, uint16_t{0xAA55});
    return mbr;
}

Bytes gptEntries(const Machine& machine, uint64_t firstSector, uint64_t lastSector) {
    Bytes table(tableEntries * entrySize);
    const Bytes own = guid(machine, partitionGuid);
    const Bytes name = utf16Bytes(u"Basic data partition");
    memcpy(&table[0], basicDataPartition, sizeof basicDataPartition);
    memcpy(&table[16], own.data(), own.size());
    put(table, 32, firstSector);
    put(table, 40, lastSector);
    memcpy(&table[56], name.data(), name.size());
    return table;
}

struct GptPlaces {
    uint64_t header, otherHeader, entries; /* sectors */
};

Bytes gptHeader(const Machine& machine, const GptPlaces& places, uint64_t diskSectors, const Bytes& entries) {
    constexpr uint32_t headerSize = 92;
    Bytes header(sectorSize);
    const Bytes own = guid(machine, diskGuid);
    memcpy(&header[0], "EFI PART\0\0\1\0", 12);
    put(header, 12, headerSize);
    put(header, 24, places.header);
    put(header, 32, places.otherHeader);
    put(header, 40, uint64_t{2 + tableSectors});     /* the first sector for partitions */
    put(header, 48, diskSectors - 2 - tableSectors); /* and the last */
    memcpy(&header[56], own.data(), own.size());
    put(header, 72, places.entries);
    put(header, 80, tableEntries);
    put(header, 84, entrySize);
    put(header, 88, crc32(entries));
    put(header, 16, crc32(std::span(header).first(headerSize)));
    return header;
}

void writeGpt(int file, uint64_t size, const Machine& machine, const std::string& image) {
    const uint64_t sectors = size / sectorSize;
    const uint64_t last = sectors - 1;
    const Bytes entries =
        gptEntries(machine, partitionStart / sectorSize, (size - behindPartition) / sectorSize - 1);
    const GptPlaces primary = {1, last, 2}, backup = {last, 1, last - tableSectors};
    writeAll(file, 0, mbrSector(0, gptProtection, 1, last), image);
    for (const GptPlaces& places : {primary, backup}) {
        writeAll(file, places.header * sectorSize, gptHeader(machine, places, sectors, entries), image);
        writeAll(file, places.entries * sectorSize, entries, image);
    }
}

} /* namespace */

DiskIdentity diskIdentity(PartitionTable table, const Machine& machine) {
    if (table == PartitionTable::none) return {};
    Bytes name;
    if (table == PartitionTable::mbr) {
        name.resize(12);
        put(name, 0, mbrSignature(machine));
        put(name, 4, partitionStart);
    } else {
        static const char tag[] = "DMIO:ID:";
        const Bytes own = guid(machine, partitionGuid);
        name.assign(tag, tag + 8);
        name.insert(name.end(), own.begin(), own.end());
    }
    return {name};
}

void writePartitionTable(int file, uint64_t size, PartitionTable table, const Machine& machine,
                         const std::string& image) {
    if (table == PartitionTable::gpt) return writeGpt(file, size, machine, image);
    const uint64_t sectors = (size - partitionStart - behindPartition) / sectorSize;
    writeAll(file, 0, mbrSector(mbrSignature(machine), ntfsPartition, partitionStart / sectorSize, sectors),
             image);
}

void writeAll(int file, uint64_t offset, std::span<const uint8_t> bytes, const std::string& image) {
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
