/* SPDX-License-Identifier: GPL-2.0-or-later */
/* What commit, recovery and undo do alike with a whole journal and its disks. Private to this room. May throw
 * std::bad_alloc. */
#ifndef QUILLET_OFFLINE_DEVICE_PLAYBACK_H
#define QUILLET_OFFLINE_DEVICE_PLAYBACK_H

#include "platform/offline/device/journal_reader.h"
#include "platform/offline/device/transaction.h"

namespace offline {

/* The journal's disks, in its order. */
using JournalDisks = std::vector<const TransactionDisk*>;

/* The digest that a disk is known by. */
DeviceError identityOf(BlockDevice& device, Digest& identity);

/* Finds the journal's disks among those given: by their journals' places, else by their identities, for
 * images may have been moved. Refused: one that is missing, or that is not what it was. */
NTSTATUS matchDisks(const JournalReader& journal, std::span<const TransactionDisk> given, JournalDisks& disks,
                    Problem& problem);

/* For what has to be written. */
NTSTATUS refuseReadOnly(const JournalDisks& disks, Problem& problem);

/* before: what was there; after: what the overlays hold, which has to be what the journal expects. */
enum class Side { before, after };

/* Writes every stretch, in the order of (4). */
NTSTATUS playJournal(JournalReader& journal, const JournalDisks& disks, Side side, Problem& problem);

/* (7) without the looking: the old bytes go back, the journal is removed durably, then the pointers to it.
 * oldBytesBack tells of a failure whether only the journal is still there. */
NTSTATUS takeBackJournal(JournalFiles& files, JournalReader& journal, const JournalDisks& disks,
                         bool& oldBytesBack, Problem& problem);

/* The head with the paths of the journals where the disks lie now. */
JournalHead located(const JournalReader& journal, const JournalDisks& disks);

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
