#include "platform/offline/system/system.h"

#include <cstdlib>
#include <cstring>
#include <new>
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

bool accessIsKnown(const char* access) {
    return access == nullptr || *access == 0 || strcmp(access, "checked") == 0 ||
           strcmp(access, "unrefused") == 0;
}

NTSTATUS openByVariables(Problem& problem) {
    const char* access = getenv(accessVariable);
    if (!accessIsKnown(access)) {
        return refuse(
            problem, STATUS_INVALID_PARAMETER,
            std::string("QUILLET_ACCESS is \"") + access + "\"; set it to unrefused or checked, or unset it");
    }
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
    NTSTATUS status = installationOpenDisks(paths, access, *systemState().installation, problem);
    if (status >= 0) status = installationFindWindows(*systemState().installation, problem);
    if (status >= 0) status = machineHivesMount(*systemState().installation, problem);
    if (status < 0) return status;
    for (const InstallationVolume& entry : systemState().installation->volumes)
        driveSet(entry.letter, *entry.volume);
    return STATUS_SUCCESS;
}

/* Lets go of what was opened so far. Nothing was changed, so that closing has nothing to add. */
void abandonOpening() {
    static_cast<void>(guarded([] {
        registryReset();
        drivesReset();
        environmentReset();
        Problem closing;
        if (systemState().installation) installationClose(*systemState().installation, closing);
        systemState().installation.reset();
        return STATUS_SUCCESS;
    }));
}

/* Refuses where a change was asked for of a disk that can only be read. */
NTSTATUS refuseRefusedChange(Problem& problem) {
    for (const InstallationVolume& entry : systemState().installation->volumes) {
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

/* Whatever was begun was written whole, so this is no matter of the dirty mark: it is work that is left. */
void noteUnread() {
    Problem& unread = systemState().unreadProblem;
    unread = {};
    const NTSTATUS status = installationReadWhole(*systemState().installation, unread);
    if (status >= 0) return;
    unread.status = status;
    static_cast<void>(guarded([&] {
        unread.text += "; so not everything was done: go back to a copy from before this run, ";
        unread.text += status == STATUS_IO_DEVICE_ERROR ? "on a sound medium, and run again"
                                                        : "repair the volume (chkdsk /f) and run again";
        return status;
    }));
}

} /* namespace */

void systemStart() {
    const char* access = getenv(accessVariable);
    const bool checked = access != nullptr && strcmp(access, "checked") == 0;
    setAccessMode(checked ? AccessMode::checked : AccessMode::unrefused);
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

NTSTATUS systemClose(Problem& problem) {
    if (!systemState().installation) return STATUS_SUCCESS;
    NTSTATUS first = machineHivesSave(*systemState().installation, problem);
    if (first >= 0) first = refuseRefusedChange(problem);
    registryReset();
    drivesReset();
    environmentReset();
    Problem closing;
    const NTSTATUS status = installationClose(*systemState().installation, closing);
    if (status < 0 && first >= 0) {
        problem = std::move(closing);
        first = status;
    }
    noteUnread();
    systemState().installation.reset();
    systemState().restartAsked = Restart::none;
    systemForget();
    return first;
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
