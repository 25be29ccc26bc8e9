/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/device/device_open.h"

#include <sys/stat.h>

#include <algorithm>

#include "platform/offline/base/guarded.h"
#include "platform/offline/device/disk_file.h"
#include "platform/offline/device/disk_place.h"
#include "platform/offline/device/file_device.h"
#include "platform/offline/device/image_chain.h"
#include "platform/offline/device/nbd_device.h"

namespace offline {
namespace {

NTSTATUS openServedSo(const DiskName& disk, const QemuServing& serving, DiskAccess access, bool writable,
                      BlockDevicePtr& device, Problem& problem) {
    auto server = std::make_unique<QemuNbd>();
    const NTSTATUS status =
        nbdBuiltIn() ? qemuNbdStart(disk.name, serving, *server, problem) : STATUS_SUCCESS;
    return status < 0 ? status
                      : nbdDeviceServed(disk.name, std::move(server), access, writable, device, problem);
}

/* With io_uring the server takes half the time. What is written in place is left to the way that it has gone
 * for longest. */
NTSTATUS openServed(const DiskName& disk, QemuServing serving, DiskAccess access, bool writable,
                    BlockDevicePtr& device, Problem& problem) {
    serving.scratch = disk.scratch;
    serving.ioUring = serving.scratch || serving.readOnly;
    NTSTATUS status = openServedSo(disk, serving, access, writable, device, problem);
    if (status < 0 && serving.ioUring && problem.text.find("io_uring") != std::string::npos) {
        serving.ioUring = false;
        status = openServedSo(disk, serving, access, writable, device, problem);
    }
    return status;
}

/* The file is closed before the server opens it: each has locks of its own, and they exclude each other. What
 * others have of it was found out by then, and qemu-nbd finds it out again. */
NTSTATUS openImage(const DiskName& disk, DiskAccess access, BlockDevicePtr& device, Problem& problem) {
    BlockDevicePtr file;
    ImageChain chain;
    NTSTATUS status = fileDeviceOpen(disk.name, access, file, problem);
    if (status >= 0) status = imageChainOver(*file, disk, chain, problem);
    if (status < 0) return status;
    if (chain.format() == DiskFormat::raw) {
        device = std::move(file);
        return STATUS_SUCCESS;
    }
    const bool forChanges = access == DiskAccess::readWrite || access == DiskAccess::trial;
    if (chain.onlyReadable && forChanges) {
        return refuse(problem, STATUS_MEDIA_WRITE_PROTECTED,
                      disk.name +
                          ": it is a compressed VMDK (streamOptimized), which can't be changed in "
                          "place; convert it (qemu-img convert -O qcow2) and work on that");
    }
    const bool writable = file->writable() && !chain.onlyReadable;
    file.reset();
    const bool readOnly = access != DiskAccess::readWrite;
    return openServed(disk, {qemuImage(chain, readOnly), false, readOnly}, access, writable, device, problem);
}

/* qemu-nbd has no way to be asked whether it could write but to be told that it may. */
NTSTATUS openAddress(const DiskName& disk, DiskAccess access, BlockDevicePtr& device, Problem& problem) {
    if (disk.format != DiskFormat::byName && disk.format != DiskFormat::raw) {
        return refuse(problem, STATUS_NOT_SUPPORTED,
                      disk.name +
                          ": at an address only a raw disk can be used; serve the image's contents, as "
                          "by qemu-nbd --format=" +
                          formatName(disk.format));
    }
    if (kindOfName(disk.name) == NameKind::nbd) return nbdDeviceConnect(disk.name, access, device, problem);
    const bool readOnly = access != DiskAccess::readWrite && access != DiskAccess::trial;
    return openServed(disk, {disk.name, true, readOnly}, access, true, device, problem);
}

/* Where the bytes of a disk lie: what it may write to, and what it only builds on. */
struct DiskFiles {
    const std::string* name = nullptr;
    std::vector<DiskPlace> own = {}, below = {};
};

void addPlace(const std::string& path, std::vector<DiskPlace>& places) {
    struct stat info = {};
    if (stat(path.c_str(), &info) == 0) places.push_back(diskPlaceOf(info));
}

DiskFiles filesOf(const DiskName& disk) {
    DiskFiles files{&disk.name};
    Problem later; /* told when it is opened */
    ImageChain chain;
    if (kindOfName(disk.name) != NameKind::file) return files;
    addPlace(disk.name, files.own);
    static_cast<void>(imageChainOf(disk, chain, later));
    for (const std::string& extent : chain.extents) addPlace(extent, files.own);
    for (size_t i = 1; i < chain.files.size(); ++i) addPlace(chain.files[i].path, files.below);
    return files;
}

bool overlap(const std::vector<DiskPlace>& some, const std::vector<DiskPlace>& others) {
    return std::any_of(some.begin(), some.end(), [&](const DiskPlace& one) {
        return std::any_of(others.begin(), others.end(),
                           [&](const DiskPlace& other) { return placesOverlap(one, other); });
    });
}

NTSTATUS refuseTogether(const DiskFiles& one, const DiskFiles& other, Problem& problem) {
    if (overlap(one.own, other.own)) {
        return refuse(
            problem, STATUS_INVALID_PARAMETER,
            *one.name + ": it is the same disk as " + *other.name + ", or a part of it; name each disk once");
    }
    const bool isBelow = overlap(one.own, other.below);
    if (!isBelow && !overlap(one.below, other.own)) return STATUS_SUCCESS;
    return refuse(problem, STATUS_INVALID_PARAMETER,
                  *one.name + ": it " + (isBelow ? "is a backing file of " : "has as a backing file ") +
                      *other.name + "; treat them one by one, each in a run of its own");
}

} /* namespace */

NTSTATUS deviceOpen(const DiskName& disk, DiskAccess access, BlockDevicePtr& device, Problem& problem) {
    device.reset();
    return guardedRefusing(problem, [&] {
        return kindOfName(disk.name) == NameKind::file ? openImage(disk, access, device, problem)
                                                       : openAddress(disk, access, device, problem);
    });
}

NTSTATUS disksApart(const std::vector<DiskName>& disks, Problem& problem) {
    return guarded([&]() -> NTSTATUS {
        if (disks.size() < 2) return STATUS_SUCCESS;
        std::vector<DiskFiles> seen;
        for (const DiskName& disk : disks) {
            DiskFiles files = filesOf(disk);
            for (const DiskFiles& other : seen) {
                const NTSTATUS status = refuseTogether(files, other, problem);
                if (status < 0) return status;
            }
            seen.push_back(std::move(files));
        }
        return STATUS_SUCCESS;
    });
}

} /* namespace offline */
