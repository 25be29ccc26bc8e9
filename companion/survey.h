/* What lies on some disks, as far as it can be made out. Nothing is ever written. */
#ifndef QUILLET_COMPANION_SURVEY_H
#define QUILLET_COMPANION_SURVEY_H

#include <cstdint>
#include <string>
#include <vector>

#include "companion/opened.h"

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

struct Sight {
    std::vector<DiskSeen> disks;
    std::vector<VolumeSeen> volumes;
    std::string windows; /* "C:\Windows"; empty when there is none */
    std::string product;
    std::string machineSid;
    uint32_t controlSet = 0; /* 0: the installation does not say */
    std::vector<HiveSeen> hives;
    Problems problems;
};

/* Throws Failure when a disk is named twice. */
Sight survey(const std::vector<std::string>& images);

/* Whether quillet could start on these disks now: opens them as a run does, and refuses what a run would, but
 * for reading only. Empty, or the line that says why not. */
std::string whyRefused(const std::vector<std::string>& images);

const char* tableName(offline::PartitionTable table);
const char* stateName(HiveState state);

} /* namespace companion */

#endif
