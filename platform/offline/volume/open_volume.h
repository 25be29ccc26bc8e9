/* SPDX-License-Identifier: GPL-2.0-or-later */
/* What an open volume consists of, and what the room's files share. Private to this room; include it
 * first. */
#ifndef QUILLET_OFFLINE_VOLUME_OPEN_VOLUME_H
#define QUILLET_OFFLINE_VOLUME_OPEN_VOLUME_H

#include "platform/offline/volume/secure_table.h"
/* before everything else */
#include <algorithm>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/offline/base/bytes.h"
#include "platform/offline/base/guarded.h"
#include "platform/offline/volume/record_table.h"
#include "platform/offline/volume/volume.h"

namespace offline {

/* What libntfs-3g reads and writes through: a part of a disk. */
struct VolumeDevice {
    Disk* disk = nullptr;
    uint64_t start = 0; /* bytes */
    uint64_t size = 0;  /* bytes */
    int64_t position = 0;
    bool mayWrite = false; /* not before the dirty mark is noted */
    NTSTATUS failed =
        STATUS_SUCCESS; /* of the first read or write of this call (see beginCall) that failed */
    uint64_t writes = 0;
    uint64_t readsLeft = 0; /* see allowReads */
};

extern const ntfs3g::ntfs_device_operations volumeDeviceOperations;

/* What an MFT record says, taken from the record as it lies on the disk. */
struct FileRecord {
    bool directory = false;
    bool ownDescriptor = false;  /* an attribute of its own holds the descriptor */
    bool complete = false;       /* size and tag are not in further records */
    bool reparseData = false;    /* an attribute that makes a reparse point of it, in this record */
    bool tagMissing = false;     /* the reparse data must be read for the tag */
    uint32_t securityId = 0;     /* 0: none, or the record has no room for one */
    size_t securityIdOffset = 0; /* bytes from the record's start */
    size_t firstName = 0;        /* the same, of the first attribute with a name; 0: none */
    FileInfo info = {};
};

/* Of a walk that somebody sees the progress of. */
struct WalkProgress {
    Progress* progress = nullptr;    /* null: nobody does */
    std::vector<uint8_t> unmet = {}; /* a bit for each record in use that it has not met; empty: not known */
};

struct Volume {
    std::string name; /* for messages */
    VolumeDevice device;
    ntfs3g::ntfs_volume* ntfs = nullptr;
    bool readOnly = true;
    bool refusedChange = false;
    bool changed = false;                    /* its dirty mark is noted */
    NTSTATUS changeFailure = STATUS_SUCCESS; /* of the first change that did not succeed whole */

    /* The record looked at last. It is what lies on the disk: whoever changes the file otherwise forgets it.
     */
    std::vector<uint8_t> recordBytes;
    uint64_t recordNumber = UINT64_MAX;
    FileRecord record;
    RecordTable table;
    std::vector<FileRef> readAhead; /* the directories that were read ahead last */

    uint64_t lookingAt = 0;            /* MFT record of the file that beginCall named */
    uint64_t lastDamaged = UINT64_MAX; /* that damage was noted of */

    /* Descriptors by security id, an empty one where it leads to none that is valid. */
    std::unordered_map<uint32_t, std::vector<uint8_t>> descriptors;
    size_t descriptorBytes = 0; /* kept in it */
    SecureTable secure;
    WalkProgress walk;
    /* Kept from directory to directory. */
    std::vector<uint8_t> indexBlock, indexBitmap;

