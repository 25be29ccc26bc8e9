#include "platform/offline/system/system.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <new>
#include <optional>
#include <utility>

#include "platform/offline/base/guarded.h"
#include "platform/offline/base/system_needed.h"
#include "platform/offline/files/drives.h"
#include "platform/offline/registry/registry.h"
#include "platform/offline/security/security.h"
#include "platform/offline/system/environment.h"
#include "platform/offline/system/letters.h"
#include "platform/offline/system/machine_hives.h"
#include "platform/offline/system/system_state.h"

namespace offline {
namespace {

const char accessVariable[] = "QUILLET_ACCESS";
const char systemVariable[] = "QUILLET_SYSTEM";
const char commitVariable[] = "QUILLET_COMMIT";
const char undoVariable[] = "QUILLET_UNDO";

/* Told before the work, not after it; that the place is still good then is the commit's to see. */
NTSTATUS refuseUndoPlace(const std::filesystem::path& path, Problem& problem) {
    std::error_code unknown;
    std::string fault;
    if (std::filesystem::exists(std::filesystem::symlink_status(path, unknown))) {
        fault = "there is such a file already";
    } else if (!std::filesystem::is_directory(path.parent_path(), unknown)) {
        fault = "there is no such directory";
    }
    if (fault.empty()) return STATUS_SUCCESS;
    return refuse(
        problem, STATUS_OBJECT_NAME_INVALID,
        path.string() + ": the undo file can't be made there (" + fault + "); name another place for it");
}

NTSTATUS accessWish(AccessMode& mode, Problem& problem) {
    const char* const text = getenv(accessVariable);
    const std::string_view access = text == nullptr ? "" : text;
    mode = access == "checked" ? AccessMode::checked : AccessMode::unrefused;
    if (access.empty() || access == "checked" || access == "unrefused") return STATUS_SUCCESS;
    return refuse(
        problem, STATUS_INVALID_PARAMETER,
        "QUILLET_ACCESS is \"" + std::string(access) + "\"; set it to unrefused or checked, or unset it");
}

NTSTATUS readCommitWish(CommitWish& wish, Problem& problem) {
    const char* const rule = getenv(commitVariable);
    const char* const undo = getenv(undoVariable);
    if (rule != nullptr && strcmp(rule, "success") == 0) {
        wish.rule = CommitRule::onSuccess;
    } else if (rule != nullptr && *rule != 0 && strcmp(rule, "always") != 0) {
        return refuse(
            problem, STATUS_INVALID_PARAMETER,
            std::string("QUILLET_COMMIT is \"") + rule + "\"; set it to always or success, or unset it");
    }
    wish.undo.keep = undo != nullptr && *undo != 0;
    if (!wish.undo.keep || strcmp(undo, "auto") == 0) return STATUS_SUCCESS;
    std::error_code noDirectory;
    wish.undo.path = std::filesystem::absolute(undo, noDirectory);
    if (!noDirectory) return refuseUndoPlace(wish.undo.path, problem);
    return refuse(problem, STATUS_OBJECT_PATH_NOT_FOUND,
                  std::string(undo) + ": the undo file has no place (" + noDirectory.message() +
                      "); name it by its whole path");
}

NTSTATUS openByVariables(Problem& problem) {
    AccessMode chosen; /* by systemStart, before the token was used */
    const NTSTATUS known = accessWish(chosen, problem);
    if (known < 0) return known;
    const NTSTATUS wish = readCommitWish(systemState().commitWish, problem);
    if (wish < 0) return wish;
    const char* text = getenv(systemVariable);
    const std::vector<std::string> disks = systemDisks(text == nullptr ? "" : text);
    if (disks.empty()) {
        const bool set = text != nullptr && *text != 0;
        return refuse(
            problem, STATUS_OBJECT_NAME_NOT_FOUND,
            std::string("QUILLET_SYSTEM ") + (set ? "names no disk" : "is not set") +
                "; set it to the disk that Windows is installed on (an image file or a block device)");
    }
    return systemOpen(disks, DiskAccess::readWrite, problem);
}

NTSTATUS openFromEnvironment() {
    Problem& problem = systemState().openingProblem;
    problem = {};
    return guardedRefusing(problem, [&] { return openByVariables(problem); });
}

NTSTATUS openParts(const std::vector<std::string>& paths, DiskAccess access, Problem& problem) {
    std::vector<std::string> notices;
    NTSTATUS status = installationOpenDisks(paths, access, *systemState().installation, notices, problem);
    if (systemState().notice != nullptr) std::for_each(notices.begin(), notices.end(), systemState().notice);
    if (status >= 0) status = installationFindWindows(*systemState().installation, problem);
    if (status >= 0) status = machineHivesMount(*systemState().installation, problem);
    if (status < 0) return status;
    for (const InstallationVolume& entry : systemState().installation->volumes)
        driveSet(entry.letter, *entry.volume);
    return STATUS_SUCCESS;
}

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

/* What could not be read is work that is left, however whole the rest was written. */
void noteUnread() {
    Problem& unread = systemState().unreadProblem;
    unread = {};
    const NTSTATUS status = installationReadWhole(*systemState().installation, unread);
    if (status >= 0) return;
    unread.status = status;
    static_cast<void>(guarded([&] {
        unread.text += "; so not everything was done: ";
        if (systemState().commitWish.rule == CommitRule::always) {
            unread.text += "go back to a copy from before this run, ";
        }
        unread.text += status == STATUS_IO_DEVICE_ERROR ? "find a sound medium and run again"
                                                        : "repair the volume (chkdsk /f) and run again";
        return status;
    }));
}

/* The registry, the drives and the strings are of the installation that goes. */
void forgetInstallation() {
    registryReset();
    drivesReset();
    environmentReset();
}

/* Lets go of what was opened so far. Nothing was changed, so that closing has nothing to add. */
void abandonOpening() {
    static_cast<void>(guarded([] {
        forgetInstallation();
        Problem closing;
        if (systemState().installation) installationClose(*systemState().installation, closing);
        systemState().installation.reset();
        return STATUS_SUCCESS;
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
    std::string command = "quillet-offline undo";
    if (!undo.path.empty()) command += " --undo " + quoted(report.undoPath);
    for (const RunDisk& disk : installation.bottoms) command += " " + quoted(disk.bottom->name());
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

NTSTATUS systemChooseAccess(Problem& problem) {
    return guardedRefusing(problem, [&] {
        AccessMode mode;
        const NTSTATUS status = accessWish(mode, problem);
        setAccessMode(mode);
        return status;
    });
}

void systemStart(void (*notice)(const std::string& line)) {
    systemState().notice = notice;
    Problem later; /* told by the first call that needs the installation */
    static_cast<void>(systemChooseAccess(later));
    setSystemOpener(openFromEnvironment);
}

std::vector<std::string> systemDisks(std::string_view text) {
    std::vector<std::string> disks;
    while (!text.empty()) {
        const size_t end = std::min(text.find(':'), text.size());
        if (end > 0) disks.emplace_back(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return disks;
}

NTSTATUS systemOpen(const std::vector<std::string>& paths, DiskAccess access, Problem& problem) {
    const NTSTATUS status = guardedRefusing(problem, [&] {
        systemState().installation.emplace();
        return openParts(paths, access, problem);
    });
    if (status < 0) abandonOpening();
    return status;
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

const Problem& systemProblem() {
    return systemState().openingProblem;
}

const Problem& systemUnread() {
    return systemState().unreadProblem;
}

Installation* systemInstallation() {
    return systemState().installation ? &*systemState().installation : nullptr;
}

} /* namespace offline */
