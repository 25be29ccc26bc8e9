/* The pointers: beside each disk of a journal but the first, where the journal lies. Private to this room. May
 * throw std::bad_alloc. */
#ifndef QUILLET_OFFLINE_DEVICE_POINTERS_H
#define QUILLET_OFFLINE_DEVICE_POINTERS_H

#include "platform/offline/device/journal_reader.h"
#include "platform/offline/device/transaction.h"

namespace offline {

/* Makes them durable; the first journal or pointer in the way is refused. What a refusal leaves is removed by
 * removePointers. */
NTSTATUS writePointers(JournalFiles& files, const JournalHead& head, Problem& problem);

/* Those that are still there, when their journal has ended. Where that fails a pointer to nothing stays, which
 * the next recovery removes. */
void removePointers(JournalFiles& files, const JournalHead& head);

/* "/a.img.quillet-journal: the journal can't be written (…); nothing was changed" */
NTSTATUS refuseJournal(const std::string& path, const char* what, int error, Problem& problem);

} /* namespace offline */

#endif
