/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Where a disk's journal and undo files lie and what they are called: beside an image file, under its real
 * name whatever link leads to it; for devices and addresses in QUILLET_JOURNAL, else in the state directory
 * (/var/lib/quillet for root, else $XDG_STATE_HOME/quillet, ~/.local/state/quillet), under the whole path
 * with each "/" as "%2F" and "%" as "%25". No function throws. */
#ifndef QUILLET_OFFLINE_DEVICE_JOURNAL_PLACE_H
#define QUILLET_OFFLINE_DEVICE_JOURNAL_PLACE_H

#include <string>

#include "platform/offline/base/problem.h"
#include "platform/offline/device/journal_files.h"

namespace offline {

struct JournalPlace {
    std::string directory; /* absolute */
    std::string name;      /* of the disk, as the files' names begin */
    bool ofOurOwn = false; /* the directory is ours to make */
};

/* Makes nothing. */
NTSTATUS journalPlaceOf(const std::string& disk, JournalPlace& place, Problem& problem);

/* Before the first file in it is made: makes the directory, for its owner only, where it is ours to make. */
NTSTATUS makeJournalDirectory(const JournalPlace& place, Problem& problem);

/* What a copy of the journal on another file system is called until the journal has ended and it becomes the
 * undo file: "/safe/undo.quillet-part". */
std::string undoCopyPath(const std::string& undoPath);

std::string journalPath(const JournalPlace& place); /* "/images/a.img.quillet-journal" */

/* "/images/a.img.quillet-undo", then "….quillet-undo.2" and so on: the highest number is the latest run's.
 * latest is empty when there is none. Both may throw std::bad_alloc. */
int latestUndoPath(JournalFiles& files, const JournalPlace& place, std::string& latest);
int nextUndoPath(JournalFiles& files, const JournalPlace& place, std::string& next);

} /* namespace offline */

#endif
