#include "companion/survey.h"

#include <algorithm>

#include "companion/failure.h"
#include "companion/formatting.h"
#include "companion/machine.h"
#include "platform/offline/base/unicode.h"
#include "platform/offline/files/drives.h"
#include "platform/offline/hive/hive_paths.h"
#include "platform/offline/system/control_set.h"
#include "platform/offline/system/environment.h"
#include "platform/offline/system/hive_files.h"
#include "platform/offline/system/installation.h"
#include "platform/offline/system/letters.h"
#include "platform/offline/system/machine_hives.h"
#include "platform/offline/system/system.h"

namespace companion {
namespace {

using offline::HivePtr;
using offline::Installation;
using offline::Problem;

/* What is being looked at; the drive letters and environment strings are the process's, so they are given
 * back. */
struct Looking {
    Sight& sight;
    Installation installation = {};
    HivePtr system = {}, software = {};

    explicit Looking(Sight& into) : sight(into) {}
    ~Looking() {
        offline::drivesReset();
        offline::environmentReset();
        Problem unsaid; /* nothing was written, so closing has nothing to add */
        offline::installationClose(installation, unsaid);
    }
    Looking(const Looking&) = delete;
    Looking& operator=(const Looking&) = delete;

    bool good(NTSTATUS status, const Problem& problem) const {
        if (status < 0) sight.problems.push_back(problem.text);
        return status >= 0;
    }
};

/* ---- Disks and volumes ---- */

void openVolume(Looking& looking, offline::Disk& disk, const offline::Partition& partition) {
    Problem problem;
    offline::InstallationVolume entry;
    entry.disk = &disk;
    entry.partition = partition;
    VolumeSeen seen{offline::diskPath(disk), partition.start, partition.size};
    seen.opened = looking.good(offline::volumeOpen(disk, partition, entry.volume, problem), problem);
    looking.sight.volumes.push_back(std::move(seen));
    if (entry.volume) looking.installation.volumes.push_back(std::move(entry));
}

void openDisk(Looking& looking, const std::string& path) {
    Problem problem;
    offline::DiskPtr opened;
    if (!looking.good(offline::diskOpen(path, offline::DiskAccess::readOnly, opened, problem), problem))
        return;
    looking.installation.disks.push_back(std::move(opened));
    offline::Disk& disk = *looking.installation.disks.back();
    std::vector<offline::Partition> partitions;
    looking.good(offline::diskPartitions(disk, partitions, problem), problem);
    const offline::PartitionTable table =
        partitions.empty() ? offline::PartitionTable::none : partitions.front().table;
    looking.sight.disks.push_back({path, offline::diskSize(disk), table, offline::diskWritable(disk)});
    for (const offline::Partition& partition : partitions) openVolume(looking, disk, partition);
}

void noteLetters(Looking& looking) {
    for (const offline::InstallationVolume& entry : looking.installation.volumes) {
        offline::driveSet(entry.letter, *entry.volume);
        for (VolumeSeen& seen : looking.sight.volumes) {
            const bool same =
                seen.disk == offline::diskPath(*entry.disk) && seen.start == entry.partition.start;
            if (same) seen.letter = entry.letter;
        }
    }
}

/* ---- Hives ---- */

HiveState stateOf(NTSTATUS status, const HivePtr& hive) {
    if (status >= 0) return offline::hiveRecovered(*hive) ? HiveState::logged : HiveState::clean;
    if (status == STATUS_REGISTRY_IO_FAILED) return HiveState::dirty;
    if (status == STATUS_IO_DEVICE_ERROR || status == STATUS_NO_MEMORY) return HiveState::unreadable;
    const bool missing = status == STATUS_OBJECT_NAME_NOT_FOUND || status == STATUS_OBJECT_PATH_NOT_FOUND;
    return missing ? HiveState::missing : HiveState::damaged;
}

/* A hive of the machine. Its path gets the drive's letter later, for that is in one of the hives. */
HivePtr readMachineHive(Looking& looking, std::u16string_view name, bool needed) {
    Installation& installation = looking.installation;
    offline::InstallationVolume& entry = installation.volumes[installation.systemVolume];
    const std::u16string path = offline::installationHivePath(installation, name);
    Problem problem;
    HivePtr hive;
    std::unique_ptr<offline::HiveStore> store;
    const NTSTATUS status = offline::installationReadHive(entry, path, hive, store, problem);
    HiveSeen seen{offline::toUtf8(path), stateOf(status, hive)};
    offline::FileRef file;
    offline::FileInfo info;
    if (offline::volumeFind(*entry.volume, path, file) >= 0 &&
        offline::volumeFileInfo(*entry.volume, file, info) >= 0) {
        seen.size = info.size;
    }
    if (hive) seen.version = offline::hiveMinorVersion(*hive);
    if (needed || seen.state != HiveState::missing) {
        looking.good(status, problem);
        looking.sight.hives.push_back(std::move(seen));
    }
    return hive;
}

/* A user's hive by its Windows path. A missing one is no problem: profiles come and go. */
void lookAtUserHive(Looking& looking, const std::string& user, const std::u16string& path) {
    HiveSeen seen{offline::toUtf8(path), HiveState::missing, 0, 0, user};
    offline::Volume* volume = nullptr;
    offline::FileRef file;
    offline::FileInfo info;
    NTSTATUS status = offline::driveFind(path, volume, file);
    if (status >= 0) status = offline::volumeFileInfo(*volume, file, info);
    Problem problem{status, seen.path + ": can't be reached (" + statusText(status) + "); check the volume"};
    HivePtr hive;
    if (status >= 0) {
        std::unique_ptr<offline::HiveStore> store;
        seen.size = info.size;
        status = offline::driveReadHive(path, hive, store, problem);
        if (hive) seen.version = offline::hiveMinorVersion(*hive);
    }
    seen.state = stateOf(status, hive);
    /* Those that a running system always has open belong to the machine: without one of them no run starts.
     */
    if (status < 0 && !offline::isServiceAccount(offline::toUtf16(user)))
        problem.text += "; a run leaves this user's hive as it is";
    if (seen.state != HiveState::missing) looking.good(status, problem);
    looking.sight.hives.push_back(std::move(seen));
}

std::u16string expanded(const std::u16string& text) {
    constexpr size_t longest = 32768; /* characters */
    std::u16string out(longest, u'\0');
    const DWORD length = ExpandEnvironmentStringsW(text.c_str(), out.data(), longest);
    if (length == 0 || length > longest) return text;
    out.resize(length - 1);
    return out;
}

const std::u16string_view profileList = u"Microsoft\\Windows NT\\CurrentVersion\\ProfileList";

/* By the list of profiles; the system's own profile has the default hive. */
void lookAtProfiles(Looking& looking) {
    const offline::Hive& software = *looking.software;
    offline::Cell list, profile;
    if (offline::hiveFindPath(software, profileList, list) < 0) return;
    for (uint32_t i = 0; offline::hiveSubkey(software, list, i, profile) >= 0; i++) {
        std::u16string name(offline::longestKeyName, u'\0');
        name.resize(offline::hiveKeyName(software, profile, name.data()));
        if (name == u"S-1-5-18") continue;
        const std::u16string key = std::u16string(profileList).append(u"\\").append(name);
        const std::u16string directory = offline::hiveText(software, key, u"ProfileImagePath");
        if (directory.empty()) continue;
        lookAtUserHive(looking, offline::toUtf8(name), expanded(directory) + u"\\NTUSER.DAT");
    }
}

/* Without a list: what lies below the directory that profiles are in. */
void lookAtUserDirectories(Looking& looking, char letter) {
    offline::Volume& volume = *looking.installation.volumes[looking.installation.systemVolume].volume;
    offline::FileRef users;
    offline::DirectoryListing listing;
    if (offline::volumeFind(volume, u"Users", users) < 0) return;
    if (offline::volumeList(volume, users, listing) < 0) return;
    for (const offline::DirectoryEntry& entry : listing.entries) {
        offline::FileRef hive;
        if (!entry.directory || entry.reparse) continue;
        if (offline::volumeLookUp(volume, entry.file, u"NTUSER.DAT", hive) < 0) continue;
        const std::u16string name(listing.name(entry));
        std::u16string hivePath = {static_cast<char16_t>(letter), u':'};
        hivePath.append(u"\\Users\\").append(name).append(u"\\NTUSER.DAT");
        lookAtUserHive(looking, "", hivePath);
    }
}

/* ---- The installation ---- */

/* From the SYSTEM hive, or without it as for a system volume that nothing is remembered of. */
char assignLetters(Looking& looking) {
    offline::InstallationVolume& entry = looking.installation.volumes[looking.installation.systemVolume];
    Problem problem;
    if (looking.system) {
        looking.good(offline::lettersAssign(*looking.system, looking.installation, problem), problem);
        noteLetters(looking);
    }
    if (entry.letter == 0) offline::driveSet('C', *entry.volume);
    return entry.letter == 0 ? 'C' : entry.letter;
}

void lookAtSam(Looking& looking) {
    const HivePtr sam = readMachineHive(looking, u"SAM", true);
    if (!sam) return;
    std::string why;
    looking.sight.machineSid = samMachineSid(*sam, why);
    if (looking.sight.machineSid.empty()) {
        looking.sight.problems.push_back(looking.sight.hives.back().path + " " + why +
                                         "; restore the hive from a copy");
    }
}

void lookAtInstallation(Looking& looking) {
    Sight& sight = looking.sight;
    lookAtSam(looking);
    readMachineHive(looking, u"SECURITY", true);
    looking.software = readMachineHive(looking, u"SOFTWARE", true);
    looking.system = readMachineHive(looking, u"SYSTEM", true);
    readMachineHive(looking, u"DEFAULT", false);
    const char letter = assignLetters(looking);
    const std::string drive = {letter, ':', '\\'};
    sight.windows = drive + offline::toUtf8(looking.installation.directory);
    for (HiveSeen& hive : sight.hives) hive.path = drive + hive.path;
    if (looking.system) sight.controlSet = offline::currentControlSet(*looking.system);
    if (looking.software) {
        sight.product = offline::toUtf8(
            offline::hiveText(*looking.software, u"Microsoft\\Windows NT\\CurrentVersion", u"ProductName"));
    }
    if (looking.system && looking.software) {
        offline::environmentLoad(*looking.system, *looking.software, letter, looking.installation.directory);
        lookAtProfiles(looking);
    } else {
        lookAtUserDirectories(looking, letter);
    }
}

} /* namespace */

Sight look(const std::vector<std::string>& images) {
    Problem problem;
    if (offline::installationDisksOnce(images, problem) < 0) throw Failure{problem.text};
    Sight sight;
    Looking looking(sight);
    for (const std::string& image : images) openDisk(looking, image);
    if (looking.installation.volumes.empty()) return sight; /* why is among the problems */
    if (looking.good(offline::installationFindWindows(looking.installation, problem), problem)) {
        lookAtInstallation(looking);
    }
    noteUnread(looking.installation, sight.problems);
    return sight;
}

void noteUnread(const offline::Installation& installation, std::vector<std::string>& problems) {
    Problem problem;
    const NTSTATUS status = offline::installationReadWhole(installation, problem);
    if (status >= 0) return;
    problem.text += status == STATUS_IO_DEVICE_ERROR ? "; check the medium, or work on a copy of it"
                                                     : "; repair the volume (chkdsk /f) first";
    problems.push_back(problem.text);
}

std::string whyRefused(const std::vector<std::string>& images) {
    Problem problem, unsaid;
    const NTSTATUS status = offline::systemOpen(images, offline::DiskAccess::trial, problem);
    offline::systemClose(unsaid); /* nothing was written */
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
