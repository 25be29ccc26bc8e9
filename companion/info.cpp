/* SPDX-License-Identifier: GPL-2.0-or-later */
/* info: what lies on some disks. */
#include <algorithm>
#include <cstdio>

#include "companion/commands.h"
#include "companion/ending.h"
#include "companion/formatting.h"
#include "companion/results/results.h"
#include "platform/offline/base/unicode.h"

namespace companion {
namespace {

/* ---- For a person ---- */

void printRow(const char* kind, const std::string& text) {
    printf("%-12s%s\n", kind, offline::printable(text).c_str());
}

std::string describe(const DiskSeen& disk) {
    std::string text = disk.path + ", " + sizeText(disk.size);
    const std::vector<offline::ImageFile>& files = disk.chain.files;
    for (size_t i = 0; i < files.size(); i++) {
        text += i == 0 ? ", " : " over " + files[i].path + ", ";
        text += offline::formatName(files[i].format);
    }
    text += disk.table == offline::PartitionTable::none ? ", no partition table"
                                                        : std::string(", ") + tableName(disk.table);
    return text + (disk.writable ? "" : ", read-only");
}

std::string describe(const VolumeSeen& volume) {
    std::string text = volume.letter != 0 ? std::string{volume.letter, ':'} : "no letter";
    text += ", " + sizeText(volume.size) + " at " + sizeText(volume.start) + " of " + volume.disk;
    return text + (volume.opened ? "" : ", can't be used");
}

std::string describe(const HiveSeen& hive) {
    std::string text = std::string(stateName(hive.state)) + ", " + hive.path;
    if (hive.state != HiveState::missing) text += ", " + sizeText(hive.size);
    if (hive.version != 0) text += ", version 1." + std::to_string(hive.version);
    if (!hive.user.empty()) text += ", of " + hive.user;
    return text;
}

void printInstallation(const Sight& sight) {
    const std::string unknown = "unknown";
    printRow("windows", sight.windows);
    printRow("product", sight.product.empty() ? unknown : sight.product);
    printRow("machine SID", sight.machineSid.empty() ? unknown : sight.machineSid);
    printRow("control set", sight.controlSet == 0 ? unknown : std::to_string(sight.controlSet));
    for (const HiveSeen& hive : sight.hives) printRow("hive", describe(hive));
}

void print(const Sight& sight, bool usable) {
    for (const DiskSeen& disk : sight.disks) printRow("disk", describe(disk));
    for (const VolumeSeen& volume : sight.volumes) printRow("volume", describe(volume));
    if (!sight.windows.empty()) printInstallation(sight);
    printRow("usable", usable ? "yes" : "no");
}

} /* namespace */

int info(const InfoOptions& options, Results& results) {
    results.json = options.json;
    results.images = options.images;
    const std::vector<offline::DiskName> disks = namedDisks(options.images, options.format);
    results.sight = survey(disks);
    Sight& sight = *results.sight;
    const std::string why = whyRefused(disks);
    const bool known = std::find(sight.problems.begin(), sight.problems.end(), why) != sight.problems.end();
    if (!why.empty() && !known) sight.problems.push_back(why);
    results.usable = why.empty() && !sight.machineSid.empty(); /* that has been reported, too */
    results.unseen = sight.problems;
    results.finished = true;
    if (!options.json) print(sight, results.usable);
    fflush(stdout);
    sayAll(results.unseen);
    return results.usable ? exitDone : exitFailed;
}

} /* namespace companion */
