/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/volume/open_volume.h"
/* before everything else */
#include <cerrno>

namespace offline {

/* The same file is often met several times in a row, and counts once. */
void volumeNoteDamage(Volume& volume, FileRef file) {
    const uint64_t record = recordNumberOf(file);
    if (record == volume.lastDamaged) return;
    volume.lastDamaged = record;
    diskNoteDamage(*volume.device.disk, volume.device.start, record);
}

void beginCall(Volume& volume, FileRef file) {
    volume.lookingAt = recordNumberOf(file);
    volume.device.failed = STATUS_SUCCESS;
    allowReads(volume, readsOfACall);
    errno = 0;
}

NTSTATUS libraryStatus(Volume& volume, int error) {
    switch (error) {
        case ENOMEM:
            return STATUS_NO_MEMORY;
        case ENOSPC:
            return STATUS_DISK_FULL;
        default:
            break;
    }
    if (volume.device.failed < 0) return volume.device.failed;
    switch (error) {
        case EEXIST:
            return STATUS_OBJECT_NAME_COLLISION;
        case EOPNOTSUPP:
            return STATUS_NOT_SUPPORTED;
        case EACCES:
        case EPERM:
            return STATUS_ACCESS_DENIED;
        default:
            volumeNoteDamage(volume, volume.lookingAt);
            return STATUS_FILE_CORRUPT_ERROR;
    }
}

NTSTATUS Inode::open(FileRef file) {
    NTSTATUS status = close();
    if (status < 0) return status;
    beginCall(volume, file);
    writesBefore = volume.device.writes;
    inode = ntfs3g::ntfs_inode_open(volume.ntfs, file);
    return inode != nullptr && volume.device.failed >= 0 ? STATUS_SUCCESS : libraryStatus(volume, errno);
}

NTSTATUS Inode::close() {
    if (inode == nullptr) return STATUS_SUCCESS;
    ntfs3g::ntfs_inode* closing = inode;
    inode = nullptr;
    allowReads(volume, readsOfACall);
    return closed(ntfs3g::ntfs_inode_close(closing) == 0);
}

NTSTATUS Inode::closeIn(Inode& directory) {
    if (inode == nullptr) return STATUS_SUCCESS;
    ntfs3g::ntfs_inode* closing = inode;
    inode = nullptr;
    allowReads(volume, readsOfACall);
    return closed(ntfs3g::ntfs_inode_close_in_dir(closing, directory.inode) == 0);
}

/* A change in whose course the disk refused something is not whole, whatever the library made of that. */
NTSTATUS Inode::closed(bool done) {
    const bool written = volume.device.writes != writesBefore;
    if (done && !(written && volume.device.failed < 0)) return STATUS_SUCCESS;
    return changeFailed(volume, libraryStatus(volume, errno));
}

} /* namespace offline */
