/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/device/recovery.h"

#include <algorithm>
#include <cerrno>

#include "platform/offline/base/guarded.h"
#include "platform/offline/device/device_error.h"
#include "platform/offline/device/playback.h"
#include "platform/offline/device/pointers.h"

namespace offline {
namespace {

NTSTATUS refuseState(const JournalReader& journal, JournalState state, Problem& problem) {
    switch (state) {
        case JournalState::otherVersion:
            return refuse(problem, STATUS_FILE_CORRUPT_ERROR,
                          journal.path +
                              ": another version of quillet made this journal; put the disk right with that");
        case JournalState::unreadable:
            if (journal.error == EPERM) {
                return refuse(problem, STATUS_ACCESS_DENIED,
                              journal.path +
                                  ": another user may have written this journal; if it is to be trusted, "
                                  "make it your own with mode 0600, else remove it");
            }
            return refuse(problem, deviceStatus(journal.error),
                          journal.path + ": the journal can't be read (" + deviceErrorText(journal.error) +
                              "); the disk is not touched without it");
        default:
            return refuse(
                problem, STATUS_FILE_CORRUPT_ERROR,
                journal.path + ": the journal is damaged and not played back; restore the disk from a copy");
    }
}

NTSTATUS removeDurably(JournalFiles& files, const std::string& path, Problem& problem) {
    int error = files.remove(path);
    if (error == 0) error = files.flushDirectory(directoryOf(path));
    if (error == 0) return STATUS_SUCCESS;
    return refuse(problem, deviceStatus(error),
                  path + ": it can't be removed (" + deviceErrorText(error) + ")");
}

/* (6). But a disk that bears one of its marks was being written all the same: then the closing record has
 * been lost since. */
NTSTATUS dropUnfinished(JournalFiles& files, const JournalReader& journal,
                        std::span<const TransactionDisk> disks, Problem& problem) {
    ByteVector there;
    for (const DirtyMark& mark : journal.head.marks) {
        if (!journal.headWhole) break;
        const JournalDisk& marked = journal.head.disks[mark.disk];
        for (const TransactionDisk& disk : disks) {
            if (journalPath(disk.place) != marked.path || disk.device->size() != marked.size) continue;
            there.resize(mark.bytes.size());
            if (disk.device->read(mark.offset, there) == 0 && there == mark.bytes) {
                return refuseState(journal, JournalState::damaged, problem);
            }
        }
    }
    return removeDurably(files, journal.path, problem);
}

/* (7) */
NTSTATUS takeBack(JournalFiles& files, JournalReader& journal, std::span<const TransactionDisk> given,
                  Problem& problem) {
    JournalDisks disks;
    Differences found;
    NTSTATUS status = matchDisks(journal, given, disks, problem);
    if (status >= 0) status = refuseReadOnly(disks, problem);
    if (status >= 0) status = compareDisks(journal, disks, true, found, problem);
    if (status < 0) return status;
    if (found.stretches > 0) {
        return refuse(problem, STATUS_FILE_CORRUPT_ERROR,
                      journal.path + ": the disk was changed since the commit was cut off (" +
                          std::to_string(found.stretches) + " of " + std::to_string(journal.stretches) +
                          " stretches, " + std::to_string(found.bytes) +
                          " bytes); the journal is not played back; restore the disk from a copy");
    }
    bool oldBytesBack = false;
    return takeBackJournal(files, journal, disks, oldBytesBack, problem);
}

struct Recovery {
    JournalFiles& files;
    std::span<const TransactionDisk> disks;
    RecoveryReport& report;
    Problem& problem;
    std::vector<std::array<uint8_t, 16>> ended = {}; /* the ids of journals that were taken back here */

    NTSTATUS settleJournal(const TransactionDisk& disk);
    NTSTATUS settlePointer(const TransactionDisk& disk);
};

NTSTATUS Recovery::settleJournal(const TransactionDisk& disk) {
    JournalReader journal;
    const JournalState state = journal.open(files, journalPath(disk.place));
    if (state == JournalState::none || state == JournalState::pointer) return STATUS_SUCCESS;
    if (state == JournalState::unfinished) return dropUnfinished(files, journal, disks, problem);
    if (state != JournalState::whole) return refuseState(journal, state, problem);
    const NTSTATUS status = takeBack(files, journal, disks, problem);
    if (status < 0) return status;
    ended.push_back(journal.head.id);
    report.takenBack.push_back(journal.path);
    return STATUS_SUCCESS;
}

/* When all journals beside the disks are settled, a pointer that is live leads to a disk that was not named.
 */
NTSTATUS Recovery::settlePointer(const TransactionDisk& disk) {
    JournalReader pointer;
    if (pointer.open(files, journalPath(disk.place)) != JournalState::pointer) return STATUS_SUCCESS;
    const bool over = std::find(ended.begin(), ended.end(), pointer.head.id) != ended.end();
    const PointerState state = over ? PointerState::stale : followPointer(files, pointer);
    if (state == PointerState::stale) return removeDurably(files, pointer.path, problem);
    const std::string& path = pointer.head.disks[0].path;
    return refuse(problem, STATUS_SHARING_VIOLATION,
                  disk.device->name() + ": a commit of it and of other disks was cut off, and " + path +
                      (state == PointerState::live ? " is its journal; name all disks of the system"
                                                   : ", its journal, can't be reached; make it reachable"));
}

} /* namespace */

NTSTATUS recoverDisks(JournalFiles& files, std::span<const TransactionDisk> disks, RecoveryReport& report,
                      Problem& problem) {
    return guardedRefusing(problem, [&]() -> NTSTATUS {
        Recovery recovery{files, disks, report, problem};
        NTSTATUS status = STATUS_SUCCESS;
        for (size_t index = 0; index < disks.size() && status >= 0; ++index) {
            status = recovery.settleJournal(disks[index]);
        }
        for (size_t index = 0; index < disks.size() && status >= 0; ++index) {
            status = recovery.settlePointer(disks[index]);
        }
        return status;
    });
}

CommitState commitStateOf(JournalFiles& files, const JournalPlace& place, std::string& journal) {
    return guardedOr(CommitState::forRefusal, [&]() -> CommitState {
        journal = journalPath(place);
        JournalReader reader;
        switch (reader.open(files, journal)) {
            case JournalState::none:
            case JournalState::unfinished:
                return CommitState::settled;
            case JournalState::whole:
                return CommitState::cutOff;
            case JournalState::pointer: {
                journal = reader.head.disks[0].path;
                const PointerState state = followPointer(files, reader);
                if (state == PointerState::stale) return CommitState::settled;
                return state == PointerState::live ? CommitState::cutOff : CommitState::forRefusal;
            }
            default:
                return CommitState::forRefusal;
        }
    });
}

} /* namespace offline */
