/* SPDX-License-Identifier: GPL-2.0-or-later */
/* What of a disk could not be read, for the one line that reports it. */
#include "platform/offline/base/guarded.h"
#include "platform/offline/volume/open_disk.h"

namespace offline {
namespace {

std::string counted(uint64_t count, const char* one, const char* several) {
    return std::to_string(count) + (count == 1 ? one : several);
}

std::string refusedText(const CacheTrouble& trouble, const BlockDevice& device) {
    return counted(trouble.readsRefused, " read of it", " reads of it") + " failed, the first at byte " +
           std::to_string(trouble.firstRefused) + " (" + device.reason(trouble.readError) + ")";
}

std::string damagedText(const DiskTrouble& trouble) {
    return counted(trouble.damaged, " file or directory", " files or directories") +
           " of its volumes can't be read or reached for damage, the first by MFT record " +
           std::to_string(trouble.damagedRecord) + " of the volume at byte " +
           std::to_string(trouble.damagedVolume);
}

} /* namespace */

const DiskTrouble& diskTrouble(const Disk& disk) {
    return disk.trouble;
}

std::string diskWriteReason(const Disk& disk) {
    const CacheTrouble& trouble = disk.cache.trouble;
    return trouble.writeRefused ? " (" + disk.device->reason(trouble.writeError) + ")" : std::string();
}

std::string diskReadReason(const Disk& disk) {
    const CacheTrouble& trouble = disk.cache.trouble;
    return trouble.readsRefused != 0 ? " (" + disk.device->reason(trouble.readError) + ")" : std::string();
}

void diskNoteDamage(Disk& disk, uint64_t volumeStart, uint64_t record) {
    DiskTrouble& trouble = disk.trouble;
    if (trouble.damaged++ != 0) return;
    trouble.damagedVolume = volumeStart;
    trouble.damagedRecord = record;
}

NTSTATUS diskReadWhole(const Disk& disk, Problem& problem) {
    return guarded([&]() -> NTSTATUS {
        const bool refused = disk.cache.trouble.readsRefused != 0, damaged = disk.trouble.damaged != 0;
        if (!refused && !damaged) return STATUS_SUCCESS;
        std::string text = diskPath(disk) + ": ";
        if (refused) text += refusedText(disk.cache.trouble, *disk.device);
        if (refused && damaged) text += ", and ";
        if (damaged) text += damagedText(disk.trouble);
        return refuse(problem, refused ? STATUS_IO_DEVICE_ERROR : STATUS_DISK_CORRUPT_ERROR, text);
    });
}

} /* namespace offline */
