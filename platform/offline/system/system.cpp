/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/system/system.h"

#include <algorithm>

#include "platform/offline/base/guarded.h"
#include "platform/offline/base/progress.h"
#include "platform/offline/base/system_needed.h"
#include "platform/offline/files/drives.h"
#include "platform/offline/security/security.h"
#include "platform/offline/system/choices.h"
#include "platform/offline/system/machine_hives.h"
#include "platform/offline/system/system_state.h"

namespace offline {
namespace {

NTSTATUS openByVariables(Problem& problem) {
    AccessMode chosen; /* by systemStart, before the token was used */
    ProgressWish shown;
    std::vector<DiskName> disks;
    NTSTATUS status = accessWish(chosen, problem);
    if (status >= 0) status = progressWish(shown, problem);
    if (status >= 0) status = commitWish(systemState().commitWish, problem);
    if (status >= 0) status = disksWish(disks, problem);
    return status < 0 ? status : systemOpen(disks, DiskAccess::readWrite, problem);
}

NTSTATUS openByChoice(Problem& problem) {
    const RunChoice& choice = *systemState().choice;
    AccessMode chosen; /* by systemStartOn, before the token was used */
    NTSTATUS status = accessWish(chosen, problem);
    if (status >= 0) status = refuseUndoPlace(choice.commit.undo, problem);
    systemState().commitWish = choice.commit;
    return status < 0 ? status : systemOpen(choice.disks, choice.access, problem);
}

NTSTATUS openAsAsked() {
    Problem& problem = systemState().openingProblem;
    problem = {};
    return guardedRefusing(
        problem, [&] { return systemState().choice ? openByChoice(problem) : openByVariables(problem); });
}

NTSTATUS openParts(const std::vector<DiskName>& names, DiskAccess access, Problem& problem) {
    std::vector<std::string> notices;
    progressBegin({"Opening and checking"});
    NTSTATUS status = installationOpenDisks(names, access, *systemState().installation, notices, problem);
    if (systemState().notice != nullptr) std::for_each(notices.begin(), notices.end(), systemState().notice);
    if (status >= 0) status = installationFindWindows(*systemState().installation, problem);
    if (status >= 0) status = machineHivesMount(*systemState().installation, problem);
    if (status < 0) return status;
    for (const InstallationVolume& entry : systemState().installation->volumes)
        driveSet(entry.letter, *entry.volume);
    progressBegin({"Registry, selected keys"});
    return STATUS_SUCCESS;
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

} /* namespace */

NTSTATUS systemChooseAccess(Problem& problem) {
    return guardedRefusing(problem, [&] {
        AccessMode mode;
        const NTSTATUS status = accessWish(mode, problem);
        setAccessMode(mode);
        return status;
    });
}

NTSTATUS systemChooseProgress(ProgressWish& wish, Problem& problem) {
    return guardedRefusing(problem, [&] { return progressWish(wish, problem); });
}

void systemStart(void (*notice)(const std::string& line)) {
    systemState().notice = notice;
    Problem later; /* told by the first call that needs the installation */
    static_cast<void>(systemChooseAccess(later));
    setSystemOpener(openAsAsked);
}

void systemStartOn(RunChoice choice, void (*notice)(const std::string& line)) {
    systemState().choice = std::move(choice);
    systemStart(notice);
}

NTSTATUS systemOpen(const std::vector<DiskName>& names, DiskAccess access, Problem& problem) {
    const NTSTATUS status = guardedRefusing(problem, [&] {
        systemState().installation.emplace();
        return openParts(names, access, problem);
    });
    if (status < 0) abandonOpening();
    return status;
}

const Problem& systemProblem() {
    return systemState().openingProblem;
}

Installation* systemInstallation() {
    return systemState().installation ? &*systemState().installation : nullptr;
}

} /* namespace offline */
