/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/system/installation.h"

#include <algorithm>
#include <new>

#include "platform/offline/base/guarded.h"
#include "platform/offline/base/unicode.h"

namespace offline {
namespace {

const std::u16string_view windowsDirectories[] = {u"Windows", u"WINNT"};
const std::u16string_view configDirectory = u"\\System32\\config";

/* A volume is told from all others by its serial number and the offset of its $MFT. Two that have them in
 * common are one, or a copy of one, and a machine does not run with both. */
NTSTATUS refuseTwins(const Disk& disk, const Partition& partition, const Installation& installation,
                     Problem& problem) {
    for (const InstallationVolume& other : installation.volumes) {
        if (other.partition.serial != partition.serial || other.partition.mftStart != partition.mftStart)
            continue;
        const std::string at =
            partition.table == PartitionTable::none ? "" : " at byte " + std::to_string(partition.start);
        return refuse(problem, STATUS_INVALID_PARAMETER,
                      diskPath(disk) + ": its volume" + at + " is the same as one of " +
                          diskPath(*other.disk) +
                          ", or a clone of it; treat clones one by one, each in a run "
                          "of its own");
    }
    return STATUS_SUCCESS;
}

NTSTATUS openVolumes(Disk& disk, Installation& installation, Problem& problem) {
    std::vector<Partition> partitions;
    NTSTATUS status = diskPartitions(disk, partitions, problem);
    for (size_t i = 0; i < partitions.size() && status >= 0; i++) {
        InstallationVolume entry;
        entry.disk = &disk;
        entry.partition = partitions[i];
        status = refuseTwins(disk, partitions[i], installation, problem);
        if (status >= 0) status = volumeOpen(disk, partitions[i], entry.volume, problem);
        if (status >= 0) installation.volumes.push_back(std::move(entry));
    }
    return status;
}

std::string diskNames(const Installation& installation) {
    std::string names;
    for (const DiskPtr& disk : installation.disks) {
        if (!names.empty()) names += ", ";
        names += diskPath(*disk);
    }
    return names;
}

} /* namespace */

NTSTATUS installationDisksOnce(const std::vector<DiskName>& names, Problem& problem) {
    for (auto disk = names.begin(); disk != names.end(); ++disk) {
        const auto same = [&](const DiskName& other) { return other.name == disk->name; };
        if (std::find_if(names.begin(), disk, same) == disk) continue;
        return refuse(problem, STATUS_INVALID_PARAMETER,
                      disk->name + ": is named twice; name each disk once");
    }
    return disksApart(names, problem);
}

NTSTATUS installationOpenDisks(const std::vector<DiskName>& names, DiskAccess access,
                               Installation& installation, std::vector<std::string>& notices,
                               Problem& problem) {
    return guardedRefusing(problem, [&]() -> NTSTATUS {
        NTSTATUS status = installationDisksOnce(names, problem);
        if (status >= 0) status = runDisksOpen(names, access, installation.bottoms, notices, problem);
        for (size_t i = 0; i < names.size() && status >= 0; i++) {
            DiskPtr disk;
            status = runDiskOver(installation.bottoms[i], access, disk, problem);
            if (status >= 0) status = installationAddDisk(std::move(disk), installation, problem);
        }
        return status;
    });
}

NTSTATUS installationAddDisk(DiskPtr disk, Installation& installation, Problem& problem) {
    return guardedRefusing(problem, [&] {
        installation.disks.push_back(std::move(disk));
        return openVolumes(*installation.disks.back(), installation, problem);
    });
}

NTSTATUS installationFindWindows(Installation& installation, Problem& problem) {
    for (size_t i = 0; i < installation.volumes.size(); i++) {
        for (const std::u16string_view directory : windowsDirectories) {
            const std::u16string config = std::u16string(directory).append(configDirectory);
            FileRef file;
            const InstallationVolume& entry = installation.volumes[i];
            const NTSTATUS status = volumeFind(*entry.volume, config, file);
            if (status == STATUS_OBJECT_NAME_NOT_FOUND || status == STATUS_OBJECT_PATH_NOT_FOUND) continue;
            if (status < 0) { /* another volume's Windows may not be the one that was meant */
                const char* const advice = status == STATUS_FILE_CORRUPT_ERROR
                                               ? "repair the volume (chkdsk /f) first"
                                               : "check the medium, or work on a copy of it";
                return refuse(problem, status,
                              installationFileName(entry, config) + " can't be looked for; " + advice);
            }
            installation.systemVolume = i;
            installation.directory = directory;
            return STATUS_SUCCESS;
        }
    }
    return refuse(
        problem, STATUS_OBJECT_NAME_NOT_FOUND,
        diskNames(installation) +
            ": no Windows installation there (no volume has Windows\\System32\\config); name the disk that "
            "Windows is installed on");
}

std::u16string installationHivePath(const Installation& installation, std::u16string_view name) {
    return std::u16string(installation.directory).append(configDirectory).append(u"\\").append(name);
}

std::string installationFileName(const InstallationVolume& entry, std::u16string_view path) {
    return diskPath(*entry.disk) + ": " + toUtf8(path);
}

namespace {

NTSTATUS refuseUnwritten(const Disk& disk, NTSTATUS status, Problem& problem) {
    return guardedRefusing(problem, [&] {
        return refuse(problem, status,
                      diskPath(disk) + ": not everything could be written" + diskWriteReason(disk) +
                          "; nothing was changed");
    });
}

} /* namespace */

NTSTATUS installationClose(Installation& installation, Problem& problem) {
    NTSTATUS first = STATUS_SUCCESS;
    for (InstallationVolume& entry : installation.volumes) {
        const NTSTATUS status = volumeClose(std::move(entry.volume));
        if (status < 0 && first >= 0) first = refuseUnwritten(*entry.disk, status, problem);
    }
    installation.volumes.clear();
    return first;
}

NTSTATUS installationReadWhole(const Installation& installation, Problem& problem) {
    return guarded([&] {
        NTSTATUS worst = STATUS_SUCCESS;
        std::string text;
        for (const DiskPtr& disk : installation.disks) {
            const NTSTATUS status = diskReadWhole(*disk, problem);
            if (status >= 0) continue;
            if (!text.empty()) text += "; ";
            text += problem.text;
            if (worst != STATUS_IO_DEVICE_ERROR) worst = status;
        }
        return worst < 0 ? refuse(problem, worst, text) : worst;
    });
}

} /* namespace offline */
