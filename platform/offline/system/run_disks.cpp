/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/system/run_disks.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "platform/offline/base/ending_signals.h"
#include "platform/offline/base/guarded.h"
#include "platform/offline/base/progress.h"
#include "platform/offline/device/device_error.h"
#include "platform/offline/device/device_open.h"
#include "platform/offline/device/image_chain.h"
#include "platform/offline/device/recovery.h"
#include "platform/offline/device/scratch_commit.h"
#include "platform/offline/system/installation.h"

namespace offline {
namespace {

/* Of a run that is only planned. */
std::string temporaryDirectory() {
    const char* const chosen = getenv("TMPDIR");
    return chosen != nullptr && chosen[0] == '/' ? chosen : "/tmp";
}

/* Told before the work, not after it. */
NTSTATUS refuseDirectory(const RunDisk& disk, Problem& problem) {
    const NTSTATUS status = makeJournalDirectory(disk.place, problem);
    if (status < 0 || access(disk.place.directory.c_str(), W_OK | X_OK) == 0) return status;
    return refuse(problem, deviceStatus(errno),
                  disk.place.directory + ": the journal of the run can't be made there (" +
                      deviceErrorText(errno) + "); nothing is changed without one");
}

NTSTATUS openBottom(const DiskName& name, DiskAccess access, RunDisk& disk, Problem& problem) {
    const DiskAccess ofDevice = access == DiskAccess::planned ? DiskAccess::readOnly : access;
    disk.name = name;
    NTSTATUS status = deviceOpen(name, ofDevice, disk.bottom, problem);
    if (status >= 0) status = journalPlaceOf(name.name, disk.place, problem);
    if (status >= 0 && access == DiskAccess::readWrite) status = refuseDirectory(disk, problem);
    return status;
}

std::vector<TransactionDisk> transactionOver(const std::vector<RunDisk>& disks) {
    std::vector<TransactionDisk> all;
    all.reserve(disks.size());
    for (const RunDisk& disk : disks) all.push_back({disk.bottom.get(), disk.overlay, disk.place});
    return all;
}

NTSTATUS recover(const std::vector<RunDisk>& disks, std::vector<std::string>& notices, Problem& problem) {
    RecoveryReport report;
    endingSignalsHold();
    const NTSTATUS status = recoverDisks(systemJournalFiles(), transactionOver(disks), report, problem);
    endingSignalsRelease();
    for (const std::string& journal : report.takenBack) {
        notices.push_back("an earlier run was cut off while it was committed; it was taken back, by " +
                          journal);
    }
    return status;
}

NTSTATUS refuseCutOffFile(const std::string& path, const std::string& told, Problem& problem) {
    JournalPlace place;
    Problem noPlace;
    const NTSTATUS found = journalPlaceOf(path, place, noPlace);
    if (found == STATUS_OBJECT_NAME_NOT_FOUND)
        return STATUS_SUCCESS; /* no place for one, and so no journal */
    if (found < 0) {
        problem = noPlace;
        return found;
    }
    std::string journal;
    const CommitState state = commitStateOf(systemJournalFiles(), place, journal);
    if (state == CommitState::settled) return STATUS_SUCCESS;
    return refuse(problem, STATUS_DISK_CORRUPT_ERROR,
                  told +
                      ": an earlier run was cut off while it was committed; run `quillet-offline undo` with "
                      "the disks of that run to put it right (" +
                      journal + ")");
}

/* Before the disk is locked for writing. */
NTSTATUS refuseCutOffBelow(const DiskName& disk, Problem& problem) {
    ImageChain chain;
    Problem later; /* told when it is opened */
    if (imageChainOf(disk, chain, later) < 0) return STATUS_SUCCESS;
    NTSTATUS status = STATUS_SUCCESS;
    for (size_t i = 1; i < chain.files.size() && status >= 0; i++) {
        const std::string& path = chain.files[i].path;
        status = refuseCutOffFile(path, disk.name + ": its backing file " + path, problem);
    }
    return status;
}

} /* namespace */

NTSTATUS refuseCutOff(const DiskName& disk, Problem& problem) {
    return guardedRefusing(problem, [&]() -> NTSTATUS {
        const NTSTATUS status = refuseCutOffBelow(disk, problem);
        return status < 0 ? status : refuseCutOffFile(disk.name, disk.name, problem);
    });
}

NTSTATUS runDisksOpen(const std::vector<DiskName>& names, DiskAccess access, std::vector<RunDisk>& disks,
                      std::vector<std::string>& notices, Problem& problem) {
    return guardedRefusing(problem, [&]() -> NTSTATUS {
        disks.resize(names.size());
        for (size_t i = 0; i < names.size(); i++) {
            NTSTATUS status = refuseCutOffBelow(names[i], problem);
            if (status >= 0) status = openBottom(names[i], access, disks[i], problem);
            if (status >= 0 && access != DiskAccess::readWrite)
                status = refuseCutOffFile(names[i].name, names[i].name, problem);
            if (status < 0) return status;
        }
        return access == DiskAccess::readWrite ? recover(disks, notices, problem) : STATUS_SUCCESS;
    });
}

NTSTATUS runDiskOver(RunDisk& bottom, DiskAccess access, DiskPtr& disk, Problem& problem) {
    return guardedRefusing(problem, [&] {
        const std::string directory =
            access == DiskAccess::readWrite ? bottom.place.directory : temporaryDirectory();
        auto overlay = std::make_unique<Overlay>(*bottom.bottom, directory);
        bottom.overlay = overlay.get();
        const NTSTATUS status = diskOver(std::move(overlay), access, disk);
        bottom.disk = disk.get();
        return status;
    });
}

NTSTATUS runDisksCommit(std::vector<RunDisk>& disks, const UndoChoice& undo, CommitReport& report,
                        Problem& problem) {
    ProgressPhase phase{"Committing", 0, ProgressPhase::Unit::bytes};
    for (const RunDisk& disk : disks) phase.total += 2 * unitSize * disk.overlay->changedUnits();
    progressBegin(phase);
    const NTSTATUS committed = guardedRefusing(problem, [&]() -> NTSTATUS {
        std::vector<DirtyMark> marks;
        for (size_t i = 0; i < disks.size(); i++) {
            const NTSTATUS status = diskSync(*disks[i].disk);
            if (status < 0) {
                return refuse(problem, status,
                              disks[i].place.directory + ": the changes can't be kept there until they are " +
                                  "committed" + diskWriteReason(*disks[i].disk) + "; nothing was changed");
            }
            for (DirtyMark mark : diskMarks(*disks[i].disk)) {
                mark.disk = i;
                marks.push_back(std::move(mark));
            }
        }
        endingSignalsHold();
        const bool scratch =
            std::all_of(disks.begin(), disks.end(), [](const RunDisk& disk) { return disk.name.scratch; });
        if (scratch) return commitScratch(transactionOver(disks), report, problem);
        return commitTransaction(systemJournalFiles(), transactionOver(disks), marks, undo, report, problem);
    });
    progressEnd();
    return committed;
}

UndoOutcome undoRun(const std::vector<DiskName>& names, const std::string& undoPath, UndoReport& report,
                    Problem& problem) {
    return guardedOr(UndoOutcome::refused, [&] {
        if (installationDisksOnce(names, problem) < 0) return UndoOutcome::refused;
        std::vector<RunDisk> disks(names.size());
        for (size_t i = 0; i < names.size(); i++) {
            if (openBottom(names[i], DiskAccess::readWrite, disks[i], problem) < 0)
                return UndoOutcome::refused;
        }
        endingSignalsHold();
        return undoLatest(systemJournalFiles(), transactionOver(disks), undoPath, report, problem);
    });
}

} /* namespace offline */
