/* SPDX-License-Identifier: GPL-2.0-or-later */
/* What lies on some disks, as far as it can be made out. Nothing is ever written. */
#ifndef QUILLET_COMPANION_SURVEY_H
#define QUILLET_COMPANION_SURVEY_H

#include <cstdint>
#include <string>
#include <vector>

#include "companion/opened.h"
#include "platform/offline/device/image_chain.h"

namespace companion {

struct DiskSeen {
    std::string path;
    offline::ImageChain chain; /* its format, and the files that it builds on */
    uint64_t size = 0;         /* bytes, as the machine sees it */
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
Sight survey(const std::vector<offline::DiskName>& disks);

/* Whether quillet could start on these disks now: opens them as a run does, and refuses what a run would, but
 * for reading only. Empty, or the line that says why not. */
std::string whyRefused(const std::vector<offline::DiskName>& disks);

const char* tableName(offline::PartitionTable table);
const char* stateName(HiveState state);

} /* namespace companion */

#endif
