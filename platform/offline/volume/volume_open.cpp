/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Opening a volume, its first change, closing. */
#include "platform/offline/volume/open_volume.h"
/* before everything else */
#include <cerrno>
#include <cstdlib>

namespace offline {
namespace {

constexpr uint16_t dirtyMarks = ntfs3g::VOLUME_IS_DIRTY | ntfs3g::VOLUME_CHKDSK_UNDERWAY;

NTSTATUS refuseHibernated(const Volume& volume, Problem& problem) {
    return refuse(problem, STATUS_SHARING_VIOLATION,
                  volume.name +
                      ": Windows on it is hibernated or used fast startup; start it and shut it down fully "
                      "(shutdown /s /t 0), then try again");
}

NTSTATUS refuseUnclean(const Volume& volume, const char* what, Problem& problem) {
    return refuse(
        problem, STATUS_DISK_CORRUPT_ERROR,
        volume.name + ": " + what +
            "; start Windows on it and shut it down fully, or run chkdsk /f on the volume, then try again");
}

/* A commit that was cut off leaves the mark as well; where its journal lies beside the disk it was put right
 * before, or refused. */
NTSTATUS refuseDirty(const Volume& volume, Problem& problem) {
    return refuse(
        problem, STATUS_DISK_CORRUPT_ERROR,
        volume.name +
            ": it is marked as dirty; if a run of quillet on it was cut off, bring the run's journal "
            "(DISK.quillet-journal) back to its place beside the disk and use `quillet-offline undo`; else "
            "start Windows on it and shut it down fully, or run chkdsk /f on the volume, then try again");
}

/* For what the disk, the memory or damage keeps from being known. */
NTSTATUS refuseUnread(const Volume& volume, NTSTATUS status, Problem& problem) {
    switch (status) {
        case STATUS_NO_MEMORY:
            return refuse(problem, status, volume.name + ": there is not enough memory to open it");
        case STATUS_IO_DEVICE_ERROR:
            return refuse(problem, status,
                          volume.name + ": it can't be read; check the medium, or work on a copy of it");
        default:
            return refuse(
                problem, STATUS_DISK_CORRUPT_ERROR,
                volume.name + ": its NTFS structures are damaged; repair the volume (chkdsk /f) first");
    }
}

NTSTATUS refuseUncleanJournal(const Volume& volume, Problem& problem) {
    return refuseUnclean(volume, "its journal holds changes that are not carried out", problem);
}

/* What the library says with its errno. */
NTSTATUS refuseMount(const Volume& volume, int error, Problem& problem) {
    if (volume.device.failed < 0) return refuseUnread(volume, volume.device.failed, problem);
    switch (error) {
        case EPERM:
            return refuseHibernated(volume, problem);
        case EOPNOTSUPP:
            return refuseUncleanJournal(volume, problem);
        case EROFS:
            return refuseUnclean(volume, "its transaction data must be repaired before it can be used",
                                 problem);
        case ENOMEM:
            return refuseUnread(volume, STATUS_NO_MEMORY, problem);
        case EINVAL:
            return refuse(problem, STATUS_UNRECOGNIZED_VOLUME,
                          volume.name + ": it holds no valid NTFS; repair the volume (chkdsk /f) first");
        default:
            return refuseUnread(volume, STATUS_FILE_CORRUPT_ERROR, problem);
    }
}

NTSTATUS mount(Volume& volume, Problem& problem) {
    allowReads(volume, readsOfACall);
    ntfs3g::ntfs_log_set_handler(ntfs3g::ntfs_log_handler_null);
    /* Which the library only reads. */
    auto* const operations = const_cast<ntfs3g::ntfs_device_operations*>(&volumeDeviceOperations);
    ntfs3g::ntfs_device* device =
        ntfs3g::ntfs_device_alloc(volume.name.c_str(), 0, operations, &volume.device);
    if (device == nullptr) return refuseMount(volume, ENOMEM, problem);
    errno = 0;
    unsigned long flags = volume.readOnly ? ntfs3g::NTFS_MNT_RDONLY : ntfs3g::NTFS_MNT_NONE;
    volume.ntfs = ntfs3g::ntfs_device_mount(device, flags);
    if (volume.ntfs == nullptr) {
        int error = errno;
        ntfs3g::ntfs_device_free(device);
        return refuseMount(volume, error, problem);
    }
    /* The library opens a volume without some of its files when they can't be read. */
    if (volume.device.failed < 0) return refuseUnread(volume, volume.device.failed, problem);
    ntfs3g::ntfs_create_lru_caches(volume.ntfs);
    ntfs3g::ntfs_set_shown_files(volume.ntfs, libraryTrue, libraryTrue, libraryFalse);
    return STATUS_SUCCESS;
}

/* Refuses a journal that has not been carried out. The library asks this itself only when it opens a volume
 * for writing. */
NTSTATUS refuseJournal(Volume& volume, Problem& problem) {
    Inode file(volume);
    const NTSTATUS status = file.open(ntfs3g::FILE_LogFile);
    if (status < 0) return refuseUnread(volume, status, problem);
    ntfs3g::ntfs_attr* data = ntfs3g::ntfs_attr_open(file.inode, ntfs3g::AT_DATA, nullptr, 0);
    if (data == nullptr) return refuseUnread(volume, libraryStatus(volume, errno), problem);
    ntfs3g::RESTART_PAGE_HEADER* restart = nullptr;
    const bool clean =
        ntfs3g::ntfs_check_logfile(data, &restart) != 0 && ntfs3g::ntfs_is_logfile_clean(data, restart) != 0;
    std::free(restart);
    ntfs3g::ntfs_attr_close(data);
    if (volume.device.failed < 0) return refuseUnread(volume, volume.device.failed, problem);
    return clean ? STATUS_SUCCESS : refuseUncleanJournal(volume, problem);
}

/* The library changes the indexes of descriptors without looking. */
NTSTATUS refuseSecureIndexes(Volume& volume, Problem& problem) {
    allowReads(volume, readsOfACall);
    const NTSTATUS status = checkSecureIndexes(volume);
    if (status >= 0) return status;
    if (status != STATUS_FILE_CORRUPT_ERROR) return refuseUnread(volume, status, problem);
    return refuse(
        problem, STATUS_DISK_CORRUPT_ERROR,
        volume.name + ": its index of security descriptors is damaged; repair the volume (chkdsk /f) first");
}

NTSTATUS refuseState(Volume& volume, Problem& problem) {
    if (volume.ntfs->major_ver < 3) {
        return refuse(problem, STATUS_NOT_SUPPORTED,
                      volume.name + ": its NTFS is older than version 3.0; upgrade the volume first");
    }
    if ((volume.ntfs->flags & dirtyMarks) != 0) return refuseDirty(volume, problem);
    if (NVolReadOnly(volume.ntfs)) {
        if (!volume.readOnly) return refuseMount(volume, EROFS, problem);
        errno = 0;
        if (ntfs3g::ntfs_volume_check_hiberfile(volume.ntfs, 0) < 0)
            return refuseMount(volume, errno, problem);
        if (const NTSTATUS status = refuseJournal(volume, problem); status < 0) return status;
    }
    return volume.readOnly ? STATUS_SUCCESS : refuseSecureIndexes(volume, problem);
}

/* Writes the metadata files that the library keeps open; all are tried. */
NTSTATUS syncMetadata(Volume& volume) {
    NTSTATUS first = STATUS_SUCCESS;
    for (ntfs3g::ntfs_inode* inode :
         {volume.ntfs->secure_ni, volume.ntfs->lcnbmp_ni, volume.ntfs->mft_ni, volume.ntfs->mftmirr_ni}) {
        if (inode == nullptr) continue;
        beginCall(volume, inode->mft_no);
        if (ntfs3g::ntfs_inode_sync(inode) == 0) continue;
        const NTSTATUS status = libraryStatus(volume, errno);
        if (first >= 0) first = status;
    }
    return first;
}

/* What is not written at once: descriptors first, then the files' ids that lead to them. */
NTSTATUS writeCollected(Volume& volume) {
    return guarded([&] {
        const NTSTATUS status = writeStored(volume);
        return status < 0 ? status : writeSecurityIds(volume);
    });
}

} /* namespace */

void VolumeDeleter::operator()(Volume* volume) const {
    if (volume->ntfs != nullptr) static_cast<void>(writeCollected(*volume));
    volume->secure.stream.reset();
    if (volume->ntfs != nullptr) ntfs3g::ntfs_umount(volume->ntfs, libraryTrue);
    delete volume;
}

NTSTATUS volumeOpen(Disk& disk, const Partition& partition, VolumePtr& volume, Problem& problem) {
    volume.reset();
    return guardedRefusing(problem, [&]() -> NTSTATUS {
        VolumePtr opened(new Volume);
        opened->name = diskPath(disk);
        if (partition.table != PartitionTable::none) {
            opened->name += ", volume at byte " + std::to_string(partition.start);
        }
        if (partition.start > diskSize(disk) || partition.size > diskSize(disk) - partition.start) {
            return refuse(problem, STATUS_INVALID_PARAMETER,
                          opened->name + ": it reaches beyond the disk's end");
        }
        opened->device.disk = &disk;
        opened->device.start = partition.start;
        opened->device.size = partition.size;
        opened->readOnly = !diskForChanges(disk);
        NTSTATUS status = mount(*opened, problem);
        if (status >= 0) status = refuseState(*opened, problem);
        if (status < 0) return status;
        opened->recordBytes.resize(opened->ntfs->mft_record_size);
        volume = std::move(opened);
        return STATUS_SUCCESS;
    });
}

NTSTATUS beginChange(Volume& volume) {
    if (volume.readOnly) {
        volume.refusedChange = true;
        return STATUS_MEDIA_WRITE_PROTECTED;
    }
    if (volume.changed) return STATUS_SUCCESS;
    const NTSTATUS status = noteDirtyMark(volume);
    volume.changed = volume.device.mayWrite = status >= 0;
    return volume.changed ? STATUS_SUCCESS : changeFailed(volume, status);
}

NTSTATUS volumeFlush(Volume& volume) {
    if (!volume.changed) return STATUS_SUCCESS;
    NTSTATUS status = writeCollected(volume);
    const NTSTATUS written = syncMetadata(volume);
    const NTSTATUS synced = diskSync(*volume.device.disk);
    if (status >= 0) status = written < 0 ? written : synced;
    return status < 0 ? changeFailed(volume, status) : status;
}

NTSTATUS volumeClose(VolumePtr volume) {
    NTSTATUS status = volumeFlush(*volume);
    if (volume->changeFailure < 0) status = volume->changeFailure;
    ntfs3g::ntfs_volume* ntfs = volume->ntfs;
    volume->ntfs = nullptr;
    volume->secure.stream.reset();
    uint64_t writes = volume->device.writes;
    beginCall(*volume, ntfs3g::FILE_Volume);
    if (ntfs3g::ntfs_umount(ntfs, libraryTrue) != 0 && status >= 0) status = libraryStatus(*volume, errno);
    if (volume->device.writes != writes) {
        NTSTATUS late = diskSync(*volume->device.disk);
        if (status >= 0) status = late;
    }
    return status;
}

bool volumeReadOnly(const Volume& volume) {
    return volume.readOnly;
}
bool volumeRefusedChange(const Volume& volume) {
    return volume.refusedChange;
}
std::string volumeWriteReason(const Volume& volume) {
    return diskWriteReason(*volume.device.disk);
}
std::string volumeReadReason(const Volume& volume) {
    return diskReadReason(*volume.device.disk);
}

} /* namespace offline */