    std::vector<uint8_t> lastDescriptor; /* of a file without a security id */
};

inline uint64_t recordNumberOf(FileRef file) {
    return MREF(file);
}

/* Whether the file may be changed: the volume's own metadata may not, but for the root directory. */
constexpr uint64_t firstOrdinaryRecord = 24;
inline bool isMetadata(FileRef file) {
    return recordNumberOf(file) < firstOrdinaryRecord && recordNumberOf(file) != rootDirectory;
}

/* How many reads the library may do from now on. It follows an index wherever that leads, so that a damaged
 * one that runs in a circle would never end; a sound volume stays far below these numbers. */
constexpr uint64_t readsOfACall = 1'000'000, readsOfALookUp = 10'000;
inline void allowReads(Volume& volume, uint64_t count) {
    volume.device.readsLeft = count;
}

/* Before calls of the library that concern this file: what they run into is its. */
void beginCall(Volume& volume, FileRef file);

/* ---- Changes ---- */

/* Before any change: refuses on a volume that can only be read; the first time, has the disk note what the
 * volume's dirty mark looks like. */
NTSTATUS beginChange(Volume& volume);

/* For beginChange: while the disk still holds what it held when the volume was opened. May throw
 * std::bad_alloc. */
NTSTATUS noteDirtyMark(Volume& volume);

/* Notes that a change did not succeed whole, for this reason, and gives that back: volumeClose then says so.
 */
inline NTSTATUS changeFailed(Volume& volume, NTSTATUS status) {
    if (volume.changeFailure >= 0) volume.changeFailure = status;
    return status;
}

/* The one place that keeps a device's error apart from damage: the status of a call of the library that
 * failed and set errno, or of our own look at a structure (error 0). Damage is remembered, once for a file in
 * a row. */
NTSTATUS libraryStatus(Volume& volume, int error);

/* ---- Records ---- */

/* Whether the update sequence, which guards each sector of a record or an index block, lies after its header
 * and before its contents. The library passes over one that does not, and gives what lies on the disk as it
 * is. */
inline bool updateSequenceFits(Bytes record, size_t header, size_t contents) {
    constexpr size_t sector = 512;
    const size_t at = numberAt<uint16_t>(record, 4), count = numberAt<uint16_t>(record, 6);
    return count == record.size() / sector + 1 && at % 2 == 0 && at >= header &&
           at + 2 * count <= std::min(contents, record.size());
}

/* One attribute of a record. */
struct Attribute {
    uint32_t type;
    bool resident, named;
    Bytes header; /* with the value after it */
    Bytes value;  /* of a resident one */
};

/* The attribute at an offset in the used part of a record; false at a header or value that does not lie
 * inside. */
bool attributeAt(Bytes used, size_t offset, Attribute& attribute);

/* A name of a file, as the value of its attribute has it. */
struct FileName {
    FileRef directory = 0;
    uint8_t type = 0; /* FILE_NAME_ of NTFS */
    Bytes text;       /* not empty */
};

/* False when the name does not lie inside, or is empty. */
bool takeFileName(Bytes value, FileName& name);

/* Fills volume.record with the file's. STATUS_FILE_CORRUPT_ERROR when it is no record of a file in use. */
NTSTATUS loadRecord(Volume& volume, FileRef file);

/* Goes through the attributes of a record with its update sequence, which is undone. False when it is no
 * record of a file in use, or damaged. A reference without a sequence number leads to any. */
bool parseRecord(std::span<uint8_t> record, FileRef reference, FileRecord& file);

/* Whether the record tells all of the file; then what it has to be taken for is in it too. */
bool tellsAll(FileRecord& record);

/* Where records lie on the volume, in bytes from its start, and for how many bytes from there; false when the
 * first is not in one piece there. */
bool recordPlace(const Volume& volume, uint64_t number, uint64_t& place, uint64_t& length);
uint64_t recordCount(const Volume& volume);

/* A file is about to be changed by the library: what is known of it holds no more, but for a security id that
 * is to be written. */
void forgetRecord(Volume& volume, FileRef file);

/* Whether the record that is loaded has this name in that directory; one that is not complete is believed,
 * for its names can be in further records. */
bool recordNamed(const Volume& volume, FileRef directory, std::u16string_view name);

/* Writes the security id into the record that is loaded. */
NTSTATUS writeSecurityId(Volume& volume, uint32_t id);

/* The walk has met the file. */
void noteMet(Volume& volume, FileRef file);

/* ---- All records at once ---- */

/* What is known of the file without its record; null: the record must be asked. Goes through the whole MFT,
 * front to back, as soon as that is worth it. May throw std::bad_alloc. */
RecordFacts* factsOf(Volume& volume, FileRef file);

/* Whether it is known that the file has this name in that directory. */
bool factsNamed(const Volume& volume, FileRef file, const RecordFacts& facts, FileRef directory,
                std::u16string_view name);

/* Gives the file another security id, which is written by writeSecurityIds. */
void changeSecurityId(Volume& volume, FileRef file, RecordFacts& facts, uint32_t id);

/* The id that is still to be written into a record, if there is one; and that it need not be any more. */
bool changedId(const Volume& volume, uint64_t number, uint32_t& id);
void forgetChangedId(Volume& volume, uint64_t number);

/* Writes the ids into their records, in the order of the MFT. What could not be written is tried again the
 * next time. May throw std::bad_alloc. */
NTSTATUS writeSecurityIds(Volume& volume);

/* Where the device gains by it, reads the directory of this entry and those after it in the listing into the
 * cache. May throw std::bad_alloc. */
void readAhead(Volume& volume, const DirectoryListing& listing, const DirectoryEntry& first);

/* ---- Inodes ---- */

/* For the library's fields that are declared as enumerations but hold whatever the disk holds. */
template <class Field>
Bytes bytesOf(const Field& field) {
    return {reinterpret_cast<const uint8_t*>(&field), sizeof field};
}

/* For ntfs_inode_update_times: the contents changed. */
constexpr auto updateContents = static_cast<ntfs3g::ntfs_time_update_flags>(NTFS_UPDATE_MCTIME);

/* An open inode. The library has no reference counts, so that no two are ever open on one file, and none is
 * kept from one call to the next. */
struct Inode {
    Volume& volume;
    ntfs3g::ntfs_inode* inode = nullptr;
    uint64_t writesBefore = 0; /* of the device, when it was opened */

