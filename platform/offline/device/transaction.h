/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The transaction: what a run wrote to the overlays goes to the disks of its system, all of it or nothing.
 * These hold, and the code names them by their numbers:
 *
 *  (1) Until the commit begins no byte of any disk changes. Everything goes to the overlays.
 *  (2) A commit takes what really differs, in the order of each disk, over all disks of the system.
 *  (3) The journal is on its medium, its name in the directory too, before the first disk is written: what
 *      the stretches held, checksums of that and of what will replace it, each disk's identity. The closing
 *      record comes when all else is there, the pointers included, so that no journal that has it lacks
 *      anything.
 *  (4) While a disk is being written each of its volumes that changes bears the dirty mark: the marks are
 *      written and flushed first, then all else in ascending order, then flushed; the marks are taken away
 *      last.
 *  (5) The end of a journal is one atomic step: its removal, or its renaming to an undo file. Before it the
 *      run has not happened, after it, it has. One journal serves all disks and lies beside the first;
 *      beside each other one lies a pointer to it.
 *  (6) A journal without its closing record belongs to a commit that had not begun to write: it is removed.
 *  (7) A journal that has it belongs to a commit that was cut off: the old bytes go back, in the order of
 *      (4), are flushed, and the journal is removed. That can be cut off and begun again any number of
 *      times.
 *  (8) What can't be journalled is not written: one line, and nothing is changed.
 *
 * A commit, a recovery and an undo must not be ended half-way where that can be helped: the caller blocks
 * SIGINT, SIGTERM, SIGHUP and SIGQUIT around them and ignores SIGXFSZ. What ends them all the same is put
 * right by the next recovery. The caller holds the locks of all disks all the while (the devices have them),
 * so that no other process's journal is met in use. No function throws. */
#ifndef QUILLET_OFFLINE_DEVICE_TRANSACTION_H
#define QUILLET_OFFLINE_DEVICE_TRANSACTION_H

#include <span>

#include "platform/offline/base/problem.h"
#include "platform/offline/device/journal_format.h"
#include "platform/offline/device/journal_place.h"
#include "platform/offline/device/overlay.h"

namespace offline {

struct TransactionDisk {
    BlockDevice* device = nullptr; /* the disk itself, below its overlay */
    Overlay* overlay = nullptr;    /* for a commit only */
    JournalPlace place;            /* journalPlaceOf the disk's path */
};

/* What becomes of the journal of a commit that succeeded. */
struct UndoChoice {
    bool keep = false;
    std::string path; /* absolute, in any directory; "": beside the journal, under the next free name */
};

struct CommitReport {
    bool committed = false;            /* the disks hold what the run wrote, also where a line says more */
    uint64_t stretches = 0, bytes = 0; /* that were changed */
    uint64_t journalLength = 0;        /* bytes; of the undo file, where one is kept */
    std::string undoPath;              /* "" when none was kept, or nothing differed */
};

/* Call recoverDisks (recovery.h) and makeJournalDirectory first. marks: for each volume that changes, the
 * sectors that say that it is dirty; each differs from what lies there now, and none lies in a disk's first
 * 8192 bytes, which must not be changed either.
 *
 * STATUS_SUCCESS: committed, or nothing differs. Otherwise one line says what refused and how the disks are:
 * unchanged as a rule; where the old bytes could not be put back, the journal stays and the line says so.
 * Memory: 16 MiB above the overlays'. */
NTSTATUS commitTransaction(JournalFiles& files, std::span<const TransactionDisk> disks,
                           std::span<const DirtyMark> marks, const UndoChoice& undo, CommitReport& report,
                           Problem& problem);

} /* namespace offline */

#endif
