/* SPDX-License-Identifier: GPL-2.0-or-later */
/* A disk with a partition table and one partition. */
#ifndef QUILLET_COMPANION_PRACTICE_WHOLE_DISK_H
#define QUILLET_COMPANION_PRACTICE_WHOLE_DISK_H

#include <cstdint>
#include <string>

#include "companion/machine.h"
#include "companion/practice/sample_hive.h"
#include "platform/offline/base/bytes.h"
#include "platform/offline/volume/disk.h"

namespace companion {

constexpr uint64_t partitionStart = 1 << 20; /* bytes */
constexpr uint64_t afterPartition = 1 << 20;

/* How a machine's SYSTEM hive knows its disk; a disk is distinguished by its machine. */
DiskIdentity diskIdentity(offline::PartitionTable table, const Machine& machine);

/* Writes the table into a disk of this size (bytes, whole MiB), the partition from partitionStart to
 * afterPartition before its end. image is the name for messages. Throws Failure. */
void writePartitionTable(int file, uint64_t size, offline::PartitionTable table, const Machine& machine,
                         const std::string& image);

/* Writes bytes at an offset, all of them. Throws Failure. */
void writeAll(int file, uint64_t offset, offline::Bytes bytes, const std::string& image);

} /* namespace companion */

#endif