    explicit Inode(Volume& of) : volume(of) {}
    Inode(const Inode&) = delete;
    Inode& operator=(const Inode&) = delete;
    ~Inode() { close(); }

    NTSTATUS open(FileRef file);
    /* Writes what was changed. A failure that nobody asks for here is remembered in the volume. */
    NTSTATUS close();
    NTSTATUS closeIn(Inode& directory); /* while the directory that holds its only name is open */
    NTSTATUS closed(bool done);         /* for the two above: what the library's closing came to */
    uint32_t attributes() const { return numberAt<uint32_t>(bytesOf(inode->flags), 0); }
    bool isDirectory() const { return (inode->mrec->flags & ntfs3g::MFT_RECORD_IS_DIRECTORY) != 0; }
};

/* ---- Descriptors ---- */

/* Whether the volume's indexes of descriptors, and the stream that they point into, are whole and agree:
 * STATUS_FILE_CORRUPT_ERROR when they are not, or why that can't be said. Else the volume knows them all from
 * now on. May throw std::bad_alloc. */
NTSTATUS checkSecureIndexes(Volume& volume);

/* The id under which files share this valid descriptor; it is stored when it is new. May throw
 * std::bad_alloc. */
NTSTATUS securityIdOf(Volume& volume, Bytes descriptor, uint32_t& id);

/* Writes the descriptors that were stored, and the entries that lead to them. What could not be written is
 * tried again the next time. May throw std::bad_alloc. */
NTSTATUS writeStored(Volume& volume);

/* ---- Names ---- */

inline const ntfs3g::ntfschar* libraryName(std::u16string_view name) {
    return reinterpret_cast<const ntfs3g::ntfschar*>(name.data());
}
constexpr size_t longestName = 255; /* characters */

/* An entry of an open directory; the exact name before one that differs by case only. */
NTSTATUS lookUpIn(Volume& volume, Inode& directory, std::u16string_view name, FileRef& file);

} /* namespace offline */

#endif
