/* SPDX-License-Identifier: GPL-2.0-or-later */
/* What puts a commit right that was cut off. The invariants are transaction.h's. No function throws. */
#ifndef QUILLET_OFFLINE_DEVICE_RECOVERY_H
#define QUILLET_OFFLINE_DEVICE_RECOVERY_H

#include "platform/offline/device/transaction.h"

namespace offline {

struct RecoveryReport {
    std::vector<std::string> takenBack; /* journals of cut-off commits whose old bytes are back */
};

/* Before anything else is done with the disks of a system; what is no journal of theirs is left alone.
 * Refused, with one line, and nothing written: a journal that is damaged, of another disk or version, or
 * whose disks are not all here; a disk that holds neither old nor new bytes somewhere; a pointer whose
 * journal is out of reach. A failure while the old bytes go back leaves the journal, and the next recovery
 * begins again. */
NTSTATUS recoverDisks(JournalFiles& files, std::span<const TransactionDisk> disks, RecoveryReport& report,
                      Problem& problem);

enum class CommitState {
    settled,   /* no journal, or one that goes with the next recovery: the disk is whole */
    cutOff,    /* recoverDisks has to be called before the disk is used */
    forRefusal /* there is a journal that recoverDisks would refuse, for what it says of itself */
};

/* For who only looks: whether a commit of the disk was cut off. Writes nothing and does not look at the disk;
 * journal is the path of what was found. */
CommitState commitStateOf(JournalFiles& files, const JournalPlace& place, std::string& journal);

} /* namespace offline */

#endif
