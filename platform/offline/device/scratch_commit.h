/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The commit of scratch disks (disk_name.h): whoever made them throws them away unless it succeeds, so it
 * needs no journal and cannot be taken back. */
#ifndef QUILLET_OFFLINE_DEVICE_SCRATCH_COMMIT_H
#define QUILLET_OFFLINE_DEVICE_SCRATCH_COMMIT_H

#include <span>

#include "platform/offline/base/problem.h"
#include "platform/offline/device/transaction.h"

namespace offline {

/* Bytes that a scratch image stores together. A run changes little at many places, so small clusters keep it
 * small; smaller ones gain less than their tables cost. */
constexpr uint64_t scratchCluster = uint64_t{16} << 10;

/* Brings what the overlays hold to their disks, in ascending order, whole clusters where something in them
 * differs, and has it flushed. After a failure a disk may be half changed. No function throws. */
NTSTATUS commitScratch(std::span<const TransactionDisk> disks, CommitReport& report, Problem& problem);

} /* namespace offline */

#endif
