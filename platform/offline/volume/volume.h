/* SPDX-License-Identifier: GPL-2.0-or-later */
/* An NTFS volume on a disk, through libntfs-3g. Files and directories are named by their MFT reference. Names
 * are UTF-16 as stored, unpaired surrogates included; look-up folds letters as the platform does. Statuses
 * are the platform's. No function throws.
 *
 * With a volume's first change its disk notes what the volume's dirty mark looks like; whoever brings the
 * changes to the medium sets it meanwhile (device/transaction.h). */
#ifndef QUILLET_OFFLINE_VOLUME_VOLUME_H
#define QUILLET_OFFLINE_VOLUME_VOLUME_H

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/offline/base/bytes.h"
#include "platform/offline/base/problem.h"
#include "platform/offline/base/progress.h"
#include "platform/offline/volume/disk.h"

namespace offline {

struct Volume;
struct VolumeDeleter {
    void operator()(Volume* volume) const; /* closes without a word of what failed; see volumeClose */
};
using VolumePtr = std::unique_ptr<Volume, VolumeDeleter>;

using FileRef = uint64_t;            /* MFT record number and sequence number, as NTFS stores it */
constexpr FileRef rootDirectory = 5; /* accepted wherever a reference is */

/* Opens the volume of a partition; the disk must outlive it. Refused, each with one line that names the disk
 * and says what to do: hibernated or fast startup, unclean log, marked dirty, truncated, damaged, no NTFS,
 * NTFS before 3.0. What a change would trip over is refused where the disk was opened for changes, or for a
 * trial of them; else the volume is read-only, and every change fails with STATUS_MEDIA_WRITE_PROTECTED. */
NTSTATUS volumeOpen(Disk& disk, const Partition& partition, VolumePtr& volume, Problem& problem);

/* Writes everything to the disk and closes the volume, whatever the status says; a negative one means that
 * what lies on the disk is not whole and must not be kept: the status of what failed first. */
NTSTATUS volumeClose(VolumePtr volume);

/* Everything is written to the disk. A change that failed before is not reported again: a file's
 * failure must not keep another from being written whole. volumeClose reports it. */
NTSTATUS volumeFlush(Volume& volume);

bool volumeReadOnly(const Volume& volume);

/* True when a change was refused because the volume can only be read. */
bool volumeRefusedChange(const Volume& volume);

/* Why the volume's disk refused its first write; see diskWriteReason. */
std::string volumeWriteReason(const Volume& volume);

/* The same of the first read; see diskReadReason. */
std::string volumeReadReason(const Volume& volume);

/* Remembers a file or directory that can't be used for damage; the volume does so itself for what it sees. */
void volumeNoteDamage(Volume& volume, FileRef file);

/* ---- Looking ---- */

struct FileInfo {
    uint32_t attributes; /* FILE_ATTRIBUTE_ bits, directory and reparse point included */
    uint32_t reparseTag; /* 0 when it is no reparse point */
    uint64_t size;       /* bytes of the unnamed data; 0 for a directory */
    uint64_t created, lastWritten, lastAccessed; /* 100 ns since 1601 */
};

NTSTATUS volumeFileInfo(Volume& volume, FileRef file, FileInfo& info);

/* One entry of a directory by its name. STATUS_OBJECT_NAME_NOT_FOUND, STATUS_NOT_A_DIRECTORY. A short (8.3)
 * alias is found as well as the long name. */
NTSTATUS volumeLookUp(Volume& volume, FileRef directory, std::u16string_view name, FileRef& file);

/* The file at a path from the root, components between backslashes, a leading one allowed; "" is the root. No
 * reparse point is followed: one in the middle gives STATUS_OBJECT_PATH_NOT_FOUND. A missing last component
 * gives STATUS_OBJECT_NAME_NOT_FOUND, a missing earlier one STATUS_OBJECT_PATH_NOT_FOUND. */
NTSTATUS volumeFind(Volume& volume, std::u16string_view path, FileRef& file);

struct DirectoryEntry {
    FileRef file;
    uint32_t nameStart;  /* characters, into DirectoryListing::names */
    uint16_t nameLength; /* characters */
    bool directory;      /* as the index of the directory has it; a reparse point may be one as well */
    bool reparse;
    uint32_t info; /* into DirectoryListing::infos */
};
/* What the index of a directory keeps of a file beside its name; as FileInfo. */
struct EntryInfo {
    uint64_t size;
    uint64_t created, lastWritten, lastAccessed;
};
struct DirectoryListing {
    std::vector<DirectoryEntry> entries;
    std::vector<EntryInfo> infos;
    std::u16string names;
    std::u16string_view name(const DirectoryEntry& entry) const {
        return std::u16string_view(names).substr(entry.nameStart, entry.nameLength);
    }
};

/* All entries in the order of the directory's index, without ".", "..", the volume's own metadata files and
 * short aliases of longer names. A hard-linked file is listed for each of its names. listing is overwritten,
 * its room reused. */
NTSTATUS volumeList(Volume& volume, FileRef directory, DirectoryListing& listing);

/* What an entry of the directory's listing leads to: attributes and tag are the file's own, size and times
 * those that the index has of it, as on the platform. Where its record is of another kind, or has not this
 * name in the directory, another file can't be reached: that is remembered as damage, and the record is as
 * good as any. */
NTSTATUS volumeEntryInfo(Volume& volume, FileRef directory, const DirectoryListing& listing,
                         const DirectoryEntry& entry, FileInfo& info);

/* A walk over the whole volume begins, and its phase: the total is that of the MFT's records in use, and each
 * that volumeEntryInfo meets from here on counts once. Nothing where nobody sees it. */
void volumeWalkBegins(Volume& volume, ProgressPhase phase);

/* ---- Security descriptors ---- */

/* The file's self-relative descriptor, byte for byte as stored and valid by every bound; read once for each
 * security id. The span is good until the next call with this volume. A descriptor that is missing or invalid
 * is STATUS_INVALID_SECURITY_DESCR, never an invented one; STATUS_IO_DEVICE_ERROR where the disk refused. */
NTSTATUS volumeDescriptor(Volume& volume, FileRef file, Bytes& descriptor);

/* Stores the descriptor byte for byte as given; equal ones are stored once and shared.
 * STATUS_INVALID_SECURITY_DESCR when it is not valid, STATUS_ACCESS_DENIED for the volume's own metadata
 * files. The file's times stay as they are. */
NTSTATUS volumeSetDescriptor(Volume& volume, FileRef file, Bytes descriptor);

/* ---- Contents ---- */

/* The whole unnamed data. STATUS_INSUFFICIENT_RESOURCES when there is more than limit bytes,
 * STATUS_FILE_CORRUPT_ERROR when it can't be read, STATUS_NOT_SUPPORTED for encrypted files and reparse
 * points (whose data is elsewhere), STATUS_ACCESS_DENIED for directories. */
NTSTATUS volumeReadFile(Volume& volume, FileRef file, uint64_t limit, std::vector<uint8_t>& bytes);

/* Writes into the unnamed data at an offset, in place; what lies beyond its end is added. */
NTSTATUS volumeWriteFile(Volume& volume, FileRef file, uint64_t offset, Bytes bytes);

/* ---- Creating (practice systems and tests) ---- */

enum class NewFile { file, directory };

/* STATUS_OBJECT_NAME_COLLISION, STATUS_OBJECT_NAME_INVALID, STATUS_DISK_FULL. The new file has this
 * descriptor. */
NTSTATUS volumeCreate(Volume& volume, FileRef directory, std::u16string_view name, NewFile kind,
                      Bytes descriptor, FileRef& file);

/* A further name for a file. */
NTSTATUS volumeLink(Volume& volume, FileRef file, FileRef directory, std::u16string_view name);

/* Makes an empty directory a junction to a path such as "C:\Windows". */
NTSTATUS volumeCreateJunction(Volume& volume, FileRef directory, std::u16string_view target);

/* Sets the FILE_ATTRIBUTE_ bits read-only, hidden, system and archive. */
NTSTATUS volumeSetAttributes(Volume& volume, FileRef file, uint32_t attributes);

} /* namespace offline */

#endif
