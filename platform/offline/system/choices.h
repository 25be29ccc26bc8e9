/* SPDX-License-Identifier: GPL-2.0-or-later */
/* What the environment asks of a run, and why it can't be had. Private to this room. Every function may throw
 * std::bad_alloc. */
#ifndef QUILLET_OFFLINE_SYSTEM_CHOICES_H
#define QUILLET_OFFLINE_SYSTEM_CHOICES_H

#include <string>
#include <vector>

#include "platform/offline/base/progress_line.h"
#include "platform/offline/security/security.h"
#include "platform/offline/system/system.h"

namespace offline {

/* QUILLET_ACCESS. The mode is set also where a word that is not known is refused. */
NTSTATUS accessWish(AccessMode& mode, Problem& problem);

/* QUILLET_PROGRESS: never where it is not set, or refused. */
NTSTATUS progressWish(ProgressWish& wish, Problem& problem);

/* QUILLET_COMMIT and QUILLET_UNDO. An undo file that can't be made there is refused. */
NTSTATUS commitWish(CommitWish& wish, Problem& problem);

/* Refuses an undo file, named by its whole path, that can't be made there. None, or one beside the first
 * disk, is for the commit to see. */
NTSTATUS refuseUndoPlace(const UndoChoice& undo, Problem& problem);

/* QUILLET_SYSTEM, at least one disk, and QUILLET_FORMAT. */
NTSTATUS disksWish(std::vector<DiskName>& disks, Problem& problem);

} /* namespace offline */

#endif
