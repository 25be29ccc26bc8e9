/* SPDX-License-Identifier: GPL-2.0-or-later */
#include <sys/random.h>
#include <time.h>

#include <cerrno>

#include "platform/offline/base/guarded.h"
#include "platform/offline/base/progress.h"
#include "platform/offline/device/device_error.h"
#include "platform/offline/device/gather.h"
#include "platform/offline/device/playback.h"
#include "platform/offline/device/pointers.h"
#include "platform/offline/device/transaction.h"

namespace offline {
namespace {

struct Commit {
    JournalFiles& files;
    std::span<const TransactionDisk> disks;
    const UndoChoice& undo;
    CommitReport& report;
    Problem& problem;
    JournalHead head = {};
    JournalWriter writer = {};
    JournalReader reader = {};
    std::string journal = {}, undoPath = {}, undoCopy = {}; /* paths */

    NTSTATUS begin(std::span<const DirtyMark> marks);
    NTSTATUS checkMarks();
    NTSTATUS chooseUndo();
    NTSTATUS secure();
    NTSTATUS apply();
    NTSTATUS takeBack(const Problem& cause);
    NTSTATUS abandon(NTSTATUS status);

private:
    NTSTATUS writerStatus();
    NTSTATUS refuseNoRoom();
    NTSTATUS copyUndo();
    NTSTATUS end();
    NTSTATUS endJournal();
};

/* ---- Before the first disk is written ---- */

NTSTATUS Commit::begin(std::span<const DirtyMark> marks) {
    journal = journalPath(disks[0].place);
    if (getrandom(head.id.data(), head.id.size(), 0) != static_cast<ssize_t>(head.id.size())) {
        return refuse(problem, STATUS_UNSUCCESSFUL, "the system gives no random numbers");
    }
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    head.time = static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
    for (const TransactionDisk& disk : disks) {
        JournalDisk known{disk.device->size(), {}, journalPath(disk.place)};
        DeviceError error = disk.device->readOnly() ? EROFS : identityOf(*disk.device, known.identity);
        if (error == 0) error = disk.overlay->flush(); /* whether it lost something */
        if (error != 0) {
            return refuse(problem, deviceStatus(error),
                          disk.device->name() + ": the changes can't be committed (" +
                              disk.overlay->reason(error) + ")");
        }
        head.disks.push_back(std::move(known));
    }
    head.marks.assign(marks.begin(), marks.end());
    return checkMarks();
}

/* A mark that is there already could not tell whether a commit has begun. */
NTSTATUS Commit::checkMarks() {
    ByteVector there;
    for (const DirtyMark& mark : head.marks) {
        const uint64_t length = mark.bytes.size();
        const bool usable = mark.disk < head.disks.size() && length != 0 && length % journal::tornAt == 0 &&
                            mark.offset % journal::tornAt == 0 && mark.offset >= journal::identityBytes &&
                            length <= head.disks[mark.disk].size &&
                            mark.offset <= head.disks[mark.disk].size - length;
        there.resize(length);
        const DeviceError error = usable ? disks[mark.disk].device->read(mark.offset, there) : 0;
        if (!usable || error != 0 || there == mark.bytes) {
            return refuse(problem, error != 0 ? deviceStatus(error) : STATUS_INVALID_PARAMETER,
                          disks[0].device->name() + ": a volume's dirty mark can't be set" +
                              (error != 0 ? " (" + deviceErrorText(error) + ")" : ""));
        }
    }
    return STATUS_SUCCESS;
}

NTSTATUS refuseUndo(const std::string& path, int error, Problem& problem) {
    return refuse(problem, deviceStatus(error),
                  path + ": the undo file can't be made there (" + deviceErrorText(error) +
                      "); name another place for it");
}

/* Whether the copy can be made. One that is whole stays: it may be all that leads back from a run whose end
 * was cut off. */
int tryUndoCopy(JournalFiles& files, const std::string& path) {
    JournalFile trial;
    const int error = trial.create(files, path);
    if (error != 0 && error != EEXIST) return error;
    JournalReader there;
    if (error == EEXIST && there.open(files, path) != JournalState::unfinished) return EEXIST;
    return files.remove(path);
}

NTSTATUS Commit::chooseUndo() {
    if (!undo.keep) return STATUS_SUCCESS;
    if (undo.path.empty()) {
        const int error = nextUndoPath(files, disks[0].place, undoPath);
        if (error == 0) return STATUS_SUCCESS;
        return refuseJournal(disks[0].place.directory, "the directory can't be read", error, problem);
    }
    undoPath = undo.path;
    head.undoFile = undoPath;
    JournalFile trial;
    int error = trial.open(files, undoPath);
    if (error == 0) return refuseUndo(undoPath, EEXIST, problem);
    if (error == ENOENT) error = tryUndoCopy(files, undoCopyPath(undoPath));
    if (error == EEXIST) return refuseUndo(undoCopyPath(undoPath), error, problem);
    return error == 0 ? STATUS_SUCCESS : refuseUndo(undoPath, error, problem);
}

NTSTATUS Commit::refuseNoRoom() {
    uint64_t bytes = 0, fileSystem = 0;
    std::string text = journal + ": there is no room for the journal: it needs " +
                       std::to_string(writer.fullLength()) + " bytes";
    JournalFile begun; /* it takes room until it is removed */
    if (writer.error == ENOSPC && begun.open(files, journal) == 0 &&
        files.room(disks[0].place.directory, bytes, fileSystem) == 0) {
        text += ", " + std::to_string(bytes + begun.size) + " are free there";
    }
    return refuse(problem, STATUS_DISK_FULL, text + " (" + deviceErrorText(writer.error) + "); make room");
}

NTSTATUS Commit::writerStatus() {
    if (writer.error == 0) return STATUS_SUCCESS;
    if (noRoom(writer.error)) return refuseNoRoom();
    return refuseJournal(journal, "the journal can't be written", writer.error, problem);
}

NTSTATUS Commit::copyUndo() {
    const std::string copy = undoCopyPath(undoPath);
    const int error = copyFile(files, journal, copy);
    if (error != 0) {
        const NTSTATUS status = refuseUndo(undoPath, error, problem);
        if (noRoom(error)) problem.text += "; it needs " + std::to_string(writer.length) + " bytes";
        return status;
    }
    undoCopy = copy;
    return STATUS_SUCCESS;
}

/* (3): the journal whole and durable, and read back once. */
NTSTATUS Commit::secure() {
    writer.endPieces();
    if (writer.error == 0) writer.error = files.flushDirectory(directoryOf(journal));
    NTSTATUS status = writerStatus();
    if (status >= 0) status = writePointers(files, head, problem);
    if (status < 0) return status;
    writer.close();
    status = writerStatus();
    if (status >= 0 && reader.open(files, journal) != JournalState::whole) {
        status = refuseJournal(journal, "the journal does not read as it was written", EIO, problem);
    }
    const auto nothing = [](const JournalStretch&) { return STATUS_SUCCESS; };
    if (status >= 0)
        status = reader.forStretches(JournalPart::all, JournalImages::asStored, nothing, problem);
    if (status < 0 || undoPath.empty()) return status;
    uint64_t room = 0, here = 0, there = 0;
    const bool apart = files.room(directoryOf(journal), room, here) == 0 &&
                       files.room(directoryOf(undoPath), room, there) == 0 && here != there;
    return apart ? copyUndo() : STATUS_SUCCESS;
}

/* (8): nothing of it stays. Where the journal does, the next recovery has to come before the disk is used. */
NTSTATUS Commit::abandon(NTSTATUS status) {
    removeCopies(files, head);
    int error = writer.created ? files.remove(journal) : 0;
    if (error == 0 && writer.created) error = files.flushDirectory(directoryOf(journal));
    removePointers(files, head);
    problem.text += "; nothing was changed";
    if (error == 0) return status;
    return refuse(problem, status,
                  problem.text + "; " + journal + " can't be removed (" + deviceErrorText(error) +
                      "): run `quillet-offline undo` before the disk is used");
}

/* ---- From the first write on ---- */

JournalDisks inOrder(std::span<const TransactionDisk> disks) {
    JournalDisks order;
    for (const TransactionDisk& disk : disks) order.push_back(&disk);
    return order;
}

/* (5): the one step. */
NTSTATUS Commit::endJournal() {
    int error = 0;
    if (!undoPath.empty() && undoCopy.empty()) {
        error = files.rename(journal, undoPath);
        if (error != EXDEV) {
            return error == 0 ? STATUS_SUCCESS : refuseUndo(undoPath, error, problem);
        }
        const NTSTATUS status = copyUndo(); /* one file system, but not one mount */
        if (status < 0) return status;
    }
    error = files.remove(journal);
    return error == 0 ? STATUS_SUCCESS : refuseJournal(journal, "the journal can't be ended", error, problem);
}

/* The directories that the end is to be durable in. */
NTSTATUS Commit::end() {
    report.undoPath = undoPath;
    const NTSTATUS status = endJournal();
    if (status < 0) return status;
    report.committed = true;
    int error = 0;
    if (!undoCopy.empty()) {
        error = files.flushDirectory(directoryOf(journal));
        if (error == 0 && files.rename(undoCopy, undoPath) != 0) report.undoPath.swap(undoCopy);
    }
    if (error == 0 && !undoPath.empty()) error = files.flushDirectory(directoryOf(undoPath));
    if (error == 0) error = files.flushDirectory(directoryOf(journal));
    if (error == 0) {
        removePointers(files, head);
        return STATUS_SUCCESS;
    }
    return refuse(problem, deviceStatus(error),
                  directoryOf(journal) + ": it can't be flushed (" + deviceErrorText(error) +
                      "); the run is on the disk, but should the power fail now it may be taken back");
}

NTSTATUS Commit::apply() {
    const NTSTATUS status = playJournal(reader, inOrder(disks), Side::after, problem);
    return status < 0 ? status : end();
}

/* After a failure, by what a recovery would do (7). What the disks hold need not be looked at: nobody else
 * had them in between. */
NTSTATUS Commit::takeBack(const Problem& cause) {
    Problem second;
    bool oldBytesBack = false;
    const NTSTATUS status = guardedRefusing(
        second, [&] { return takeBackJournal(files, reader, inOrder(disks), oldBytesBack, second); });
    std::string text = cause.text;
    if (status < 0 && !oldBytesBack) {
        return refuse(
            problem, cause.status,
            text + "; the disk may be left half changed, for the old bytes can't be put back either (" +
                second.text + "): keep " + journal +
                " and run `quillet-offline undo` with all disks of this run when " +
                (second.status == STATUS_DISK_FULL ? "there is room again" : "the medium is sound"));
    }
    text += "; all that had been written was taken back, nothing was changed";
    if (status < 0) text += "; " + second.text;
    return refuse(problem, cause.status, text);
}

NTSTATUS commitAll(Commit& commit, std::span<const DirtyMark> marks) {
    NTSTATUS status = commit.begin(marks);
    if (status >= 0) status = commit.chooseUndo();
    if (status < 0) return commit.abandon(status);
    status = guardedRefusing(commit.problem, [&]() -> NTSTATUS {
        const NTSTATUS gathered = gatherStretches(commit.files, commit.journal, commit.head, commit.disks,
                                                  commit.writer, commit.problem);
        progressTotal(2 * commit.writer.bytes); /* once into the journal, once onto the disks */
        return gathered < 0 || !commit.writer.begun ? gathered : commit.secure();
    });
    if (status < 0) return commit.abandon(status);
    if (!commit.writer.begun) return status;
    status = guardedRefusing(commit.problem, [&] { return commit.apply(); });
    if (!commit.report.committed) {
        commit.report.undoPath.clear();
        const Problem cause = std::move(commit.problem);
        return commit.takeBack(cause);
    }
    commit.report.stretches = commit.writer.stretches;
    commit.report.bytes = commit.writer.bytes;
    commit.report.journalLength = commit.writer.length;
    return status;
}

} /* namespace */

NTSTATUS commitTransaction(JournalFiles& files, std::span<const TransactionDisk> disks,
                           std::span<const DirtyMark> marks, const UndoChoice& undo, CommitReport& report,
                           Problem& problem) {
    return guardedRefusing(problem, [&]() -> NTSTATUS {
        report = {};
        if (disks.empty()) return STATUS_SUCCESS;
        Commit commit{files, disks, undo, report, problem};
        return commitAll(commit, marks);
    });
}

} /* namespace offline */
