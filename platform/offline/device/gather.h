/* SPDX-License-Identifier: GPL-2.0-or-later */
/* What a commit has to write: the stretches of the disks that differ from what the overlays hold. Private to
 * this room. May throw std::bad_alloc. */
#ifndef QUILLET_OFFLINE_DEVICE_GATHER_H
#define QUILLET_OFFLINE_DEVICE_GATHER_H

#include "platform/offline/device/journal_writer.h"
#include "platform/offline/device/transaction.h"

namespace offline {

/* Where the disk's next window ends, on the disk or beyond it, when it begins there: whole blocks, neighbours
 * joined, not much between them. */
uint64_t windowEnd(const TransactionDisk& disk, uint64_t start);

/* (2): begins the journal when something differs, and gives it what does and the stretches of the marks;
 * leaves it unbegun when nothing differs. Fails for what can't be read; the journal's own error is the
 * caller's to ask for. */
NTSTATUS gatherStretches(JournalFiles& files, const std::string& path, const JournalHead& head,
                         std::span<const TransactionDisk> disks, JournalWriter& journal, Problem& problem);

} /* namespace offline */

#endif
