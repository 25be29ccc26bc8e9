/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "companion/opened.h"

#include <algorithm>

#include "companion/ending.h"
#include "companion/formatting.h"
#include "companion/machine.h"
#include "platform/offline/base/progress.h"
#include "platform/offline/base/unicode.h"
#include "platform/offline/files/drives.h"
#include "platform/offline/hive/hive_paths.h"
#include "platform/offline/system/control_set.h"
#include "platform/offline/system/environment.h"
#include "platform/offline/system/hive_files.h"
#include "platform/offline/system/letters.h"
#include "platform/offline/system/machine_hives.h"

namespace companion {
namespace {

using offline::Installation;
using offline::Problem;

bool good(NTSTATUS status, const Problem& problem, Problems& problems) {
    if (status < 0) problems.push_back(problem.text);
    return status >= 0;
}

/* ---- Disks and volumes ---- */

void openVolume(offline::Disk& disk, const offline::Partition& partition, Opened& opened,
                Problems& problems) {
    Problem problem;
    offline::InstallationVolume entry{&disk, partition, nullptr, 0};
    FoundVolume found{&disk, partition};
    std::vector<offline::InstallationVolume>& volumes = opened.installation.volumes;
    if (good(offline::volumeOpen(disk, partition, entry.volume, problem), problem, problems)) {
        found.index = volumes.size();
        volumes.push_back(std::move(entry));
    }
    opened.found.push_back(found);
}

void openDisk(const offline::DiskName& name, Opened& opened, Problems& problems) {
    Problem problem;
    offline::DiskPtr disk;
    NTSTATUS status = offline::diskOpen(name, offline::DiskAccess::readOnly, disk, problem);
    if (status >= 0) status = offline::refuseCutOff(name, problem);
    if (!good(status, problem, problems)) return;
    opened.installation.disks.push_back(std::move(disk));
    offline::Disk& here = *opened.installation.disks.back();
    std::vector<offline::Partition> partitions;
    good(offline::diskPartitions(here, partitions, problem), problem, problems);
    for (const offline::Partition& partition : partitions) openVolume(here, partition, opened, problems);
}

/* ---- Hives ---- */

HiveState stateOf(NTSTATUS status, const offline::HivePtr& hive) {
    if (status >= 0) return offline::hiveRecovered(*hive) ? HiveState::logged : HiveState::clean;
    if (status == STATUS_REGISTRY_IO_FAILED) return HiveState::dirty;
    if (status == STATUS_IO_DEVICE_ERROR || status == STATUS_NO_MEMORY) return HiveState::unreadable;
    const bool missing = status == STATUS_OBJECT_NAME_NOT_FOUND || status == STATUS_OBJECT_PATH_NOT_FOUND;
    return missing ? HiveState::missing : HiveState::damaged;
}

void noteRead(NTSTATUS status, OpenedHive& hive) {
    hive.seen.state = stateOf(status, hive.hive);
    if (hive.hive) hive.seen.version = offline::hiveMinorVersion(*hive.hive);
}

/* A hive of the machine, null where it can't be read. Its path gets the drive's letter later, for that is in
 * one of the hives. */
const offline::Hive* readMachineHive(std::u16string_view name, bool needed, Opened& opened,
                                     Problems& problems) {
    offline::InstallationVolume& entry = opened.installation.volumes[opened.installation.systemVolume];
    const std::u16string path = offline::installationHivePath(opened.installation, name);
    OpenedHive hive{{offline::toUtf8(path)}};
    Problem problem;
    std::unique_ptr<offline::HiveStore> store;
    const NTSTATUS status = offline::installationReadHive(entry, path, hive.hive, store, problem);
    noteRead(status, hive);
    offline::FileRef file;
    offline::FileInfo info;
    if (offline::volumeFind(*entry.volume, path, file) >= 0 &&
        offline::volumeFileInfo(*entry.volume, file, info) >= 0) {
        hive.file = {entry.volume.get(), file};
        hive.seen.size = info.size;
    }
    if (!needed && hive.seen.state == HiveState::missing) return nullptr;
    good(status, problem, problems);
    opened.hives.push_back(std::move(hive));
    return opened.hives.back().hive.get();
}

OpenedHive readUserHive(const Profile& profile, Problems& problems) {
    const std::u16string& path = profile.hivePath;
    OpenedHive hive{{offline::toUtf8(path), HiveState::missing, 0, 0, profile.user}};
    offline::Volume* volume = nullptr;
    offline::FileRef file;
    offline::FileInfo info;
    NTSTATUS status = offline::driveFind(path, volume, file);
    if (status >= 0) status = offline::volumeFileInfo(*volume, file, info);
    Problem problem{status,
                    hive.seen.path + ": can't be reached (" + statusText(status) + "); check the volume"};
    if (status >= 0) {
        std::unique_ptr<offline::HiveStore> store;
        hive.file = {volume, file};
        hive.seen.size = info.size;
        status = offline::driveReadHive(path, hive.hive, store, problem);
    }
    noteRead(status, hive);
    /* Those that a running system always has open belong to the machine: without one of them no run starts.
     */
    if (!offline::isServiceAccount(offline::toUtf16(profile.user)))
        problem.text += "; a run leaves this user's hive as it is";
    if (hive.seen.state != HiveState::missing) good(status, problem, problems);
    return hive;
}

/* ---- Profiles ---- */

const std::u16string_view profileList = u"Microsoft\\Windows NT\\CurrentVersion\\ProfileList";

/* The system's own profile has the default hive. */
void listProfiles(const offline::Hive& software, Opened& opened) {
    offline::Cell list, profile;
    if (offline::hiveFindPath(software, profileList, list) < 0) return;
    for (uint32_t i = 0; offline::hiveSubkey(software, list, i, profile) >= 0; i++) {
        std::u16string name(offline::longestKeyName, u'\0');
        name.resize(offline::hiveKeyName(software, profile, name.data()));
        if (name == u"S-1-5-18") continue;
        const std::u16string key = std::u16string(profileList).append(u"\\").append(name);
        const std::u16string directory = offline::hiveText(software, key, u"ProfileImagePath");
        if (directory.empty()) continue;
        opened.profiles.push_back(
            {offline::toUtf8(name), offline::environmentExpand(directory) + u"\\NTUSER.DAT"});
    }
}

/* Without a list: what lies below the directory that profiles are in. */
void findProfiles(Opened& opened) {
    offline::Volume& volume = *opened.installation.volumes[opened.installation.systemVolume].volume;
    offline::FileRef users;
    offline::DirectoryListing listing;
    if (offline::volumeFind(volume, u"Users", users) < 0) return;
    if (offline::volumeList(volume, users, listing) < 0) return;
    for (const offline::DirectoryEntry& entry : listing.entries) {
        offline::FileRef hive;
        if (!entry.directory || entry.reparse) continue;
        if (offline::volumeLookUp(volume, entry.file, u"NTUSER.DAT", hive) < 0) continue;
        std::u16string path = {static_cast<char16_t>(opened.letter), u':'};
        path.append(u"\\Users\\").append(listing.name(entry)).append(u"\\NTUSER.DAT");
        opened.profiles.push_back({"", path});
    }
}

/* ---- The installation ---- */

/* From the SYSTEM hive, or without it as for a system volume that nothing is remembered of. */
void assignLetters(const offline::Hive* system, Opened& opened, Problems& problems) {
    Installation& installation = opened.installation;
    Problem problem;
    if (system != nullptr) good(offline::lettersAssign(*system, installation, problem), problem, problems);
    const offline::InstallationVolume& home = installation.volumes[installation.systemVolume];
    opened.letter = home.letter == 0 ? 'C' : home.letter;
    for (const offline::InstallationVolume& entry : installation.volumes)
        offline::driveSet(entry.letter, *entry.volume);
    offline::driveSet(opened.letter, *home.volume);
}

std::string productName(const offline::Hive& software) {
    return offline::toUtf8(
        offline::hiveText(software, u"Microsoft\\Windows NT\\CurrentVersion", u"ProductName"));
}

void readMachineSid(const OpenedHive& sam, Opened& opened, Problems& problems) {
    if (!sam.hive) return;
    std::string why;
    opened.machineSid = samMachineSid(*sam.hive, why);
    if (!opened.machineSid.empty()) return;
    problems.push_back(sam.seen.path + " " + why + "; restore the hive from a copy");
}

/* Needs the letters. */
void readProfiles(const offline::Hive* system, const offline::Hive* software, Opened& opened) {
    if (system == nullptr || software == nullptr) return findProfiles(opened);
    offline::environmentLoad(*system, *software, opened.letter, opened.installation.directory);
    listProfiles(*software, opened);
}

} /* namespace */

Opened::~Opened() {
    offline::drivesReset();
    offline::environmentReset();
    Problem unsaid; /* nothing was written, so closing has nothing to add */
    offline::installationClose(installation, unsaid);
}

std::vector<offline::DiskName> namedDisks(const std::vector<std::string>& images,
                                          const std::string& formats) {
    Problem problem;
    std::vector<offline::DiskName> disks;
    if (offline::diskNames(images, formats, disks, problem) < 0) throw Failure{"--format: " + problem.text};
    return disks;
}

void openDisks(const std::vector<offline::DiskName>& disks, Opened& opened, Problems& problems) {
    Problem problem;
    if (offline::installationDisksOnce(disks, problem) < 0) throw Failure{problem.text};
    offline::progressBegin({"Opening and checking"});
    for (const offline::DiskName& disk : disks) openDisk(disk, opened, problems);
}

void readInstallation(Opened& opened, Problems& problems) {
    if (opened.installation.volumes.empty()) return; /* why is among the problems */
    offline::progressBegin({"Opening and checking"});
    Problem problem;
    if (!good(offline::installationFindWindows(opened.installation, problem), problem, problems)) return;
    readMachineHive(u"SAM", true, opened, problems);
    readMachineSid(opened.hives.back(), opened, problems);
    readMachineHive(u"SECURITY", true, opened, problems);
    const offline::Hive* const software = readMachineHive(u"SOFTWARE", true, opened, problems);
    const offline::Hive* const system = readMachineHive(u"SYSTEM", true, opened, problems);
    readMachineHive(u"DEFAULT", false, opened, problems);
    assignLetters(system, opened, problems);
    for (OpenedHive& one : opened.hives) one.seen.path.insert(0, {opened.letter, ':', '\\'});
    if (system != nullptr) opened.controlSet = offline::currentControlSet(*system);
    if (software != nullptr) opened.product = productName(*software);
    readProfiles(system, software, opened);
}

void visitUserHives(const Opened& opened, Problems& problems,
                    const std::function<void(const OpenedHive&)>& visit) {
    for (const Profile& profile : opened.profiles) visit(readUserHive(profile, problems));
}

void noteUnread(const Opened& opened, Problems& problems) {
    if (opened.installation.volumes.empty()) return; /* why is among the problems */
    Problem problem;
    const NTSTATUS status = offline::installationReadWhole(opened.installation, problem);
    if (status >= 0) return;
    problem.text += status == STATUS_IO_DEVICE_ERROR ? "; check the medium, or work on a copy of it"
                                                     : "; repair the volume (chkdsk /f) first";
    problems.push_back(problem.text);
}

} /* namespace companion */
