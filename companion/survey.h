/* What lies on some disks, as far as it can be made out. Nothing is ever written. */
#ifndef QUILLET_COMPANION_SURVEY_H
#define QUILLET_COMPANION_SURVEY_H

#include <cstdint>
#include <string>
#include <vector>

#include "platform/offline/system/installation.h"

namespace companion {

struct DiskSeen {
    std::string path;
    uint64_t size = 0; /* bytes */
    offline::PartitionTable table = offline::PartitionTable::none;
    bool writable = false;
};

struct VolumeSeen {
    std::string disk;
    uint64_t start = 0, size = 0; /* bytes */
    char letter = 0;              /* 0: none is known */
    bool opened = false;
};

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

struct Sight {
    std::vector<DiskSeen> disks;
    std::vector<VolumeSeen> volumes;
    std::string windows; /* "C:\Windows"; empty when there is none */
    std::string product;
    std::string machineSid;
    uint32_t controlSet = 0; /* 0: the installation does not say */
    std::vector<HiveSeen> hives;
    std::vector<std::string>
        problems; /* a line for each thing that could not be seen; a run may do without */
};

/* Throws Failure when a disk is named twice. */
Sight look(const std::vector<std::string>& images);

/* Adds a line when something of the disks could not be read, whatever came of it. */
void noteUnread(const offline::Installation& installation, std::vector<std::string>& problems);

/* Whether quillet could start on these disks now: opens them as a run does, and refuses what a run would, but
 * for reading only. Empty, or the line that says why not. */
std::string whyRefused(const std::vector<std::string>& images);

const char* tableName(offline::PartitionTable table);
const char* stateName(HiveState state);

} /* namespace companion */

#endif
