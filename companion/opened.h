/* SPDX-License-Identifier: GPL-2.0-or-later */
/* An installation that is open to be looked at: the one way in which the commands open disks, volumes and
 * hives for reading. What can't be opened is told and gone without; nothing is ever written. */
#ifndef QUILLET_COMPANION_OPENED_H
#define QUILLET_COMPANION_OPENED_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/offline/hive/hive.h"
#include "platform/offline/system/installation.h"

namespace companion {

/* A line for each thing that could not be seen; a run may do without. */
using Problems = std::vector<std::string>;

/* ---- Hives ---- */

/* logged: its last changes are in its log files, and are read from there. unreadable: the disk refuses it, or
 * it can't be held. */
enum class HiveState { clean, logged, dirty, damaged, unreadable, missing };

struct HiveSeen {
    std::string path; /* "C:\Windows\System32\config\SAM" */
    HiveState state = HiveState::missing;
    uint64_t size = 0;     /* bytes of the file */
    uint32_t version = 0;  /* of 1.version; 0 when it could not be read */
    std::string user = {}; /* the SID of the profile that it belongs to; empty for the machine's */
};

struct OpenedHive {
    HiveSeen seen;
    offline::HivePtr hive = {}; /* null: it can't be read, as its state says */
    std::pair<const offline::Volume*, offline::FileRef> file = {}; /* two profiles can name one */
};

/* Where a user's hive should be; the SID is empty where there is no list of profiles. */
struct Profile {
    std::string user;
    std::u16string hivePath; /* "C:\Users\alice\NTUSER.DAT" */
};

/* ---- The installation ---- */

struct FoundVolume {
    const offline::Disk* disk = nullptr;
    offline::Partition partition;
    std::optional<size_t> index = {}; /* among the installation's; none: it can't be used */
};

/* Whoever has run a system can put its installation here, once its hives are unmounted. The drive letters and
 * environment strings are the session's: there is one at a time, and it gives them back at its end. */
struct Opened {
    offline::Installation installation;
    std::vector<FoundVolume> found; /* by openDisks */

    /* by readInstallation */
    char letter = 0; /* of the volume that Windows is on; 0: there is no Windows */
    std::vector<OpenedHive> hives;
    std::vector<Profile> profiles;
    uint32_t controlSet = 0;         /* 0: the installation does not say */
    std::string machineSid, product; /* empty: as before */

    Opened() = default;
    ~Opened();
    Opened(const Opened&) = delete;
    Opened& operator=(const Opened&) = delete;
};

/* The disks of these names, in the formats of --format. Throws Failure for what is no format. */
std::vector<offline::DiskName> namedDisks(const std::vector<std::string>& images, const std::string& formats);

/* Opens what can be opened of the disks and of the volumes on them. Throws Failure when one is named twice.
 */
void openDisks(const std::vector<offline::DiskName>& disks, Opened& opened, Problems& problems);

/* Finds Windows on the volumes that are open, reads the machine's hives, and gives the volumes their letters.
 */
void readInstallation(Opened& opened, Problems& problems);

/* Reads the users' hives, each open only while it is visited. A missing one is no problem: profiles come and
 * go. */
void visitUserHives(const Opened& opened, Problems& problems,
                    const std::function<void(const OpenedHive&)>& visit);

/* Adds a line when something of the disks could not be read so far, whatever came of it. */
void noteUnread(const Opened& opened, Problems& problems);

} /* namespace companion */

#endif
