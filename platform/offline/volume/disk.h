/* SPDX-License-Identifier: GPL-2.0-or-later */
/* A disk: a cached device, what went wrong on it, and what lies on it. Every read and every write of it
 * passes through diskRead and diskWrite, and nowhere else. No function throws. */
#ifndef QUILLET_OFFLINE_VOLUME_DISK_H
#define QUILLET_OFFLINE_VOLUME_DISK_H

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "platform/offline/base/bytes.h"
#include "platform/offline/base/problem.h"
#include "platform/offline/device/block_cache.h"
#include "platform/offline/device/device_open.h"
#include "platform/offline/device/journal_format.h"

namespace offline {

struct Disk;
struct DiskDeleter {
    /* Writes back what is cached and closes; failures are seen by diskSync only. */
    void operator()(Disk* disk) const;
};
using DiskPtr = std::unique_ptr<Disk, DiskDeleter>;

/* Opens the disk of this name, and locks it as long as it is open; see deviceOpen for what is refused. */
NTSTATUS diskOpen(const DiskName& name, DiskAccess access, DiskPtr& disk, Problem& problem);

/* The disk that a device, or a stack of them, is. The disk owns the device; whoever made it may look at it
 * as long as the disk is open, and finds in it what was written before the last diskSync. It is written to
 * for readWrite only, and only when it is not read-only itself. */
NTSTATUS diskOver(BlockDevicePtr device, DiskAccess access, DiskPtr& disk);

const std::string& diskPath(const Disk& disk);
uint64_t diskSize(const Disk& disk); /* bytes */
bool diskReadOnly(const Disk& disk);

/* Whether it was opened for changes, or for a trial of them. */
bool diskForChanges(const Disk& disk);

/* Whether readWrite would open it for writing, however this was opened. */
bool diskWritable(const Disk& disk);

/* Offsets and sizes in bytes. A range that does not lie on the disk is STATUS_INVALID_PARAMETER. */
NTSTATUS diskRead(Disk& disk, uint64_t offset, std::span<uint8_t> bytes);
NTSTATUS diskWrite(Disk& disk, uint64_t offset, Bytes bytes);

/* The same for a long stretch that is gone through once, in one call of the device. What is read so is no
 * trouble when the device refuses it. */
NTSTATUS diskReadPast(Disk& disk, uint64_t offset, std::span<uint8_t> bytes);
NTSTATUS diskWritePast(Disk& disk, uint64_t offset, Bytes bytes);

/* How many reads the device answers side by side; where it is more than one, reading ahead pays. */
size_t diskReadsAtOnce(const Disk& disk);

/* As cacheReadAhead. */
void diskReadAhead(Disk& disk, std::span<const ByteRange> ranges);

/* Everything that was written is on the medium when it returns. */
NTSTATUS diskSync(Disk& disk);

/* What those sectors look like that say of a volume that is being changed that it is dirty: nothing of it is
 * on the disk yet. The disk of a mark is 0. */
const std::vector<DirtyMark>& diskMarks(const Disk& disk);
void diskNoteMark(Disk& disk, DirtyMark mark); /* may throw std::bad_alloc */

/* ---- What went wrong ---- */

/* What of the disk can't be used for what lies on it. A caller who gets a failing status may pass over what
 * it was after; here it is remembered all the same. */
struct DiskTrouble {
    uint64_t damaged = 0;       /* files and directories whose structure on the disk can't be used */
    uint64_t damagedVolume = 0; /* bytes: where the volume of the first begins */
    uint64_t damagedRecord = 0; /* the first one's MFT record */
};
const DiskTrouble& diskTrouble(const Disk& disk);

/* Why the first write was refused, " (File too large)"; empty when none was. */
std::string diskWriteReason(const Disk& disk);

/* The same of the first read of what was needed. */
std::string diskReadReason(const Disk& disk);

/* Remembers a file of the volume that begins at this byte. */
void diskNoteDamage(Disk& disk, uint64_t volumeStart, uint64_t record);

/* Refuses when something could not be read: how much, and what the first was. STATUS_IO_DEVICE_ERROR for what
 * the disk refused, else STATUS_DISK_CORRUPT_ERROR. */
NTSTATUS diskReadWhole(const Disk& disk, Problem& problem);

/* ---- What lies on it ---- */

enum class PartitionTable { none, mbr, gpt };

/* Where a volume lies on its disk, and what the installation's MountedDevices knows it by. */
struct Partition {
    uint64_t start = 0;                /* bytes */
    uint64_t size = 0;                 /* bytes */
    uint64_t serial = 0, mftStart = 0; /* of the volume: its serial number, and the first cluster of $MFT */
    PartitionTable table = PartitionTable::none;
    uint32_t mbrSignature = 0;     /* mbr: of the disk */
    uint8_t gptPartition[16] = {}; /* gpt: the partition's own GUID, as it lies on the disk */
};

/* The partitions that hold or could hold an NTFS volume: the disk itself for a raw volume, else those of its
 * MBR (extended ones walked, with a limit and against cycles) or GPT (primary, or backup when the primary is
 * damaged; checksums verified). Partitions of other known file systems are left out without a word. Refused,
 * each with one line: a BitLocker or ReFS volume, a damaged table, a disk without any NTFS volume. */
NTSTATUS diskPartitions(Disk& disk, std::vector<Partition>& partitions, Problem& problem);

} /* namespace offline */

#endif
