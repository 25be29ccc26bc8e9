/* SPDX-License-Identifier: GPL-2.0-or-later */
/* sample: a practice installation on a new disk image. */
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "companion/commands.h"
#include "companion/ending.h"
#include "companion/formatting.h"
#include "companion/machine.h"
#include "companion/practice/image_file.h"
#include "companion/practice/mkntfs.h"
#include "companion/practice/sample_files.h"
#include "companion/practice/whole_disk.h"
#include "platform/offline/base/progress.h"
#include "platform/offline/base/unicode.h"
#include "platform/offline/system/installation.h"

namespace companion {
namespace {

using offline::PartitionTable;

constexpr uint64_t mebibyte = 1 << 20;
constexpr uint64_t smallestSize = 32 * mebibyte;
constexpr uint64_t largestSize = uint64_t{1} << 40;
constexpr uint64_t roomForFile = 4096; /* bytes: its record, its part of indexes and data */

PartitionTable tableOf(const SampleOptions& options) {
    if (options.table.empty()) return PartitionTable::none;
    return options.table == "mbr" ? PartitionTable::mbr : PartitionTable::gpt;
}

/* Whole mebibytes, so that partitions end where they should. */
uint64_t imageSize(const SampleOptions& options) {
    if (options.size != 0 && (options.size < smallestSize || options.size > largestSize)) {
        throw Failure{"--size: " + sizeText(options.size) + " is not between " + sizeText(smallestSize) +
                      " and " + sizeText(largestSize) + "; give a size such as 256M, or none"};
    }
    const uint64_t needed = 64 * mebibyte + options.files * roomForFile;
    return (options.size != 0 ? options.size : needed) / mebibyte * mebibyte;
}

struct Extent {
    uint64_t offset; /* bytes */
    ByteVector bytes;
};

bool allZero(const ByteVector& bytes) {
    for (const uint8_t byte : bytes) {
        if (byte != 0) return false;
    }
    return true;
}

/* What a fresh volume holds that is not zero: little, however large it is. */
std::vector<Extent> extentsOf(int file, const std::string& image) {
    std::vector<Extent> extents;
    constexpr size_t step = 64 * 1024;
    off_t at = 0;
    while ((at = lseek(file, at, SEEK_DATA)) >= 0) {
        const auto start = static_cast<uint64_t>(at) / step * step;
        ByteVector bytes(step);
        const ssize_t got = pread(file, bytes.data(), step, static_cast<off_t>(start));
        if (got <= 0) throw Failure{image + ": can't be read back; check the disk that it is on"};
        bytes.resize(static_cast<size_t>(got));
        if (!allZero(bytes)) extents.push_back({start, std::move(bytes)});
        at = static_cast<off_t>(start + step);
    }
    if (errno != ENXIO) throw Failure{image + ": can't be read back; check the disk that it is on"};
    return extents;
}

/* Creates the volume alone, then moves it to where it lies on the disk. */
void createDisk(ImageFile& image, const SampleOptions& options, const Machine& machine) {
    const uint64_t size = imageSize(options);
    const bool whole = tableOf(options) != PartitionTable::none;
    image.setSize(whole ? size - partitionStart - afterPartition : size);
    makeNtfs(image.temporary, partitionStart / 512, image.wanted);
    if (!whole) return;
    const std::vector<Extent> volume = extentsOf(image.file, image.wanted);
    image.setSize(0);
    image.setSize(size);
    for (const Extent& extent : volume) {
        writeAll(image.file, partitionStart + extent.offset, extent.bytes, image.wanted);
    }
    writePartitionTable(image.file, size, tableOf(options), machine, image.wanted);
}

size_t fillDisk(const ImageFile& image, const SampleOptions& options, const Machine& machine) {
    offline::Problem problem;
    offline::Installation made;
    offline::DiskPtr disk;
    NTSTATUS status = offline::diskOpen(image.temporary, offline::DiskAccess::readWrite, disk, problem);
    if (status >= 0) status = offline::installationAddDisk(std::move(disk), made, problem);
    if (status < 0) {
        throw Failure{image.wanted + ": what was made can't be used (" + problem.text + "); try again"};
    }
    const size_t entries =
        fillVolume(*made.volumes.front().volume, machine, diskIdentity(tableOf(options), machine),
                   {options.files, options.descriptors}, image.wanted);
    offline::progressBegin({"Writing the image"});
    if (offline::installationClose(made, problem) < 0) {
        throw Failure{image.wanted + ": could not be written whole; check the room on the disk"};
    }
    return entries;
}

/* An image that a run of quillet works on must not be replaced below it. */
void refuseWhenInUse(const std::string& image) {
    if (access(image.c_str(), F_OK) != 0) return;
    offline::DiskPtr disk;
    offline::Problem problem;
    if (offline::diskOpen(image, offline::DiskAccess::readWrite, disk, problem) == STATUS_SHARING_VIOLATION) {
        throw Failure{problem.text};
    }
}

} /* namespace */

int sample(const SampleOptions& options) {
    const Machine machine = options.machine.empty() ? randomMachine() : machineFromText(options.machine);
    ImageFile image(options.image, options.force);
    refuseWhenInUse(options.image);
    createDisk(image, options, machine);
    const size_t entries = fillDisk(image, options, machine);
    image.keep();
    std::string sid(machine.sid.begin(), machine.sid.end());
    printf("%s: machine SID %s, %zu entries\n", offline::printable(options.image).c_str(), sid.c_str(),
           entries);
    return exitDone;
}

} /* namespace companion */
