/* SPDX-License-Identifier: GPL-2.0-or-later */
/* What belongs to a journal and lies elsewhere. The pointers: beside each disk but the first, where the
 * journal lies. Copies, as an undo file or to become one. Private to this room. May throw std::bad_alloc. */
#ifndef QUILLET_OFFLINE_DEVICE_POINTERS_H
#define QUILLET_OFFLINE_DEVICE_POINTERS_H

#include "platform/offline/device/journal_reader.h"
#include "platform/offline/device/transaction.h"

namespace offline {

/* Makes them durable; a journal or pointer in the way is refused. What a refusal leaves is whole and removed
 * by removePointers. */
NTSTATUS writePointers(JournalFiles& files, const JournalHead& head, Problem& problem);

/* Those that are still there, when their journal has ended. Where that fails a pointer to nothing stays,
 * which the next recovery removes. */
void removePointers(JournalFiles& files, const JournalHead& head);

/* Copies of the journal on another file system, when the old bytes are back: the one that was to become the
 * undo file, and the undo file that the journal was copied from. Nothing else that bears such a name.
 * Durable, where they can be removed. */
void removeCopies(JournalFiles& files, const JournalHead& head);

/* Where a pointer leads. */
enum class PointerState {
    stale,    /* its journal has ended, or had not begun to be played */
    live,     /* its commit was cut off */
    uncertain /* the journal can't be reached or read */
};
PointerState followPointer(JournalFiles& files, const JournalReader& pointer);

/* "/a.img.quillet-journal: the journal can't be written (No space left on device)" */
NTSTATUS refuseJournal(const std::string& path, const char* what, int error, Problem& problem);

} /* namespace offline */

#endif
