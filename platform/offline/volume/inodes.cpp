#include "platform/offline/volume/open_volume.h"
/* before everything else */
#include <cerrno>

namespace offline {

NTSTATUS libraryStatus(const Volume& volume, int error) {
    switch (error) {
        case ENOMEM:
            return STATUS_NO_MEMORY;
        case ENOSPC:
            return STATUS_DISK_FULL;
        case EEXIST:
            return STATUS_OBJECT_NAME_COLLISION;
        case EOPNOTSUPP:
            return STATUS_NOT_SUPPORTED;
        case EACCES:
        case EPERM:
            return STATUS_ACCESS_DENIED;
        default:
            return volume.device.failed ? STATUS_IO_DEVICE_ERROR : STATUS_FILE_CORRUPT_ERROR;
    }
}

NTSTATUS Inode::open(FileRef file) {
    NTSTATUS status = close();
    if (status < 0) return status;
    volume.device.failed = false;
    allowReads(volume, readsOfACall);
    errno = 0;
    inode = ntfs3g::ntfs_inode_open(volume.ntfs, file);
    return inode != nullptr ? STATUS_SUCCESS : libraryStatus(volume, errno);
}

NTSTATUS Inode::close() {
    if (inode == nullptr) return STATUS_SUCCESS;
    ntfs3g::ntfs_inode* closing = inode;
    inode = nullptr;
    allowReads(volume, readsOfACall);
    if (ntfs3g::ntfs_inode_close(closing) == 0) return STATUS_SUCCESS;
    volume.failed = true;
    return libraryStatus(volume, errno);
}

NTSTATUS Inode::closeIn(Inode& directory) {
    if (inode == nullptr) return STATUS_SUCCESS;
    ntfs3g::ntfs_inode* closing = inode;
    inode = nullptr;
    allowReads(volume, readsOfACall);
    if (ntfs3g::ntfs_inode_close_in_dir(closing, directory.inode) == 0) return STATUS_SUCCESS;
    volume.failed = true;
    return libraryStatus(volume, errno);
}

} /* namespace offline */
