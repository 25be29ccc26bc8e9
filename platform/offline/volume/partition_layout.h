/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Partition tables as they lie on a disk, for who reads them and for who writes them. Offsets and sizes in
 * bytes, numbers little-endian. Structures: the classic partition table, and the GPT header and entry of
 * UEFI, revision 1.0. */
#ifndef QUILLET_OFFLINE_VOLUME_PARTITION_LAYOUT_H
#define QUILLET_OFFLINE_VOLUME_PARTITION_LAYOUT_H

#include <array>
#include <cstddef>
#include <cstdint>

namespace offline {

namespace mbr {
constexpr size_t diskSignature = 440, entries = 446, bootMark = 510;
constexpr uint16_t bootMarkValue = 0xAA55;
constexpr size_t entrySize = 16, entryCount = 4;
/* in an entry */
constexpr size_t status = 0, type = 4, firstSector = 8, sectorCount = 12;
constexpr uint8_t active = 0x80;
constexpr uint8_t typeNtfs = 0x07, typeNtfsHidden = 0x17, typeRecovery = 0x27;
constexpr uint8_t typeExtended = 0x05, typeExtendedLba = 0x0F, typeExtendedLinux = 0x85;
constexpr uint8_t typeDynamic = 0x42, typeProtective = 0xEE;
} /* namespace mbr */

namespace gpt {
constexpr char signature[] = "EFI PART";
constexpr size_t signatureSize = 8;
constexpr uint32_t revision1 = 0x10000;
/* in the header */
constexpr size_t revision = 8, headerLength = 12, headerCrc = 16, headerSector = 24, otherHeaderSector = 32;
constexpr size_t firstUsable = 40, lastUsable = 48, diskGuid = 56, entriesSector = 72, entryCount = 80;
constexpr size_t entrySize = 84, entriesCrc = 88, headerSize = 92;
/* in an entry */
constexpr size_t entryType = 0, entryGuid = 16, entryFirst = 32, entryLast = 40, entryName = 56;
constexpr uint32_t usualEntrySize = 128, usualEntryCount = 128;

using TypeGuid = std::array<uint8_t, 16>; /* as it lies on the disk */
constexpr TypeGuid basicData = {0xA2, 0xA0, 0xD0, 0xEB, 0xE5, 0xB9, 0x33, 0x44,
                                0x87, 0xC0, 0x68, 0xB6, 0xB7, 0x26, 0x99, 0xC7};
constexpr TypeGuid recovery = {0xA4, 0xBB, 0x94, 0xDE, 0xD1, 0x06, 0x40, 0x4D,
                               0xA1, 0x6A, 0xBF, 0xD5, 0x01, 0x79, 0xD6, 0xAC};
constexpr TypeGuid dynamicDatabase = {0xAA, 0xC8, 0x08, 0x58, 0x8F, 0x7E, 0xE0, 0x42,
                                      0x85, 0xD2, 0xE1, 0xE9, 0x04, 0x34, 0xCF, 0xB3};
constexpr TypeGuid dynamicData = {0xA0, 0x60, 0x9B, 0xAF, 0x31, 0x14, 0x62, 0x4F,
                                  0xBC, 0x68, 0x33, 0x11, 0x71, 0x4A, 0x69, 0xAD};
} /* namespace gpt */

} /* namespace offline */

#endif
