#include "platform/offline/system/installation.h"

#include <algorithm>
#include <new>

#include "platform/offline/base/text.h"

namespace offline {
namespace {

constexpr uint64_t largestHive = uint64_t{2} << 30; /* bytes; the platform's own limit for a hive */

const std::u16string_view windowsDirectories[] = {u"Windows", u"WINNT"};
const std::u16string_view configDirectory = u"\\System32\\config";

/* The files whose hives are open: a second hive on the same file would overwrite the first one's changes. */
struct OpenHiveFile {
    const Volume* volume;
    FileRef file;
    bool operator==(const OpenHiveFile&) const = default;
};
std::vector<OpenHiveFile> openHiveFiles;

/* Saves a hive in place, into the file that it was read from, and keeps that in use. */
struct VolumeHiveStore final : HiveStore {
    Volume& volume;
    FileRef file;

    VolumeHiveStore(Volume& onVolume, FileRef inFile) : volume(onVolume), file(inFile) {
        openHiveFiles.push_back({&volume, file});
    }
    VolumeHiveStore(const VolumeHiveStore&) = delete;
    VolumeHiveStore& operator=(const VolumeHiveStore&) = delete;
    ~VolumeHiveStore() override { std::erase(openHiveFiles, OpenHiveFile{&volume, file}); }

    /* An empty write is refused like any other, and the volume remembers that. */
    NTSTATUS beginChange() override {
        return volumeReadOnly(volume) ? volumeWriteFile(volume, file, 0, {}) : STATUS_SUCCESS;
    }

    NTSTATUS write(uint64_t offset, std::span<const uint8_t> bytes) override {
        return volumeWriteFile(volume, file, offset, bytes);
    }

    NTSTATUS grow(uint64_t size) override {
        FileInfo info;
        NTSTATUS status = volumeFileInfo(volume, file, info);
        if (status < 0) return status;
        static const uint8_t zeros[4096] = {};
        for (uint64_t at = info.size; at < size && status >= 0;) {
            const uint64_t step = std::min<uint64_t>(sizeof zeros, size - at);
            status = volumeWriteFile(volume, file, at, std::span(zeros, step));
            at += step;
        }
        return status;
    }

    NTSTATUS flush() override { return volumeFlush(volume); }
};

NTSTATUS openVolumes(Disk& disk, Installation& installation, Problem& problem) {
    std::vector<Partition> partitions;
    NTSTATUS status = diskPartitions(disk, partitions, problem);
    for (size_t i = 0; i < partitions.size() && status >= 0; i++) {
        InstallationVolume place;
        place.disk = &disk;
        place.partition = partitions[i];
        status = volumeOpen(disk, partitions[i], place.volume, problem);
        if (status >= 0) installation.volumes.push_back(std::move(place));
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

NTSTATUS installationOpenDisks(const std::vector<std::string>& paths, DiskAccess access,
                               Installation& installation, Problem& problem) {
    try {
        for (const std::string& path : paths) {
            DiskPtr disk;
            NTSTATUS status = diskOpen(path, access, disk, problem);
            if (status < 0) return status;
            installation.disks.push_back(std::move(disk));
            status = openVolumes(*installation.disks.back(), installation, problem);
            if (status < 0) return status;
        }
        return STATUS_SUCCESS;
    } catch (const std::bad_alloc&) {
        return refuse(problem, STATUS_NO_MEMORY, "out of memory");
    }
}

NTSTATUS installationFindWindows(Installation& installation, Problem& problem) {
    for (size_t i = 0; i < installation.volumes.size(); i++) {
        for (const std::u16string_view directory : windowsDirectories) {
            const std::u16string config = std::u16string(directory).append(configDirectory);
            FileRef file;
            if (volumeFind(*installation.volumes[i].volume, config, file) < 0) continue;
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

std::string installationFileName(const InstallationVolume& place, std::u16string_view path) {
    return diskPath(*place.disk) + ": " + toUtf8(path);
}

NTSTATUS readHiveFile(Volume& volume, FileRef file, const std::string& name, HivePtr& hive,
                      std::unique_ptr<HiveStore>& store, Problem& problem) {
    if (std::find(openHiveFiles.begin(), openHiveFiles.end(), OpenHiveFile{&volume, file}) !=
        openHiveFiles.end()) {
        return refuse(problem, STATUS_SHARING_VIOLATION, name + " is in use");
    }
    std::vector<uint8_t> bytes;
    NTSTATUS status = volumeReadFile(volume, file, largestHive, bytes);
    if (status < 0) {
        return refuse(problem, status,
                      name + " can't be read from its volume; check the disk, or restore the file");
    }
    status = hiveOpen(std::move(bytes), hive, problem);
    if (status < 0) {
        problem.text = name + " " + problem.text;
        return status;
    }
    store = std::make_unique<VolumeHiveStore>(volume, file);
    return STATUS_SUCCESS;
}

NTSTATUS installationReadHive(InstallationVolume& place, std::u16string_view path, HivePtr& hive,
                              std::unique_ptr<HiveStore>& store, Problem& problem) {
    const std::string name = installationFileName(place, path);
    FileRef file;
    const NTSTATUS status = volumeFind(*place.volume, path, file);
    if (status < 0) {
        return refuse(
            problem, status,
            name + " is missing or can't be reached; without it this is no whole Windows installation");
    }
    return readHiveFile(*place.volume, file, name, hive, store, problem);
}

NTSTATUS installationClose(Installation& installation, Problem& problem) {
    NTSTATUS first = STATUS_SUCCESS;
    for (InstallationVolume& place : installation.volumes) {
        const std::string name = diskPath(*place.disk);
        const NTSTATUS status = volumeClose(std::move(place.volume));
        if (status < 0 && first >= 0) {
            first = refuse(
                problem, status,
                name +
                    ": not everything could be written, so the volume stays marked dirty; check the disk "
                    "and run chkdsk on it, or go back to a copy");
        }
    }
    installation.volumes.clear();
    installation.disks.clear();
    return first;
}

} /* namespace offline */
