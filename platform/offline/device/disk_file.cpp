/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/device/disk_file.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/offline/base/streams.h"
#include "platform/offline/device/disk_place.h"
#include "platform/offline/device/host_mounts.h"

namespace offline {
namespace {

NTSTATUS refuseErrno(const std::string& path, int error, Problem& problem) {
    switch (error) {
        case ENOENT:
        case ENOTDIR:
        case ENXIO:
        case ENODEV:
        case ENOMEDIUM:
            return refuse(problem, STATUS_NO_SUCH_FILE,
                          path + ": there is no such file or device; name a disk image or a block device");
        case EACCES:
        case EPERM:
            return refuse(problem, STATUS_ACCESS_DENIED,
                          path + ": permission to read it is missing; run as a user who may read it");
        case EBUSY:
            return refuse(problem, STATUS_SHARING_VIOLATION,
                          path + ": the device is in use; unmount it and what lies on it, then try again");
        default:
            return refuse(
                problem, STATUS_IO_DEVICE_ERROR,
                path + ": it can't be opened (" + std::strerror(error) + "); check the file or device");
    }
}

bool onlyReadable(int error) {
    return error == EACCES || error == EPERM || error == EROFS || error == ETXTBSY;
}

/* A file without any write permission is only read, even where the user could write it all the same: whoever
 * took the permission away meant it. */
bool keptFromWrites(const struct stat& info) {
    return (info.st_mode & (S_IWUSR | S_IWGRP | S_IWOTH)) == 0;
}

bool deviceKeptFromWrites(int file) {
    int protectedAgainstWrites = 0;
    return ioctl(file, BLKROGET, &protectedAgainstWrites) == 0 && protectedAgainstWrites != 0;
}

NTSTATUS refuseKind(const std::string& path, const struct stat& info, Problem& problem) {
    if (S_ISREG(info.st_mode) || S_ISBLK(info.st_mode)) return STATUS_SUCCESS;
    const char* const kind = S_ISDIR(info.st_mode) ? "a directory" : "neither a file nor a block device";
    return refuse(problem, STATUS_INVALID_PARAMETER,
                  path + ": it is " + kind + "; name a disk image or a block device");
}

/* Opens it for reading where it can only be read; whether that will do is decided by whoever has its lock. */
NTSTATUS openFile(DiskFile& disk, DiskAccess access, const struct stat& before, Problem& problem) {
    const bool alone = S_ISBLK(before.st_mode) && access != DiskAccess::below;
    const int flags = O_CLOEXEC | O_NONBLOCK | (alone ? O_EXCL : 0);
    disk.readOnly = access != DiskAccess::readWrite || keptFromWrites(before);
    if (!disk.readOnly) {
        disk.file = open(disk.path.c_str(), flags | O_RDWR);
        if (disk.file < 0 && onlyReadable(errno)) disk.readOnly = true;
    }
    if (disk.readOnly) disk.file = open(disk.path.c_str(), flags | O_RDONLY);
    disk.file = aboveStandard(disk.file);
    if (disk.file < 0) return refuseErrno(disk.path, errno, problem);
    struct stat after = {};
    if (fstat(disk.file, &after) != 0 || (after.st_mode & S_IFMT) != (before.st_mode & S_IFMT)) {
        return refuse(problem, STATUS_SHARING_VIOLATION,
                      disk.path + ": it changed while it was opened; try again");
    }
    return STATUS_SUCCESS;
}

/* The disk's size, and for a device its sectors and whether it is write-protected. */
NTSTATUS measure(DiskFile& disk, Problem& problem) {
    struct stat info = {};
    if (fstat(disk.file, &info) != 0) return refuseErrno(disk.path, errno, problem);
    disk.isDevice = S_ISBLK(info.st_mode);
    if (disk.isDevice) {
        uint64_t bytes = 0;
        int sector = 0;
        if (ioctl(disk.file, BLKGETSIZE64, &bytes) != 0) return refuseErrno(disk.path, errno, problem);
        disk.size = bytes;
        if (ioctl(disk.file, BLKSSZGET, &sector) == 0 && (sector == 512 || sector == 4096)) {
            disk.sectorSize = static_cast<uint32_t>(sector);
        }
        if (deviceKeptFromWrites(disk.file)) disk.readOnly = true;
    } else {
        disk.size = static_cast<uint64_t>(info.st_size);
    }
    if (disk.size == 0) {
        return refuse(problem, STATUS_UNRECOGNIZED_VOLUME,
                      disk.path + ": it is empty; name a disk image that holds a Windows installation");
    }
    return STATUS_SUCCESS;
}

int lockBytes(int file, struct flock lock) {
    return fcntl(file, F_OFD_SETLK, &lock) == 0 ? 0 : errno;
}

/* The lock belongs to this opening of the file, so that it holds within the process too and falls with the
 * file. */
NTSTATUS lockPart(const DiskFile& disk, DiskAccess access, int file, struct flock lock, Problem& problem) {
    const bool mayLockForWriting = (fcntl(file, F_GETFL) & O_ACCMODE) == O_RDWR;
    lock.l_type = disk.readOnly || !mayLockForWriting ? F_RDLCK : F_WRLCK;
    lock.l_whence = SEEK_SET;
    const bool wholeForReading = lock.l_type == F_RDLCK && lock.l_start == 0 && lock.l_len == 0;
    const int error = wholeForReading ? lockAmongReaders(file, ReaderLock::plain) : lockBytes(file, lock);
    if (error != 0) {
        if (error == EAGAIN || error == EACCES) return refuseInUse(disk.path, problem);
        return refuse(problem, STATUS_SHARING_VIOLATION,
                      disk.path + ": it can't be locked here (" + std::strerror(error) +
                          "); copy it to a local file system first");
    }
    if (access == DiskAccess::readOnly) return STATUS_SUCCESS;
    /* For a trial: whether others only read what would be written. */
    lock.l_type = F_WRLCK;
    const bool shared = fcntl(file, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
    return shared ? refuseInUse(disk.path, problem) : STATUS_SUCCESS;
}

/* The disk, and of a loop device its part of the file below it, which others know by the file's name. */
NTSTATUS lockFile(DiskFile& disk, DiskAccess access, const DiskPlace& place, Problem& problem) {
    const NTSTATUS status = lockPart(disk, access, disk.file, {}, problem);
    if (status < 0 || place.file.empty()) return status;
    disk.bottomFile = openBottomFile(place, !disk.readOnly);
    if (disk.bottomFile < 0) return STATUS_SUCCESS; /* out of reach; see loopDeviceInUse */
    struct flock part = {};
    constexpr uint64_t farthest = INT64_MAX;
    part.l_start = static_cast<off_t>(std::min(place.start, farthest));
    part.l_len = place.end > farthest ? 0 : static_cast<off_t>(place.end - place.start); /* 0: to the end */
    return lockPart(disk, access, disk.bottomFile, part, problem);
}

/* A mount holds a block device, so that opening it has been refused already; a file is looked for among what
 * is mounted and below loop devices. */
NTSTATUS refuseMounted(const DiskFile& disk, const struct stat& info, const DiskPlace& place,
                       Problem& problem) {
    if (isMounted(info)) {
        return refuse(problem, STATUS_SHARING_VIOLATION,
                      disk.path + ": it is mounted; unmount it, then try again");
    }
    const std::string loop = loopDeviceInUse(place);
    if (loop.empty()) return STATUS_SUCCESS;
    return refuse(problem, STATUS_SHARING_VIOLATION,
                  disk.path + ": it is mounted or used through " + loop +
                      "; unmount and detach that (losetup -d), then try again");
}

/* A limit on files' sizes also refuses to write beyond it in a file that is longer, the old bytes too. */
NTSTATUS refuseBeyondLimit(const DiskFile& disk, DiskAccess access, Problem& problem) {
    rlimit limit = {};
    if (access != DiskAccess::readWrite || disk.isDevice || getrlimit(RLIMIT_FSIZE, &limit) != 0 ||
        limit.rlim_cur == RLIM_INFINITY || limit.rlim_cur >= disk.size) {
        return STATUS_SUCCESS;
    }
    return refuse(problem, STATUS_DISK_FULL,
                  disk.path + ": it is longer than files may be here, so not all of it can be written; " +
                      "raise that limit (ulimit -f)");
}

NTSTATUS refuseReadOnly(const DiskFile& disk, DiskAccess access, Problem& problem) {
    if (access == DiskAccess::readOnly) return STATUS_SUCCESS;
    if (access == DiskAccess::trial ? diskFileWritable(disk) : !disk.readOnly) return STATUS_SUCCESS;
    return refuseOnlyReadable(disk.path, problem);
}

} /* namespace */

int lockAmongReaders(int file, ReaderLock kind) {
    struct Stretch {
        off_t start, length; /* bytes; a length of 0: to the end */
    };
    constexpr Stretch stretches[] = {{0, 101}, {104, 96}, {201, 0}};
    struct flock lock = {};
    lock.l_whence = SEEK_SET;
    for (const Stretch& stretch : stretches) {
        lock.l_type = F_RDLCK;
        lock.l_start = stretch.start;
        lock.l_len = stretch.length;
        if (const int error = lockBytes(file, lock); error != 0) return error;
    }
    if (kind == ReaderLock::plain) return 0;
    lock.l_type = F_WRLCK;
    lock.l_start = 101;
    lock.l_len = 3;
    if (fcntl(file, F_OFD_GETLK, &lock) != 0) return errno;
    return lock.l_type == F_UNLCK ? 0 : EAGAIN;
}

NTSTATUS refuseInUse(const std::string& disk, Problem& problem) {
    return refuse(
        problem, STATUS_SHARING_VIOLATION,
        disk + ": another program is using it; end that program or virtual machine, then try again");
}

NTSTATUS refuseOnlyReadable(const std::string& disk, Problem& problem) {
    return refuse(problem, STATUS_MEDIA_WRITE_PROTECTED,
                  disk +
                      ": it can only be read; make it writable, or work on a copy that is (a dry run, "
                      "too, writes the server GUID)");
}

DiskFile::~DiskFile() {
    if (file >= 0) close(file);
    if (bottomFile >= 0) close(bottomFile);
}

NTSTATUS diskFileOpen(const std::string& path, DiskAccess access, DiskFile& disk, Problem& problem) {
    struct stat info = {};
    disk.path = path;
    if (stat(path.c_str(), &info) != 0) return refuseErrno(path, errno, problem);
    const DiskPlace place = diskPlaceOf(info);
    NTSTATUS status = refuseKind(path, info, problem);
    if (status >= 0) status = openFile(disk, access, info, problem);
    if (access == DiskAccess::below) access = DiskAccess::readOnly;
    if (status >= 0) status = refuseMounted(disk, info, place, problem);
    if (status >= 0) status = measure(disk, problem);
    if (status >= 0) status = lockFile(disk, access, place, problem);
    if (status >= 0) status = refuseReadOnly(disk, access, problem);
    if (status >= 0) status = refuseBeyondLimit(disk, access, problem);
    return status;
}

bool diskFileWritable(const DiskFile& disk) {
    struct stat info = {};
    if (fstat(disk.file, &info) != 0 || keptFromWrites(info)) return false;
    if (disk.isDevice) {
        return !deviceKeptFromWrites(disk.file) &&
               faccessat(AT_FDCWD, disk.path.c_str(), W_OK, AT_EACCESS) == 0;
    }
    /* There is more than permissions: programs that run, files that may only grow. */
    const int file = aboveStandard(open(disk.path.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK));
    if (file >= 0) close(file);
    return file >= 0;
}

} /* namespace offline */
