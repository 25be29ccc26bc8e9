/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Any bytes as a disk: finding its partitions must neither crash nor leave it. */
#include <cstdlib>

#include "platform/offline/volume/disk.h"
#include "tests/device/machine.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace offline;
    test::Machine machine;
    auto device = std::make_unique<test::MachineDisk>(machine, "disk", ByteVector(data, data + size));
    DiskPtr disk;
    if (diskOver(std::move(device), DiskAccess::readOnly, disk) < 0) std::abort();
    Problem problem;
    std::vector<Partition> partitions;
    if (diskPartitions(*disk, partitions, problem) < 0 && problem.text.empty()) std::abort();
    for (const Partition& partition : partitions) {
        if (partition.start > size || partition.size > size - partition.start) std::abort();
    }
    return 0;
}
