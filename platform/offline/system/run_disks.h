/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The disks of a run. What a run writes stays in overlays, and reaches the disks at its end in one commit, or
 * not at all (device/transaction.h). No function throws. */
#ifndef QUILLET_OFFLINE_SYSTEM_RUN_DISKS_H
#define QUILLET_OFFLINE_SYSTEM_RUN_DISKS_H

#include <string>
#include <vector>

#include "platform/offline/base/problem.h"
#include "platform/offline/device/disk_access.h"
#include "platform/offline/device/disk_name.h"
#include "platform/offline/device/transaction.h"
#include "platform/offline/device/undo.h"
#include "platform/offline/volume/disk.h"

namespace offline {

struct RunDisk {
    DiskName name;         /* as the user gave it */
    BlockDevicePtr bottom; /* outlives the disk over it */
    JournalPlace place;
    Overlay* overlay = nullptr; /* belongs to the disk; null before there is one */
    Disk* disk = nullptr;
};

/* Refuses a disk whose last commit was cut off, or that of a backing file of it: until that is put right
 * nothing on it can be used. */
NTSTATUS refuseCutOff(const DiskName& disk, Problem& problem);

/* Opens the devices; for readWrite puts a commit that was cut off right, one line of notices for each
 * journal, and for the others refuses it. */
NTSTATUS runDisksOpen(const std::vector<DiskName>& names, DiskAccess access, std::vector<RunDisk>& disks,
                      std::vector<std::string>& notices, Problem& problem);

/* The disk over one of them. Changes to it stay in its overlay. */
NTSTATUS runDiskOver(RunDisk& bottom, DiskAccess access, DiskPtr& disk, Problem& problem);

/* Brings what was changed to the disks, from where nothing is cached above them any more. As
 * commitTransaction, where all are scratch disks as commitScratch; signals that ask to end wait from here to
 * the end of the process. */
NTSTATUS runDisksCommit(std::vector<RunDisk>& disks, const UndoChoice& undo, CommitReport& report,
                        Problem& problem);

/* Opens the disks and takes the latest run on them back, as undoLatest; signals that ask to end wait from
 * there to the end of the process, so that what was done is told. */
UndoOutcome undoRun(const std::vector<DiskName>& names, const std::string& undoPath, UndoReport& report,
                    Problem& problem);

} /* namespace offline */

#endif
