/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The device operations that libntfs-3g runs on. */
#include "platform/offline/volume/open_volume.h"
/* before everything else */
#include <fcntl.h>
#include <linux/fs.h>

#include <algorithm>
#include <cerrno>

namespace offline {
namespace {

using ntfs3g::ntfs_device;

VolumeDevice& deviceOf(ntfs_device* device) {
    return *static_cast<VolumeDevice*>(device->d_private);
}

int fail(int error) {
    errno = error;
    return -1;
}

/* The library keeps of the disk's reasons what errno can say, and not always that: the first one is noted. */
int64_t refuse(VolumeDevice& self, NTSTATUS status) {
    if (self.failed >= 0) self.failed = status;
    return fail(status == STATUS_NO_MEMORY ? ENOMEM : status == STATUS_DISK_FULL ? ENOSPC : EIO);
}

/* A call that succeeds leaves errno as it was: the library, and those who call it, take what they find there
 * for the reason of a failure. */
int64_t succeed(int errorBefore, int64_t count) {
    errno = errorBefore;
    return count;
}

int openDevice(ntfs_device* device, int flags) {
    if (NDevOpen(device)) return fail(EBUSY);
    NDevSetOpen(device);
    if ((flags & O_ACCMODE) == O_RDONLY) NDevSetReadOnly(device);
    return 0;
}

int syncDevice(ntfs_device* device) {
    /* The library syncs now and then on its own; what is written when is decided by volumeFlush and
     * volumeClose. */
    NDevClearDirty(device);
    return 0;
}

int closeDevice(ntfs_device* device) {
    if (!NDevOpen(device)) return fail(EBADF);
    NDevClearOpen(device);
    return 0;
}

int64_t seekDevice(ntfs_device* device, int64_t offset, int whence) {
    VolumeDevice& self = deviceOf(device);
    int64_t size = static_cast<int64_t>(self.size);
    int64_t base = whence == SEEK_SET ? 0 : whence == SEEK_CUR ? self.position : size;
    if (offset < -base || offset > size - base) return fail(EINVAL);
    return self.position = base + offset;
}

/* How many of the bytes lie on the device, or -1. */
int64_t within(const VolumeDevice& self, int64_t count, int64_t offset) {
    if (count < 0 || offset < 0) return fail(EINVAL);
    int64_t size = static_cast<int64_t>(self.size);
    return offset >= size ? 0 : std::min(count, size - offset);
}

int64_t readAt(ntfs_device* device, void* bytes, int64_t count, int64_t offset) {
    VolumeDevice& self = deviceOf(device);
    int64_t there = within(self, count, offset);
    if (there <= 0) return there;
    if (self.readsLeft == 0) return fail(EIO);
    --self.readsLeft;
    const int before = errno;
    NTSTATUS status = diskRead(*self.disk, self.start + static_cast<uint64_t>(offset),
                               {static_cast<uint8_t*>(bytes), static_cast<size_t>(there)});
    return status >= 0 ? succeed(before, there) : refuse(self, status);
}

int64_t writeAt(ntfs_device* device, const void* bytes, int64_t count, int64_t offset) {
    VolumeDevice& self = deviceOf(device);
    if (!self.mayWrite) return fail(EROFS);
    int64_t there = within(self, count, offset);
    if (there < 0) return there;
    if (there < count) return fail(ENOSPC);
    ++self.writes;
    const int before = errno;
    NTSTATUS status = diskWrite(*self.disk, self.start + static_cast<uint64_t>(offset),
                                {static_cast<const uint8_t*>(bytes), static_cast<size_t>(count)});
    if (status < 0) return refuse(self, status);
    NDevSetDirty(device);
    return succeed(before, count);
}

int64_t readOn(ntfs_device* device, void* bytes, int64_t count) {
    int64_t done = readAt(device, bytes, count, deviceOf(device).position);
    if (done > 0) deviceOf(device).position += done;
    return done;
}

int64_t writeOn(ntfs_device* device, const void* bytes, int64_t count) {
    int64_t done = writeAt(device, bytes, count, deviceOf(device).position);
    if (done > 0) deviceOf(device).position += done;
    return done;
}

int statDevice(ntfs_device* device, ntfs3g::stat* result) {
    auto* info =
        reinterpret_cast<struct ::stat*>(result); /* the library's declaration of the same structure */
    *info = {};
    info->st_mode = S_IFREG;
    info->st_size = static_cast<off_t>(deviceOf(device).size);
    return 0;
}

int ioctlDevice(ntfs_device* device, unsigned long request, void* argument) {
    if (request != BLKGETSIZE64) return fail(EOPNOTSUPP);
    *static_cast<uint64_t*>(argument) = deviceOf(device).size;
    return 0;
}

} /* namespace */

const ntfs3g::ntfs_device_operations volumeDeviceOperations = {
    openDevice, closeDevice, seekDevice, readOn,     writeOn,
    readAt,     writeAt,     syncDevice, statDevice, ioctlDevice,
};

} /* namespace offline */
