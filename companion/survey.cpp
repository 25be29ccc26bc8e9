/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "companion/survey.h"

#include <algorithm>

#include "platform/offline/base/unicode.h"
#include "platform/offline/system/system.h"

namespace companion {
namespace {

/* The table that the disk's volumes are in. */
offline::PartitionTable tableOf(const offline::Disk& disk, const Opened& opened) {
    for (const FoundVolume& found : opened.found) {
        if (found.disk == &disk) return found.partition.table;
    }
    return offline::PartitionTable::none;
}

DiskSeen seen(const offline::Disk& disk, offline::DiskFormat said, const Opened& opened, Problems& problems) {
    offline::ImageChain chain;
    offline::Problem problem;
    if (offline::imageChainOf({offline::diskPath(disk), said}, chain, problem) < 0)
        problems.push_back(problem.text);
    return {offline::diskPath(disk), std::move(chain), offline::diskSize(disk), tableOf(disk, opened),
            offline::diskWritable(disk)};
}

VolumeSeen seen(const FoundVolume& found, const Opened& opened) {
    const char letter = found.index ? opened.installation.volumes[*found.index].letter : '\0';
    return {offline::diskPath(*found.disk), found.partition.start, found.partition.size, letter,
            found.index.has_value()};
}

} /* namespace */

Sight survey(const std::vector<offline::DiskName>& disks) {
    Sight sight;
    Opened opened;
    openDisks(disks, opened, sight.problems);
    readInstallation(opened, sight.problems);
    for (const offline::DiskPtr& disk : opened.installation.disks) {
        const auto named = std::find_if(disks.begin(), disks.end(), [&](const offline::DiskName& one) {
            return one.name == offline::diskPath(*disk);
        });
        sight.disks.push_back(seen(*disk, named->format, opened, sight.problems));
    }
    for (const FoundVolume& found : opened.found) sight.volumes.push_back(seen(found, opened));
    for (const OpenedHive& hive : opened.hives) sight.hives.push_back(hive.seen);
    if (opened.letter != 0) {
        sight.windows =
            std::string{opened.letter, ':', '\\'} + offline::toUtf8(opened.installation.directory);
    }
    sight.product = opened.product;
    sight.machineSid = opened.machineSid;
    sight.controlSet = opened.controlSet;
    visitUserHives(opened, sight.problems, [&](const OpenedHive& hive) { sight.hives.push_back(hive.seen); });
    noteUnread(opened, sight.problems);
    return sight;
}

std::string whyRefused(const std::vector<offline::DiskName>& disks) {
    offline::Problem problem, unsaid;
    const NTSTATUS status = offline::systemOpen(disks, offline::DiskAccess::trial, problem);
    offline::systemClose(false, unsaid); /* nothing was written */
    return status < 0 ? problem.text : "";
}

const char* tableName(offline::PartitionTable table) {
    switch (table) {
        case offline::PartitionTable::mbr:
            return "MBR";
        case offline::PartitionTable::gpt:
            return "GPT";
        case offline::PartitionTable::none:
            break;
    }
    return "none";
}

const char* stateName(HiveState state) {
    switch (state) {
        case HiveState::clean:
            return "clean";
        case HiveState::logged:
            return "logged";
        case HiveState::dirty:
            return "dirty";
        case HiveState::damaged:
            return "damaged";
        case HiveState::unreadable:
            return "unreadable";
        case HiveState::missing:
            break;
    }
    return "missing";
}

} /* namespace companion */
