/* The one installation that the process works on: opened from the environment, its hives mounted, its volumes
 * lettered. The platform's remaining calls (restart, environment strings, random UUIDs, sleeping, the
 * console) are answered in this room. No function throws. */
#ifndef QUILLET_OFFLINE_SYSTEM_SYSTEM_H
#define QUILLET_OFFLINE_SYSTEM_SYSTEM_H

#include <string>
#include <vector>

#include "platform/offline/base/problem.h"
#include "platform/offline/system/installation.h"

namespace offline {

/* Reads QUILLET_ACCESS and has the first call that needs the installation open it from QUILLET_SYSTEM. */
void systemStart();

/* Opens an installation for the platform's calls. What has to be refused is refused here, before a byte is
 * written; a trial says whether a run could start. */
NTSTATUS systemOpen(const std::vector<std::string>& paths, DiskAccess access, Problem& problem);

/* Saves the hives, writes everything to the medium, takes dirty marks away and closes. All is tried; the
 * problem is the first failure. Changes that were refused because the disks were opened for reading are a
 * failure as well (STATUS_MEDIA_WRITE_PROTECTED). Nothing to do, and success, when nothing is open. */
NTSTATUS systemClose(Problem& problem);

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

/* The disks of a QUILLET_SYSTEM text, separated by ":". */
std::vector<std::string> systemDisks(std::string_view text);

} /* namespace offline */

#endif
