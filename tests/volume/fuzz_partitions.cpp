/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Any bytes as a disk: finding its partitions must neither crash nor leave it. */
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "platform/offline/volume/disk.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    int file = memfd_create("disk", MFD_CLOEXEC);
    if (file < 0 || write(file, data, size) != static_cast<ssize_t>(size)) std::abort();
    offline::DiskPtr disk;
    offline::Problem problem;
    std::vector<offline::Partition> partitions;
    if (offline::diskOpen({"/proc/self/fd/" + std::to_string(file), offline::DiskFormat::raw},
                          offline::DiskAccess::readOnly, disk, problem) >= 0 &&
        offline::diskPartitions(*disk, partitions, problem) >= 0) {
        for (const offline::Partition& partition : partitions) {
            if (partition.start > size || partition.size > size - partition.start) std::abort();
        }
    } else if (problem.text.empty()) {
        std::abort();
    }
    disk.reset();
    close(file);
    return 0;
}
