/* SPDX-License-Identifier: GPL-2.0-or-later */
/* What commit, recovery and undo do alike with a whole journal: write its stretches to the disks, or compare
 * them. Private to this room. May throw std::bad_alloc. */
#ifndef QUILLET_OFFLINE_DEVICE_PLAYBACK_H
#define QUILLET_OFFLINE_DEVICE_PLAYBACK_H

#include "platform/offline/device/journal_disks.h"

namespace offline {

/* before: what was there; after: what the overlays hold, which has to be what the journal expects. */
enum class Side { before, after };

/* Writes every stretch, in the order of (4). */
NTSTATUS playJournal(JournalReader& journal, const JournalDisks& disks, Side side, Problem& problem);

/* (7) without the looking: the old bytes go back, the journal is removed durably, then the pointers to it.
 * oldBytesBack tells of a failure whether only the journal is still there. */
NTSTATUS takeBackJournal(JournalFiles& files, JournalReader& journal, const JournalDisks& disks,
                         bool& oldBytesBack, Problem& problem);

/* What a disk holds that it should not. */
struct Differences {
    uint64_t stretches = 0, bytes = 0; /* of whole sectors */
};

/* Looks at each sector of each stretch: it has to hold what the run wrote, and where a commit may have been
 * cut off (anyState) the old bytes or a mark's will do. Checks all of the journal on the way. */
NTSTATUS compareDisks(JournalReader& journal, const JournalDisks& disks, bool anyState, Differences& found,
                      Problem& problem);

} /* namespace offline */

#endif
