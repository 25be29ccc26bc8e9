/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/system/hive_files.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "platform/offline/base/guarded.h"
#include "platform/offline/base/progress.h"
#include "platform/offline/base/unicode.h"
#include "platform/offline/files/drives.h"
#include "platform/offline/system/system_state.h"

namespace offline {
namespace {

constexpr uint64_t largestHive = uint64_t{2} << 30; /* bytes; the platform's own limit for a hive */

/* Saves a hive in place, into the file that it was read from, and keeps that in use. */
struct VolumeHiveStore final : HiveStore {
    Volume& volume;
    FileRef file;
    std::string forPerson;

    VolumeHiveStore(Volume& onVolume, FileRef inFile, std::string named)
        : volume(onVolume), file(inFile), forPerson(std::move(named)) {
        systemState().openHiveFiles.push_back({&volume, file});
    }
    VolumeHiveStore(const VolumeHiveStore&) = delete;
    VolumeHiveStore& operator=(const VolumeHiveStore&) = delete;
    ~VolumeHiveStore() override { std::erase(systemState().openHiveFiles, OpenHiveFile{&volume, file}); }

    /* An empty write is refused like any other, and the volume remembers that. */
    NTSTATUS beginChange() override {
        return volumeReadOnly(volume) ? volumeWriteFile(volume, file, 0, {}) : STATUS_SUCCESS;
    }

    NTSTATUS write(uint64_t offset, Bytes bytes) override {
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

    std::string name() const override { return forPerson; }
    std::string refusal() const override { return volumeWriteReason(volume); }
};

/* Why a file of the registry can't be had, and what to do. volume: null where it is none's. */
NTSTATUS refuseFile(const Volume* volume, NTSTATUS status, const std::string& name, Problem& problem) {
    switch (status) {
        case STATUS_OBJECT_NAME_NOT_FOUND:
        case STATUS_OBJECT_PATH_NOT_FOUND:
            return refuse(problem, status,
                          name + " is missing; without it this is no whole Windows installation");
        case STATUS_IO_DEVICE_ERROR:
            return refuse(problem, status,
                          name + " can't be read, the disk refuses it" +
                              (volume == nullptr ? "" : volumeReadReason(*volume)) +
                              "; check the medium, or work on a copy of it");
        case STATUS_NO_MEMORY:
            return refuse(problem, status, name + ": there is not enough memory to hold it");
        case STATUS_INSUFFICIENT_RESOURCES:
            return refuse(problem, status, name + " is larger than a hive can be; restore the file");
        case STATUS_FILE_CORRUPT_ERROR:
            return refuse(
                problem, status,
                name + " can't be read, its volume is damaged; repair the volume (chkdsk /f) first");
        default:
            return refuse(problem, status,
                          name + " can't be read from its volume; check the volume, or restore the file");
    }
}

NTSTATUS readFile(Volume& volume, FileRef file, const std::string& name, std::vector<uint8_t>& bytes,
                  Problem& problem) {
    const NTSTATUS status = volumeReadFile(volume, file, largestHive, bytes);
    return status >= 0 ? status : refuseFile(&volume, status, name, problem);
}

/* A log file that is not there is an empty one. */
NTSTATUS readLog(Volume& volume, const FindBeside& findBeside, const std::string& name,
                 std::u16string_view ending, std::vector<uint8_t>& bytes, Problem& problem) {
    FileRef file;
    const NTSTATUS status = findBeside(ending, file);
    if (status == STATUS_OBJECT_NAME_NOT_FOUND) return STATUS_SUCCESS;
    const std::string logName = name + toUtf8(ending);
    return status >= 0 ? readFile(volume, file, logName, bytes, problem)
                       : refuseFile(&volume, status, logName, problem);
}

/* Systems before Windows Vista have one log, ".LOG"; later ones leave an empty one there. */
NTSTATUS readLogs(Volume& volume, const FindBeside& findBeside, const std::string& name, HiveLogs& logs,
                  Problem& problem) {
    NTSTATUS status = readLog(volume, findBeside, name, u".LOG1", logs.first, problem);
    if (status >= 0) status = readLog(volume, findBeside, name, u".LOG2", logs.second, problem);
    if (status < 0 || !logs.first.empty() || !logs.second.empty()) return status;
    return readLog(volume, findBeside, name, u".LOG", logs.first, problem);
}

NTSTATUS readHive(Volume& volume, FileRef file, const std::string& name, HivePtr& hive,
                  std::unique_ptr<HiveStore>& store, Problem& problem, const FindBeside& findBeside) {
    if (std::find(systemState().openHiveFiles.begin(), systemState().openHiveFiles.end(),
                  OpenHiveFile{&volume, file}) != systemState().openHiveFiles.end()) {
        return refuse(problem, STATUS_SHARING_VIOLATION, name + " is in use");
    }
    std::vector<uint8_t> bytes;
    HiveLogs logs;
    NTSTATUS status = readFile(volume, file, name, bytes, problem);
    if (status >= 0 && findBeside && hiveNeedsLogs(bytes))
        status = readLogs(volume, findBeside, name, logs, problem);
    if (status < 0) return status;
    status = hiveOpen(std::move(bytes), logs, hive, problem);
    if (status < 0) {
        problem.text = name + " " + problem.text;
        return status;
    }
    store = std::make_unique<VolumeHiveStore>(volume, file, name);
    return STATUS_SUCCESS;
}

} /* namespace */

NTSTATUS readHiveFile(Volume& volume, FileRef file, const std::string& name, HivePtr& hive,
                      std::unique_ptr<HiveStore>& store, Problem& problem, const FindBeside& findBeside) {
    return guardedRefusing(problem,
                           [&] { return readHive(volume, file, name, hive, store, problem, findBeside); });
}

NTSTATUS installationReadHive(InstallationVolume& entry, std::u16string_view path, HivePtr& hive,
                              std::unique_ptr<HiveStore>& store, Problem& problem) {
    return guardedRefusing(problem, [&] {
        const std::string name = installationFileName(entry, path);
        FileRef file;
        const NTSTATUS status = volumeFind(*entry.volume, path, file);
        if (status < 0) return refuseFile(entry.volume.get(), status, name, problem);
        const auto findBeside = [&](std::u16string_view ending, FileRef& beside) {
            return volumeFind(*entry.volume, std::u16string(path).append(ending), beside);
        };
        const NTSTATUS read = readHive(*entry.volume, file, name, hive, store, problem, findBeside);
        if (read >= 0) progressAdd(hiveKeysFound(*hive));
        return read;
    });
}

NTSTATUS driveReadHive(std::u16string_view path, HivePtr& hive, std::unique_ptr<HiveStore>& store,
                       Problem& problem) {
    return guardedRefusing(problem, [&] {
        const std::string name = toUtf8(path);
        Volume* volume = nullptr;
        FileRef file;
        const NTSTATUS status = driveFind(path, volume, file);
        if (status < 0) return refuseFile(volume, status, name, problem);
        const auto findBeside = [&](std::u16string_view ending, FileRef& beside) {
            Volume* same = nullptr;
            return driveFind(std::u16string(path).append(ending), same, beside);
        };
        return readHive(*volume, file, name, hive, store, problem, findBeside);
    });
}

} /* namespace offline */
