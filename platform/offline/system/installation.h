/* SPDX-License-Identifier: GPL-2.0-or-later */
/* A Windows installation at rest: its disks, its volumes, and where its files are. No function throws. */
#ifndef QUILLET_OFFLINE_SYSTEM_INSTALLATION_H
#define QUILLET_OFFLINE_SYSTEM_INSTALLATION_H

#include <string>
#include <string_view>
#include <vector>

#include "platform/offline/base/problem.h"
#include "platform/offline/system/run_disks.h"
#include "platform/offline/volume/disk.h"
#include "platform/offline/volume/volume.h"

namespace offline {

struct InstallationVolume {
    Disk* disk = nullptr;
    Partition partition;
    VolumePtr volume;
    char letter = 0; /* 'A' to 'Z'; 0 while it has none */
};

struct Installation {
    std::vector<RunDisk> bottoms; /* of disks that changes are meant for; the others own their devices */
    std::vector<DiskPtr> disks;   /* before the volumes, which must be closed first */
    std::vector<InstallationVolume> volumes;
    size_t systemVolume = 0;  /* index of the volume that Windows is on */
    std::u16string directory; /* Windows' directory on it, such as "Windows" */
};

/* Refuses a disk that is named twice, in whatever words: what lies on a disk is known again by its path, and
 * whoever changed it twice at once would destroy it. */
NTSTATUS installationDisksOnce(const std::vector<DiskName>& names, Problem& problem);

/* Opens the disks, each named once, and every NTFS volume on them, each there once. For readWrite and planned
 * changes stay in overlays; nothing else is written but what puts a commit right that was cut off (a line in
 * notices). */
NTSTATUS installationOpenDisks(const std::vector<DiskName>& names, DiskAccess access,
                               Installation& installation, std::vector<std::string>& notices,
                               Problem& problem);

/* Adds a disk that is open, for what is not a run; opens every NTFS volume on it. */
NTSTATUS installationAddDisk(DiskPtr disk, Installation& installation, Problem& problem);

/* Finds the volume that Windows is on: the first with a directory of registry hives. */
NTSTATUS installationFindWindows(Installation& installation, Problem& problem);

/* The path of a file of the registry on the system volume, "Windows\System32\config\NAME". */
std::u16string installationHivePath(const Installation& installation, std::u16string_view name);

/* A file's name for a person: "DISK: PATH". */
std::string installationFileName(const InstallationVolume& entry, std::u16string_view path);

/* Closes the volumes, writing what is left to the disks, which stay open. All are tried, also without memory;
 * the problem is the first failure, and what was written must not be kept then. */
NTSTATUS installationClose(Installation& installation, Problem& problem);

/* Refuses when something of the disks could not be read since they were opened; as diskReadWhole, in one line
 * for all of them. */
NTSTATUS installationReadWhole(const Installation& installation, Problem& problem);

} /* namespace offline */

#endif
