/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The sectors that say that a volume is dirty: the flags in the record of $Volume, and in the copy of it that
 * $MFTMirr holds. Structure: the VOLUME_INFORMATION attribute of NTFS 3. */
#include "platform/offline/volume/open_volume.h"
/* before everything else */
#include <memory>

namespace offline {
namespace {

constexpr size_t sectorSize = 512;
constexpr uint8_t dirtyBit = 1; /* in the low byte of the flags */
static_assert(ntfs3g::VOLUME_IS_DIRTY == dirtyBit);

/* Where the flags' low byte lies in the record as the library holds it, the update sequence undone. */
bool findFlags(ntfs3g::ntfs_inode* inode, size_t recordSize, size_t& offset) {
    using Search = ntfs3g::ntfs_attr_search_ctx;
    const std::unique_ptr<Search, void (*)(Search*)> search(ntfs3g::ntfs_attr_get_search_ctx(inode, nullptr),
                                                            ntfs3g::ntfs_attr_put_search_ctx);
    if (!search) return false;
    if (ntfs3g::ntfs_attr_lookup(ntfs3g::AT_VOLUME_INFORMATION, nullptr, 0, ntfs3g::CASE_SENSITIVE, 0,
                                 nullptr, 0, search.get()) != 0) {
        return false;
    }
    const ntfs3g::ATTR_RECORD& found = *search->attr;
    if (search->ntfs_ino != inode || found.non_resident != 0) return false;
    const auto* const record = reinterpret_cast<const uint8_t*>(inode->mrec);
    offset = static_cast<size_t>(reinterpret_cast<const uint8_t*>(search->attr) - record) +
             found.value_offset + offsetof(ntfs3g::VOLUME_INFORMATION, flags);
    return offset < recordSize;
}

/* Where it lies in the record as the disk holds it: the last two bytes of each sector are in the update
 * sequence there. */
bool findOnDisk(const ntfs3g::MFT_RECORD& record, size_t recordSize, size_t& offset) {
    constexpr size_t guarded = sectorSize - 2;
    if (offset % sectorSize < guarded) return true;
    const size_t sequence = loadNumber<uint16_t>(&record.usa_ofs);
    offset = sequence + 2 * (1 + offset / sectorSize) + (offset % sectorSize - guarded);
    return offset < recordSize && offset % sectorSize < guarded;
}

/* The sector of a metadata file, as it lies on the disk, that holds this byte. */
NTSTATUS readSector(const Volume& volume, ntfs3g::ntfs_attr* data, uint64_t byte, DirtyMark& sector) {
    const unsigned bits = volume.ntfs->cluster_size_bits;
    const int64_t cluster = ntfs3g::ntfs_attr_vcn_to_lcn(data, static_cast<int64_t>(byte >> bits));
    if (cluster < 0) return STATUS_DISK_CORRUPT_ERROR;
    const uint64_t inCluster = byte & ((uint64_t{1} << bits) - 1);
    const uint64_t offset = (static_cast<uint64_t>(cluster) << bits) + inCluster;
    sector.offset = volume.device.start + offset - offset % sectorSize;
    sector.bytes.resize(sectorSize);
    return diskRead(*volume.device.disk, sector.offset, sector.bytes);
}

} /* namespace */

NTSTATUS noteDirtyMark(Volume& volume) {
    const ntfs3g::ntfs_volume& ntfs = *volume.ntfs;
    size_t flags = 0;
    if (!findFlags(ntfs.vol_ni, ntfs.mft_record_size, flags) ||
        !findOnDisk(*ntfs.vol_ni->mrec, ntfs.mft_record_size, flags)) {
        return STATUS_DISK_CORRUPT_ERROR;
    }
    const uint64_t byte = uint64_t{ntfs3g::FILE_Volume} * ntfs.mft_record_size + flags;
    DirtyMark mark, copy;
    NTSTATUS status = readSector(volume, ntfs.mft_na, byte, mark);
    if (status >= 0) status = readSector(volume, ntfs.mftmirr_na, byte, copy);
    if (status < 0) return status;
    const bool copied = mark.bytes == copy.bytes && mark.offset != copy.offset;
    mark.bytes[byte % sectorSize] |= dirtyBit;
    copy.bytes = mark.bytes;
    diskNoteMark(*volume.device.disk, std::move(mark));
    if (copied) diskNoteMark(*volume.device.disk, std::move(copy));
    return STATUS_SUCCESS;
}

} /* namespace offline */
