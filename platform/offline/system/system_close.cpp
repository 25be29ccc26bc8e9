/* SPDX-License-Identifier: GPL-2.0-or-later */
#include <algorithm>

#include "platform/offline/base/guarded.h"
#include "platform/offline/base/system_needed.h"
#include "platform/offline/files/drives.h"
#include "platform/offline/registry/registry.h"
#include "platform/offline/system/environment.h"
#include "platform/offline/system/machine_hives.h"
#include "platform/offline/system/system.h"
#include "platform/offline/system/system_state.h"

namespace offline {
namespace {

/* A disk that can only be read, of which a change was asked for. */
NTSTATUS refuseChanges(const Installation& installation, Problem& problem) {
    for (const InstallationVolume& entry : installation.volumes) {
        if (!volumeRefusedChange(*entry.volume)) continue;
        return guardedRefusing(problem, [&] {
            return refuse(
                problem, STATUS_MEDIA_WRITE_PROTECTED,
                diskPath(*entry.disk) +
                    " can only be read, so changes to it were refused; make it writable and run again");
        });
    }
    return STATUS_SUCCESS;
}

const char* adviceOn(NTSTATUS status) {
    if (status == STATUS_NO_MEMORY) return "close other programs and run again";
    return status == STATUS_IO_DEVICE_ERROR ? "find a sound medium and run again"
                                            : "repair the volume (chkdsk /f) and run again";
}

/* What could not be read, or held in memory, is work that is left, however whole the rest was written. */
void noteUnread() {
    Problem& unread = systemState().unreadProblem;
    unread = {};
    NTSTATUS status = installationReadWhole(*systemState().installation, unread);
    if (status >= 0 && session().memoryRanOut)
        status = guarded([&] { return refuse(unread, STATUS_NO_MEMORY, "memory ran out"); });
    if (status >= 0) return;
    unread.status = status;
    static_cast<void>(guarded([&] {
        unread.text += "; so not everything was done: ";
        if (systemState().commitWish.rule == CommitRule::always) {
            unread.text += "go back to a copy from before this run, ";
        }
        unread.text += adviceOn(status);
        return status;
    }));
}

/* Everything that the run changed is in the overlays when it succeeds. */
NTSTATUS finishChanges(Installation& installation, Problem& problem) {
    NTSTATUS first = machineHivesSave(problem);
    if (first >= 0) first = refuseChanges(installation, problem);
    forgetInstallation();
    Problem closing;
    const NTSTATUS status = installationClose(installation, closing);
    if (first >= 0 && status < 0) problem = std::move(closing);
    return first < 0 ? first : status;
}

bool changesInHand(const Installation& installation) {
    return std::any_of(installation.bottoms.begin(), installation.bottoms.end(), [](const RunDisk& disk) {
        return disk.overlay != nullptr && disk.overlay->changedUnits() != 0;
    });
}

/* A word of a command line. */
std::string quoted(const std::string& text) {
    const char plain[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789/._-+,:@%=";
    if (text.find_first_not_of(plain) == std::string::npos) return text;
    std::string word = "'";
    for (const char character : text) {
        if (character == '\'') word += "'\\'";
        word += character;
        if (character == '\'') word += "'";
    }
    return word + "'";
}

std::string takeBackCommand(const Installation& installation, const UndoChoice& undo,
                            const CommitReport& report) {
    if (report.undoPath.empty()) return {};
    std::vector<DiskName> disks;
    for (const RunDisk& disk : installation.bottoms) disks.push_back(disk.name);
    std::string command = "quillet-offline undo";
    if (const std::string formats = formatsOf(disks); !formats.empty()) command += " --format " + formats;
    if (!undo.path.empty()) command += " --undo " + quoted(report.undoPath);
    for (const DiskName& disk : disks) {
        command += " " + quoted(disk.name.starts_with('-') ? "./" + disk.name : disk.name);
    }
    return command;
}

NTSTATUS commitChanges(Installation& installation, bool succeeded, Problem& problem) {
    const CommitWish& wish = systemState().commitWish;
    CommitOutcome& outcome = systemState().commitOutcome;
    const bool wanted = wish.rule == CommitRule::always || (wish.rule == CommitRule::onSuccess && succeeded);
    if (!wanted) {
        outcome.withheld = changesInHand(installation);
        return STATUS_SUCCESS;
    }
    const NTSTATUS status = runDisksCommit(installation.bottoms, wish.undo, outcome.report, problem);
    if (outcome.report.committed) {
        outcome.takeBack = guardedOr(
            std::string(), [&] { return takeBackCommand(installation, wish.undo, outcome.report); });
    }
    return status;
}

} /* namespace */

void forgetInstallation() {
    registryReset();
    drivesReset();
    environmentReset();
}

NTSTATUS systemHandOver(Installation& installation, Problem& problem) {
    const NTSTATUS status = machineHivesSave(problem);
    forgetInstallation();
    installation = std::move(*systemState().installation);
    systemState().installation.reset();
    systemState().restartAsked = Restart::none;
    systemForget();
    return status;
}

NTSTATUS systemClose(bool succeeded, Problem& problem) {
    if (!systemState().installation) return STATUS_SUCCESS;
    Installation& installation = *systemState().installation;
    systemState().commitOutcome = {};
    NTSTATUS status = finishChanges(installation, problem);
    noteUnread();
    succeeded = succeeded && systemState().unreadProblem.status >= 0;
    if (status >= 0) status = commitChanges(installation, succeeded, problem);
    systemState().installation.reset();
    systemState().restartAsked = Restart::none;
    systemForget();
    return status;
}

const CommitOutcome& systemCommitOutcome() {
    return systemState().commitOutcome;
}

const Problem& systemUnread() {
    return systemState().unreadProblem;
}

} /* namespace offline */
