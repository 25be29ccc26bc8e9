/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Takes the latest run back. The invariants are transaction.h's. No function throws. */
#ifndef QUILLET_OFFLINE_DEVICE_UNDO_H
#define QUILLET_OFFLINE_DEVICE_UNDO_H

#include "platform/offline/device/recovery.h"

namespace offline {

enum class UndoOutcome {
    done,    /* a run was taken back, or a commit that was cut off */
    nothing, /* there is no undo file */
    refused  /* one line says why; also for a failure half-way, which the next recovery completes */
};

struct UndoReport {
    RecoveryReport recovery; /* what was found cut off; then nothing else is undone */
    std::string undoPath;    /* what was played back, and is gone */
    uint64_t stretches = 0, bytes = 0;
};

/* undoPath: an undo file in any place, or its copy (undoCopyPath) when a commit was cut off before that got
 * the name; or "" for the latest one beside the disks. All disks of its run have to be given, in whatever
 * order. Every sector that the run wrote has to hold what it wrote; else nothing is done, and the line says
 * how much differs. */
UndoOutcome undoLatest(JournalFiles& files, std::span<const TransactionDisk> disks,
                       const std::string& undoPath, UndoReport& report, Problem& problem);

} /* namespace offline */

#endif
