/* A Windows installation at rest: its disks, its volumes, and where its files are. No function throws. */
#ifndef QUILLET_OFFLINE_SYSTEM_INSTALLATION_H
#define QUILLET_OFFLINE_SYSTEM_INSTALLATION_H

#include <string>
#include <string_view>
#include <vector>

#include "platform/offline/base/problem.h"
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
    std::vector<DiskPtr> disks; /* before the volumes, which must be closed first */
    std::vector<InstallationVolume> volumes;
    size_t systemVolume = 0;  /* index of the volume that Windows is on */
    std::u16string directory; /* Windows' directory on it, such as "Windows" */
};

/* Refuses a disk that is named twice, in whatever words: what lies on a disk is known again by its path, and
 * whoever changed it twice at once would destroy it. */
NTSTATUS installationDisksOnce(const std::vector<std::string>& paths, Problem& problem);

/* Opens the disks, each named once, and every NTFS volume on them, each there once. Nothing is written. */
NTSTATUS installationOpenDisks(const std::vector<std::string>& paths, DiskAccess access,
                               Installation& installation, Problem& problem);

/* Finds the volume that Windows is on: the first with a directory of registry hives. */
NTSTATUS installationFindWindows(Installation& installation, Problem& problem);

/* The path of a file of the registry on the system volume, "Windows\System32\config\NAME". */
std::u16string installationHivePath(const Installation& installation, std::u16string_view name);

/* A file's name for a person: "DISK: PATH". */
std::string installationFileName(const InstallationVolume& entry, std::u16string_view path);

/* Closes the volumes, writing what is left and taking dirty marks away; the disks stay open. All are tried,
 * also without memory; the problem is the first failure. */
NTSTATUS installationClose(Installation& installation, Problem& problem);

/* Refuses when something of the disks could not be read since they were opened; as diskReadWhole, in one line
 * for all of them. */
NTSTATUS installationReadWhole(const Installation& installation, Problem& problem);

} /* namespace offline */

#endif
