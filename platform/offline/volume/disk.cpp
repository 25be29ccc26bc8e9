#include "platform/offline/volume/disk.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "platform/offline/base/bytes.h"
#include "platform/offline/base/guarded.h"
#include "platform/offline/volume/block_cache.h"
#include "platform/offline/volume/mounts.h"

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

NTSTATUS openFile(Disk& disk, DiskAccess access, Problem& problem) {
    struct stat before = {};
    if (stat(disk.path.c_str(), &before) != 0) return refuseErrno(disk.path, errno, problem);
    if (S_ISDIR(before.st_mode)) {
        return refuse(problem, STATUS_INVALID_PARAMETER,
                      disk.path + ": it is a directory; name a disk image or a block device");
    }
    if (!S_ISREG(before.st_mode) && !S_ISBLK(before.st_mode)) {
        return refuse(
            problem, STATUS_INVALID_PARAMETER,
            disk.path + ": it is neither a file nor a block device; name a disk image or a block device");
    }
    int flags = O_CLOEXEC | O_NONBLOCK | (S_ISBLK(before.st_mode) ? O_EXCL : 0);
    disk.readOnly = access == DiskAccess::readOnly || keptFromWrites(before);
    if (!disk.readOnly) {
        disk.file = open(disk.path.c_str(), flags | O_RDWR);
        if (disk.file < 0 && onlyReadable(errno)) disk.readOnly = true;
    }
    if (disk.readOnly) disk.file = open(disk.path.c_str(), flags | O_RDONLY);
    if (disk.file < 0) return refuseErrno(disk.path, errno, problem);
    struct stat after = {};
    if (fstat(disk.file, &after) != 0 || (after.st_mode & S_IFMT) != (before.st_mode & S_IFMT)) {
        return refuse(problem, STATUS_SHARING_VIOLATION,
                      disk.path + ": it changed while it was opened; try again");
    }
    return STATUS_SUCCESS;
}

/* The disk's size, and for a device its sectors and whether it is write-protected. */
NTSTATUS measure(Disk& disk, Problem& problem) {
    struct stat info = {};
    if (fstat(disk.file, &info) != 0) return refuseErrno(disk.path, errno, problem);
    if (S_ISBLK(info.st_mode)) {
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

/* The lock belongs to this opening of the file, so that it holds within the process too and falls with the
 * file. */
NTSTATUS lockFile(const Disk& disk, Problem& problem) {
    struct flock lock = {};
    lock.l_type = disk.readOnly ? F_RDLCK : F_WRLCK;
    lock.l_whence = SEEK_SET;
    if (fcntl(disk.file, F_OFD_SETLK, &lock) == 0) return STATUS_SUCCESS;
    if (errno == EAGAIN || errno == EACCES) {
        return refuse(
            problem, STATUS_SHARING_VIOLATION,
            disk.path + ": another program is using it; end that program or virtual machine, then try again");
    }
    return refuse(problem, STATUS_SHARING_VIOLATION,
                  disk.path + ": it can't be locked here (" + std::strerror(errno) +
                      "); copy it to a local file system first");
}

struct DirectoryCloser {
    void operator()(DIR* directory) const { closedir(directory); }
};
using DirectoryPtr = std::unique_ptr<DIR, DirectoryCloser>;

/* Whether a loop device stands for the file and is mounted, itself or a partition of it. */
bool mountedByLoop(const std::string& path) {
    std::unique_ptr<char, decltype(&std::free)> whole(realpath(path.c_str(), nullptr), &std::free);
    DirectoryPtr devices(opendir("/sys/block"));
    if (whole == nullptr || devices == nullptr) return false;
    while (const dirent* device = readdir(devices.get())) {
        std::string name = device->d_name;
        if (name.rfind("loop", 0) != 0) continue;
        std::string backing;
        std::ifstream attribute("/sys/block/" + name + "/loop/backing_file");
        if (!std::getline(attribute, backing) || backing != whole.get()) continue;
        if (isMounted("/dev/" + name)) return true;
        DirectoryPtr parts(opendir(("/sys/block/" + name).c_str()));
        while (const dirent* part = parts == nullptr ? nullptr : readdir(parts.get())) {
            std::string partName = part->d_name;
            if (partName.rfind(name + "p", 0) == 0 && isMounted("/dev/" + partName)) return true;
        }
    }
    return false;
}

} /* namespace */

void DiskDeleter::operator()(Disk* disk) const {
    diskSync(*disk);
    if (disk->file >= 0) close(disk->file);
    delete disk;
}

NTSTATUS diskOpen(const std::string& path, DiskAccess access, DiskPtr& disk, Problem& problem) {
    disk.reset();
    return guarded([&]() -> NTSTATUS {
        DiskPtr opened(new Disk);
        opened->path = path;
        NTSTATUS status = openFile(*opened, access, problem);
        if (status >= 0 && (isMounted(path) || mountedByLoop(path))) {
            status = refuse(problem, STATUS_SHARING_VIOLATION,
                            path + ": it is mounted; unmount it, then try again");
        }
        if (status >= 0) status = measure(*opened, problem);
        if (status >= 0) status = lockFile(*opened, problem);
        if (status >= 0) disk = std::move(opened);
        return status;
    });
}

const std::string& diskPath(const Disk& disk) {
    return disk.path;
}
uint64_t diskSize(const Disk& disk) {
    return disk.size;
}
bool diskReadOnly(const Disk& disk) {
    return disk.readOnly;
}

bool diskWritable(const Disk& disk) {
    struct stat info = {};
    if (fstat(disk.file, &info) != 0 || keptFromWrites(info)) return false;
    if (S_ISBLK(info.st_mode) && deviceKeptFromWrites(disk.file)) return false;
    return access(disk.path.c_str(), W_OK) == 0;
}

} /* namespace offline */
