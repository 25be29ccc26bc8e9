/* A disk: an image file or a block device. Every read and every write of it passes through this room's
 * diskRead and diskWrite, and nowhere else. No function throws. */
#ifndef QUILLET_OFFLINE_VOLUME_DISK_H
#define QUILLET_OFFLINE_VOLUME_DISK_H

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "platform/offline/base/bytes.h"
#include "platform/offline/base/problem.h"

namespace offline {

struct Disk;
struct DiskDeleter {
    /* Writes back what is cached and closes; failures are seen by diskSync only. */
    void operator()(Disk* disk) const;
};
using DiskPtr = std::unique_ptr<Disk, DiskDeleter>;

/* trial: reads only, and refuses whatever readWrite would, of the disk and of the volumes on it. */
enum class DiskAccess { readOnly, readWrite, trial };

/* Opens and locks the disk. Refused, each with one line that names the path and says what to do: missing, a
 * directory, empty, no permission, in use (a mount, another program's lock, another quillet, also through a
 * loop device or by another name), and for readWrite what can only be read
 * (STATUS_MEDIA_WRITE_PROTECTED). */
NTSTATUS diskOpen(const std::string& path, DiskAccess access, DiskPtr& disk, Problem& problem);

/* Refuses two paths that lead to the same bytes: links, bind mounts, a loop device and its file. What can't
 * be found out is left to diskOpen. */
NTSTATUS disksApart(const std::vector<std::string>& paths, Problem& problem);

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

/* Everything that was written is on the medium when it returns. */
NTSTATUS diskSync(Disk& disk);

/* ---- What went wrong ---- */

/* What of the disk could not be read or written since it was opened. A caller who gets a failing status may
 * pass over what it was after; here it is remembered all the same. */
struct DiskTrouble {
    uint64_t readsRefused = 0;
    uint64_t firstRefused = 0;  /* bytes */
    int readError = 0;          /* errno of the first; 0: the disk had become shorter */
    uint64_t damaged = 0;       /* files and directories whose structure on the disk can't be used */
    uint64_t damagedVolume = 0; /* bytes: where the volume of the first begins */
    uint64_t damagedRecord = 0; /* the first one's MFT record */
    bool writeRefused = false;
    int writeError = 0; /* errno of the first; 0: the disk had become shorter */
};
const DiskTrouble& diskTrouble(const Disk& disk);

/* Why the first write was refused, " (File too large)"; empty when none was. */
std::string diskWriteReason(const Disk& disk);

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
