/* A Windows installation at rest: its disks, its volumes, and where its files are. No function throws. */
#ifndef QUILLET_OFFLINE_SYSTEM_INSTALLATION_H
#define QUILLET_OFFLINE_SYSTEM_INSTALLATION_H

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/offline/base/problem.h"
#include "platform/offline/hive/hive.h"
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

/* Opens the disks and every NTFS volume on them. Nothing is written. */
NTSTATUS installationOpenDisks(const std::vector<std::string>& paths, DiskAccess access,
                               Installation& installation, Problem& problem);

/* Finds the volume that Windows is on: the first with a directory of registry hives. */
NTSTATUS installationFindWindows(Installation& installation, Problem& problem);

/* The path of a file of the registry on the system volume, "Windows\System32\config\NAME". */
std::u16string installationHivePath(const Installation& installation, std::u16string_view name);

/* A file's name for a person: "DISK: PATH". */
std::string installationFileName(const InstallationVolume& place, std::u16string_view path);

/* Reads and validates the hive file at a path of a volume, and makes the store that saves it. The problem
 * names the file. A missing file is STATUS_OBJECT_NAME_NOT_FOUND or STATUS_OBJECT_PATH_NOT_FOUND. */
NTSTATUS installationReadHive(InstallationVolume& place, std::u16string_view path, HivePtr& hive,
                              std::unique_ptr<HiveStore>& store, Problem& problem);

/* The same for a hive file by its reference; name is its name for a person. A file whose hive is open already
 * gives STATUS_SHARING_VIOLATION, until the store of that hive is gone. */
NTSTATUS readHiveFile(Volume& volume, FileRef file, const std::string& name, HivePtr& hive,
                      std::unique_ptr<HiveStore>& store, Problem& problem);

/* Closes the volumes, writing what is left and taking dirty marks away, then the disks. All are tried; the
 * problem tells the first failure. */
NTSTATUS installationClose(Installation& installation, Problem& problem);

} /* namespace offline */

#endif
