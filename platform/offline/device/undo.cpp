/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/device/undo.h"

#include <cerrno>

#include "platform/offline/base/guarded.h"
#include "platform/offline/device/device_error.h"
#include "platform/offline/device/playback.h"
#include "platform/offline/device/pointers.h"

namespace offline {
namespace {

struct Undo {
    JournalFiles& files;
    std::span<const TransactionDisk> given;
    UndoReport& report;
    Problem& problem;
    JournalReader file = {};
    JournalDisks disks = {};
    std::string original = {}; /* the undo file, where the journal is a copy of it */

    NTSTATUS findLatest(std::string& path);
    NTSTATUS open(const std::string& path, bool& found);
    NTSTATUS check();
    NTSTATUS becomeJournal();
    NTSTATUS play();

private:
    NTSTATUS takePlace(const std::string& journal);
};

/* The latest of those that lie beside the disks; the path stays empty when there is none. */
NTSTATUS Undo::findLatest(std::string& path) {
    uint64_t latest = 0;
    for (const TransactionDisk& disk : given) {
        std::string here;
        const int error = latestUndoPath(files, disk.place, here);
        if (error == ENOENT) continue; /* no directory yet */
        if (error != 0) {
            return refuseJournal(disk.place.directory, "the directory can't be read", error, problem);
        }
        if (here.empty()) continue;
        JournalReader reader;
        reader.open(files, here);
        if (!path.empty() && reader.head.time <= latest) continue;
        latest = reader.head.time;
        path = here;
    }
    return STATUS_SUCCESS;
}

NTSTATUS Undo::open(const std::string& path, bool& found) {
    const JournalState state = file.open(files, path);
    found = state != JournalState::none;
    if (!found || state == JournalState::whole) return STATUS_SUCCESS;
    if (state == JournalState::unreadable) {
        return refuseJournal(path, "the undo file can't be read", file.error, problem);
    }
    return refuse(problem, STATUS_FILE_CORRUPT_ERROR,
                  path + ": it is no whole undo file of this version of quillet");
}

/* All disks are here, can be written, and hold what the run wrote. */
NTSTATUS Undo::check() {
    NTSTATUS status = matchDisks(file, given, disks, problem);
    if (status >= 0) status = refuseReadOnly(disks, problem);
    if (status < 0) return status;
    Differences found;
    status = compareDisks(file, disks, false, found, problem);
    if (status < 0 || found.stretches == 0) return status;
    return refuse(problem, STATUS_FILE_CORRUPT_ERROR,
                  file.path + ": the disk has moved on since that run: " + std::to_string(found.stretches) +
                      " of " + std::to_string(file.stretches) + " stretches differ from what it wrote (" +
                      std::to_string(found.bytes) + " bytes)");
}

/* From another file system a copy takes the place. */
NTSTATUS Undo::takePlace(const std::string& journal) {
    int error = files.rename(file.path, journal);
    if (error == EXDEV) {
        const std::string copy = journal + ".part";
        error = copyFile(files, file.path, copy);
        if (error == 0 && (error = files.rename(copy, journal)) != 0) files.remove(copy);
        if (error == 0) original = file.path;
    }
    if (error != 0) return refuseJournal(journal, "the undo file can't become the journal", error, problem);
    int flushed = files.flushDirectory(directoryOf(journal));
    if (flushed == 0) flushed = files.flushDirectory(directoryOf(file.path));
    if (flushed == 0) return STATUS_SUCCESS;
    if (original.empty() ? files.rename(journal, file.path) == 0 : files.remove(journal) == 0) {
        return refuseJournal(directoryOf(journal), "it can't be flushed", flushed, problem);
    }
    return refuse(problem, deviceStatus(flushed),
                  journal + ": its directory can't be flushed (" + deviceErrorText(flushed) +
                      "); run `quillet-offline undo` again before the disk is used");
}

/* From here on it is a commit that was cut off, which every recovery completes. */
NTSTATUS Undo::becomeJournal() {
    const JournalHead head = located(file, disks);
    NTSTATUS status = writePointers(files, head, problem);
    if (status >= 0) status = takePlace(head.disks[0].path);
    if (status < 0) removePointers(files, head);
    if (status >= 0) file.path = head.disks[0].path;
    return status;
}

NTSTATUS Undo::play() {
    bool oldBytesBack = false;
    const NTSTATUS status =
        guardedRefusing(problem, [&] { return takeBackJournal(files, file, disks, oldBytesBack, problem); });
    if (status < 0 && !oldBytesBack) {
        return refuse(
            problem, status,
            problem.text + "; the disk is half taken back: keep " + file.path +
                " and run `quillet-offline undo` with the same disks again when the medium is sound");
    }
    if (status >= 0 && !original.empty()) files.remove(original);
    return status;
}

UndoOutcome undoGuarded(Undo& undo, const std::string& wanted) {
    RecoveryReport& recovered = undo.report.recovery;
    if (recoverDisks(undo.files, undo.given, recovered, undo.problem) < 0) return UndoOutcome::refused;
    if (!recovered.takenBack.empty()) return UndoOutcome::done;
    bool found = false;
    std::string path = wanted;
    NTSTATUS status = path.empty() ? undo.findLatest(path) : STATUS_SUCCESS;
    if (status >= 0 && !path.empty()) status = undo.open(path, found);
    if (status >= 0 && !found && !wanted.empty()) { /* its run was cut off when only the name was missing */
        path = undoCopyPath(wanted);
        found = undo.file.open(undo.files, path) == JournalState::whole;
    }
    if (status >= 0 && !found) return UndoOutcome::nothing;
    if (status >= 0) status = undo.check();
    if (status >= 0) status = undo.becomeJournal();
    if (status < 0) {
        undo.problem.text += "; nothing was changed";
        return UndoOutcome::refused;
    }
    if (undo.play() < 0) return UndoOutcome::refused;
    undo.report.undoPath = path;
    undo.report.stretches = undo.file.stretches;
    undo.report.bytes = undo.file.bytes;
    return UndoOutcome::done;
}

} /* namespace */

UndoOutcome undoLatest(JournalFiles& files, std::span<const TransactionDisk> disks,
                       const std::string& undoPath, UndoReport& report, Problem& problem) {
    UndoOutcome outcome = UndoOutcome::refused;
    static_cast<void>(guardedRefusing(problem, [&]() -> NTSTATUS {
        report = {};
        Undo undo{files, disks, report, problem};
        outcome = undoGuarded(undo, undoPath);
        return STATUS_SUCCESS;
    }));
    return outcome;
}

} /* namespace offline */
