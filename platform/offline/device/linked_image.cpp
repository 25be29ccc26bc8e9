/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/device/linked_image.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <memory>

#include "platform/offline/base/guarded.h"
#include "platform/offline/base/streams.h"
#include "platform/offline/device/child_program.h"
#include "platform/offline/device/device_error.h"
#include "platform/offline/device/disk_file.h"
#include "platform/offline/device/image_chain.h"
#include "platform/offline/device/journal_files.h"
#include "platform/offline/device/journal_place.h"
#include "platform/offline/device/nbd_device.h"
#include "platform/offline/device/qemu_nbd.h"
#include "platform/offline/device/scratch_commit.h"

namespace offline {
namespace {

const char partEnding[] = ".quillet-part";

NTSTATUS refuseFile(const std::string& name, const std::string& what, int error, Problem& problem) {
    return refuse(problem, deviceStatus(error), name + ": " + what + " (" + deviceErrorText(error) + ")");
}

/* ---- The golden image ---- */

NTSTATUS needProgram(const char* name, Problem& problem) {
    if (programThere(name)) return STATUS_SUCCESS;
    return refuse(problem, STATUS_NOT_SUPPORTED,
                  std::string("linked images need the program ") + name +
                      ", which is not on PATH; install it (package qemu-utils)");
}

NTSTATUS needTools(Problem& problem) {
    if (!nbdBuiltIn()) {
        return refuse(problem, STATUS_NOT_SUPPORTED,
                      "linked images need libnbd, without which this quillet was built; use the Debian "
                      "package's or one that is built with it");
    }
    const NTSTATUS status = needProgram("qemu-img", problem);
    return status < 0 ? status : needProgram("qemu-nbd", problem);
}

NTSTATUS hold(const std::string& path, const std::string& disk, GoldenImage& golden, Problem& problem) {
    const int file = aboveStandard(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (file < 0) return refuseFile(path, "it can't be opened", errno, problem);
    golden.files.push_back({path, file, {}});
    int error = lockAmongReaders(file, ReaderLock::refusingWriters);
    if (error == 0 && fstat(file, &golden.files.back().then) != 0) error = errno;
    if (error == EAGAIN || error == EACCES) return refuseInUse(disk, problem);
    if (error == 0) return STATUS_SUCCESS;
    return refuseFile(path, "it can't be locked here; copy it to a local file system first", error, problem);
}

/* A program that keeps no locks may have written to it, or moved another one to its place. */
bool unchanged(const GoldenImage::File& one) {
    struct stat named = {}, now = {};
    const struct stat& then = one.then;
    if (stat(one.path.c_str(), &named) != 0 || fstat(one.file, &now) != 0) return false;
    if (named.st_dev != then.st_dev || named.st_ino != then.st_ino) return false;
    return S_ISBLK(then.st_mode) ||
           (now.st_size == then.st_size && now.st_mtim.tv_sec == then.st_mtim.tv_sec &&
            now.st_mtim.tv_nsec == then.st_mtim.tv_nsec);
}

/* Without "..", which leads elsewhere, or nowhere, when the directories on its way change. */
std::string lasting(const std::string& path) {
    const std::filesystem::path whole(path);
    if (path.find("/../") == std::string::npos) return path;
    std::error_code gone;
    const std::filesystem::path directory = std::filesystem::canonical(whole.parent_path(), gone);
    return gone ? path : (directory / whole.filename()).string();
}

/* ---- The part ---- */

/* Where flock is a lock on all bytes of the file, it would stand in the way of whoever uses the disk. */
bool ofNetwork(int file) {
    constexpr unsigned long nfs = 0x6969, smb = 0x517B, cifs = 0xFF534D42, smb2 = 0xFE534D42;
    struct statfs system = {};
    if (fstatfs(file, &system) != 0) return true;
    const auto type = static_cast<unsigned long>(system.f_type) & 0xFFFFFFFF;
    return type == nfs || type == smb || type == cifs || type == smb2;
}

/* Whether it is still the file of that name, and could have been left by an earlier run of this user. */
bool couldBeLeft(int file, const std::string& path) {
    struct stat info = {}, named = {};
    return fstat(file, &info) == 0 && lstat(path.c_str(), &named) == 0 && info.st_dev == named.st_dev &&
           info.st_ino == named.st_ino && S_ISREG(info.st_mode) && info.st_uid == geteuid() &&
           info.st_nlink == 1;
}

bool usedAsDisk(int file) {
    struct flock whole = {};
    whole.l_type = F_WRLCK;
    whole.l_whence = SEEK_SET;
    return fcntl(file, F_OFD_GETLK, &whole) != 0 || whole.l_type != F_UNLCK;
}

} /* namespace */

/* ---- The golden image ---- */

GoldenImage::~GoldenImage() {
    for (const File& one : files) close(one.file);
}

NTSTATUS goldenImageOpen(const DiskName& disk, GoldenImage& golden, Problem& problem) {
    return guardedRefusing(problem, [&]() -> NTSTATUS {
        if (kindOfName(disk.name) != NameKind::file) {
            return refuse(
                problem, STATUS_NOT_SUPPORTED,
                disk.name + ": only a file or a device can lie below linked images; copy it to one");
        }
        ImageChain chain;
        NTSTATUS status = imageChainOf(disk, chain, problem);
        if (status >= 0) status = needTools(problem);
        for (const ImageFile& file : chain.files) {
            if (status >= 0) status = hold(file.path, disk.name, golden, problem);
        }
        for (const std::string& extent : chain.extents) {
            if (status >= 0) status = hold(extent, disk.name, golden, problem);
        }
        if (status < 0) return status;
        golden.path = lasting(absolutePath(disk.name));
        golden.format = chain.format();
        if (!golden.path.empty() && !qemuImage(chain, true).empty()) return STATUS_SUCCESS;
        return refuse(problem, STATUS_OBJECT_NAME_INVALID,
                      disk.name + ": its path, or that of a backing file, is no UTF-8; rename it");
    });
}

/* ---- The linked image ---- */

bool isLinkedImagePart(const std::string& name) {
    return name.ends_with(partEnding);
}

NTSTATUS linkedImagePlace(const std::string& name, std::string& place, Problem& problem) {
    return guardedRefusing(problem, [&]() -> NTSTATUS {
        const std::string path = absolutePath(name);
        const size_t slash = path.rfind('/');
        struct stat info = {};
        if (name.empty() || slash == std::string::npos || slash + 1 == path.size() ||
            kindOfName(name) != NameKind::file) {
            return refuse(problem, STATUS_OBJECT_NAME_INVALID,
                          "\"" + name + "\" names no file; give the new image's file name");
        }
        if (!isUtf8(path)) {
            return refuse(problem, STATUS_OBJECT_NAME_INVALID,
                          name + ": its path is no UTF-8; choose another");
        }
        if (formatOfEnding(name) != DiskFormat::qcow2) {
            return refuse(
                problem, STATUS_OBJECT_NAME_INVALID,
                name + ": a clone is a qcow2 image, whose name has to say so; call it " + name + ".qcow2");
        }
        if (lstat(path.c_str(), &info) == 0) {
            return refuse(problem, STATUS_OBJECT_NAME_COLLISION,
                          name + ": there is such a file already; remove it or choose another name");
        }
        const std::string directory = path.substr(0, slash + 1);
        const std::unique_ptr<char, void (*)(void*)> real(realpath(directory.c_str(), nullptr), free);
        if (real == nullptr || access(real.get(), W_OK | X_OK) != 0) {
            return refuseFile(name, "its directory can't be written to", errno, problem);
        }
        place = std::string(real.get()) + "/" + path.substr(slash + 1);
        return STATUS_SUCCESS;
    });
}

LinkedImage::~LinkedImage() {
    if (ours) {
        unlink(part.c_str());
        unlink(journal.c_str());
    }
    if (file >= 0) close(file);
}

/* flock tells two that make an image of one name apart; the other locks tell of those who use it as a disk.
 * A journal beside it is of a run on what is thrown away here. */
NTSTATUS LinkedImage::takePart(Problem& problem) {
    constexpr mode_t everybody = S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP | S_IROTH | S_IWOTH;
    file =
        aboveStandard(open(part.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, everybody));
    if (file < 0) return refuseFile(part, "it can't be made", errno, problem);
    if ((!ofNetwork(file) && flock(file, LOCK_EX | LOCK_NB) != 0) || usedAsDisk(file)) {
        return refuse(problem, STATUS_SHARING_VIOLATION,
                      part + ": another program is using it; let that end, or end it");
    }
    if (!couldBeLeft(file, part)) {
        return refuse(problem, STATUS_OBJECT_NAME_COLLISION,
                      part + ": it is in the way and not ours; remove it or choose another name");
    }
    ours = true;
    JournalPlace place;
    const NTSTATUS status = journalPlaceOf(part, place, problem);
    if (status < 0) return status;
    journal = journalPath(place);
    if (unlink(journal.c_str()) != 0 && errno != ENOENT) {
        return refuseFile(journal, "it can't be removed", errno, problem);
    }
    return STATUS_SUCCESS;
}

NTSTATUS LinkedImage::fill(const GoldenImage& golden, Problem& problem) {
    std::string words;
    const int status =
        runProgram("qemu-img",
                   {"create", "-q", "-f", "qcow2", "-o", "cluster_size=" + std::to_string(scratchCluster),
                    "-b", golden.path, "-F", qemuFormatName(golden.format), "--", part},
                   words);
    if (status == 0) return STATUS_SUCCESS;
    if (words.empty()) words = "it ended with status " + std::to_string(status);
    return refuse(problem, STATUS_UNSUCCESSFUL, called + ": qemu-img can't make it: " + words);
}

NTSTATUS LinkedImage::create(const GoldenImage& golden, const std::string& name, Problem& problem) {
    return guardedRefusing(problem, [&]() -> NTSTATUS {
        called = name;
        wanted = absolutePath(name);
        part = wanted + partEnding;
        const NTSTATUS status = takePart(problem);
        return status < 0 ? status : fill(golden, problem);
    });
}

NTSTATUS LinkedImage::publish(const GoldenImage& golden, uint64_t& bytes, Problem& problem) {
    return guardedRefusing(problem, [&]() -> NTSTATUS {
        for (const GoldenImage::File& one : golden.files) {
            if (unchanged(one)) continue;
            return refuse(problem, STATUS_SHARING_VIOLATION,
                          one.path + ": it was changed or replaced meanwhile; leave it alone and try again");
        }
        struct stat info = {};
        JournalFiles& files = systemJournalFiles();
        int error = fsync(file) != 0 || fstat(file, &info) != 0 ? errno : 0;
        if (error == 0) error = files.rename(part, wanted);
        if (error != 0) return refuseFile(called, "it can't be kept under its name", error, problem);
        ours = false;
        bytes = static_cast<uint64_t>(info.st_size);
        error = files.flushDirectory(directoryOf(wanted));
        if (error == 0) return STATUS_SUCCESS;
        unlink(wanted.c_str());
        return refuseFile(directoryOf(wanted), "it can't be flushed", error, problem);
    });
}

} /* namespace offline */
