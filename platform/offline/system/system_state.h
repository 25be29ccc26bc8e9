/* SPDX-License-Identifier: GPL-2.0-or-later */
/* What the system room knows between calls, as a part of the session. Private to this room. */
#ifndef QUILLET_OFFLINE_SYSTEM_SYSTEM_STATE_H
#define QUILLET_OFFLINE_SYSTEM_SYSTEM_STATE_H

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/offline/base/problem.h"
#include "platform/offline/base/session.h"
#include "platform/offline/system/installation.h"
#include "platform/offline/system/system.h"

namespace offline {

/* A file whose hive is open: a second hive on the same file would overwrite the first one's changes. */
struct OpenHiveFile {
    const Volume* volume;
    FileRef file;
    bool operator==(const OpenHiveFile&) const = default;
};

struct Environment {
    std::map<std::u16string, std::u16string, std::less<>> strings; /* by upcased names */
    size_t characters = 0;                                         /* of all of them */
};

enum class Restart { none, reboot, powerOff };

struct SystemState {
    Environment environment;
    std::vector<OpenHiveFile> openHiveFiles;
    Problem openingProblem;
    Problem unreadProblem;
    Restart restartAsked = Restart::none;
    void (*notice)(const std::string& line) = nullptr;
    std::optional<RunChoice> choice; /* none: the environment says */
    CommitWish commitWish;
    CommitOutcome commitOutcome;
    std::optional<Installation> installation;
};

inline SystemState& systemState() {
    return roomState<SystemState>(StatefulRoom::system);
}

/* The registry, the drives and the strings are of the installation that goes. */
void forgetInstallation();

} /* namespace offline */

#endif
