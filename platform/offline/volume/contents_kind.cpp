/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/volume/contents_kind.h"

#include <string_view>

#include "platform/offline/device/image_signature.h"

namespace offline {
namespace {

using namespace std::string_view_literals;

struct Signature {
    size_t offset;
    std::string_view text;
    Contents contents;
};

/* Boot sectors name their file system at offset 3 as a rule, FAT further on; the rest have offsets of their
 * own. */
const Signature signatures[] = {
    {3, "NTFS    "sv, {ContentsKind::ntfs, "NTFS"}},
    {3, "-FVE-FS-"sv, {ContentsKind::bitLocker, "BitLocker"}},
    {3, "ReFS\0\0\0\0"sv, {ContentsKind::reFs, "ReFS"}},
    {3, "EXFAT   "sv, {ContentsKind::other, "exFAT"}},
    {54, "FAT12   "sv, {ContentsKind::other, "FAT"}},
    {54, "FAT16   "sv, {ContentsKind::other, "FAT"}},
    {82, "FAT32   "sv, {ContentsKind::other, "FAT"}},
    {0x438, "\x53\xEF"sv, {ContentsKind::other, "ext"}},
    {0, "XFSB"sv, {ContentsKind::other, "XFS"}},
    {0, "LUKS\xBA\xBE"sv, {ContentsKind::other, "LUKS"}},
    {4086, "SWAPSPACE2"sv, {ContentsKind::other, "swap"}},
};

constexpr uint64_t largestVolume = uint64_t{1} << 62; /* bytes; keeps sums of sizes and starts in 64 bits */

} /* namespace */

Contents recogniseContents(Bytes head) {
    for (const Signature& signature : signatures) {
        if (holdsText(head, signature.text, signature.offset)) return signature.contents;
    }
    const DiskFormat image = formatOfBeginning(head);
    return image == DiskFormat::raw ? Contents() : Contents{ContentsKind::container, formatName(image)};
}

bool ntfsBootSector(Bytes sector, NtfsBootSector& boot) {
    if (sector.size() < 512 || recogniseContents(sector).kind != ContentsKind::ntfs) return false;
    if (numberAt<uint16_t>(sector, 510) != 0xAA55) return false;
    uint32_t sectorSize = numberAt<uint16_t>(sector, 0x0B);
    uint32_t perCluster = sector[0x0D]; /* from 0xF4 on: the negative power of two */
    uint64_t sectors = numberAt<uint64_t>(sector, 0x28);
    uint64_t mft = numberAt<uint64_t>(sector, 0x30), mirror = numberAt<uint64_t>(sector, 0x38);
    if (!std::has_single_bit(sectorSize) || sectorSize < 256 || sectorSize > 4096) return false;
    if (perCluster >= 0xF4) perCluster = 1u << (256 - perCluster);
    if (!std::has_single_bit(perCluster)) return false;
    if (sectors == 0 || sectors > largestVolume / sectorSize) return false;
    uint64_t clusters = sectors / perCluster;
    if (mft >= clusters || mirror >= clusters) return false;
    boot = {sectorSize, sectors * sectorSize, numberAt<uint64_t>(sector, 0x48), mft};
    return true;
}

} /* namespace offline */
