/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The one installation that the process works on: opened from the environment, its hives mounted, its volumes
 * lettered. The platform's remaining calls (restart, environment strings, random UUIDs, sleeping, the
 * console) are answered in this room. No function throws. */
#ifndef QUILLET_OFFLINE_SYSTEM_SYSTEM_H
#define QUILLET_OFFLINE_SYSTEM_SYSTEM_H

#include <string>
#include <vector>

#include "platform/offline/base/problem.h"
#include "platform/offline/base/progress_line.h"
#include "platform/offline/system/installation.h"

namespace offline {

/* When what was changed is committed. */
enum class CommitRule { always, onSuccess, never };

struct CommitWish {
    CommitRule rule = CommitRule::always;
    UndoChoice undo;
};

/* Has descriptors refuse what QUILLET_ACCESS says, and the token be as at the start; a word that it does not
 * know is refused. */
NTSTATUS systemChooseAccess(Problem& problem);

/* What QUILLET_PROGRESS says of a program that shows no progress without it. The wish is set also where a
 * word that is not known is refused, which the opening of the installation does again. */
NTSTATUS systemChooseProgress(ProgressWish& wish, Problem& problem);

/* Reads QUILLET_ACCESS and has the first call that needs the installation open it from QUILLET_SYSTEM, to be
 * committed as QUILLET_COMMIT and QUILLET_UNDO say. notice is called with a line, at once, when an earlier
 * run that was cut off has been put right. */
void systemStart(void (*notice)(const std::string& line));

/* What a run works on and how, where the environment is not asked. */
struct RunChoice {
    std::vector<DiskName> disks;
    DiskAccess access = DiskAccess::readWrite;
    CommitWish commit;
};

/* The same for a program that knows its disks: of the environment only QUILLET_ACCESS is read. An undo file
 * that can't be made is refused when the installation is opened. */
void systemStartOn(RunChoice choice, void (*notice)(const std::string& line));

/* Opens an installation for the platform's calls. What has to be refused is refused here, before a byte is
 * written; a trial says whether a run could start. */
NTSTATUS systemOpen(const std::vector<DiskName>& names, DiskAccess access, Problem& problem);

/* Saves the hives, and gives the installation away as the run left it: its volumes are open, nothing is
 * committed, and nothing will be. The problem names the hives that could not be written. */
NTSTATUS systemHandOver(Installation& installation, Problem& problem);

/* Saves and commits what was changed, by the rule, and closes. succeeded: whether the run did; that nothing
 * of the disks could be left unread counts as well. Whatever can't be written whole is not committed: the
 * problem is the first failure, and says how the disks are. Changes that were refused because the disks were
 * opened for reading are a failure as well (STATUS_MEDIA_WRITE_PROTECTED). Nothing to do, and success, when
 * nothing is open. */
NTSTATUS systemClose(bool succeeded, Problem& problem);

/* What became of the changes of the installation that was closed last. */
struct CommitOutcome {
    bool withheld = false; /* there were changes, but the run did not succeed */
    CommitReport report;
    std::string takeBack; /* the command that undoes the commit; empty when there is none */
};
const CommitOutcome& systemCommitOutcome();

/* The line for a restart or power-off that was asked for; empty when none was. To be read before the
 * installation is closed, and shown when that went well. */
std::string restartAsked();

/* What could not be read of the installation that was closed last, and was passed over therefore; status 0
 * when all could. */
const Problem& systemUnread();

/* Why the installation could not be opened; status 0 when it could, or when nothing asked for it. */
const Problem& systemProblem();

/* The installation that is open, or null. */
Installation* systemInstallation();

/* The disks of a QUILLET_SYSTEM text, separated by ":"; "\:" is a colon of a name, "\\" a backslash, and a
 * backslash before anything else stands for itself. */
std::vector<std::string> systemDisks(std::string_view text);

/* The text for these disks, none of whose names is empty. */
std::string systemText(const std::vector<std::string>& disks);

} /* namespace offline */

#endif
