/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/system/machine_hives.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <new>
#include <vector>

#include "platform/offline/base/guarded.h"
#include "platform/offline/base/unicode.h"
#include "platform/offline/hive/hive_paths.h"
#include "platform/offline/registry/registry.h"
#include "platform/offline/system/control_set.h"
#include "platform/offline/system/environment.h"
#include "platform/offline/system/hive_files.h"
#include "platform/offline/system/letters.h"

namespace offline {
namespace {

const std::u16string_view machineRoot = u"\\Registry\\Machine\\";

struct LoadedHive {
    HivePtr hive;
    std::unique_ptr<HiveStore> store;
};

NTSTATUS mountMachineHive(std::u16string_view name, LoadedHive loaded, Problem& problem) {
    const std::u16string path = std::u16string(machineRoot).append(name);
    const NTSTATUS status = registryMount(path, std::move(loaded.hive), std::move(loaded.store));
    return status >= 0 ? status
                       : refuse(problem, status, "the hive " + toUtf8(name) + " could not be mounted");
}

NTSTATUS linkControlSet(uint32_t number, Problem& problem) {
    std::u16string target = u"\\Registry\\Machine\\SYSTEM\\ControlSet000";
    for (size_t digit = 0; digit < 3; digit++, number /= 10) {
        target[target.size() - 1 - digit] = static_cast<char16_t>(u'0' + number % 10);
    }
    const NTSTATUS status = registryAddLink(u"\\Registry\\Machine\\SYSTEM\\CurrentControlSet", target);
    return status >= 0 ? status : refuse(problem, status, "the current control set can't be linked to");
}

NTSTATUS linkSam(Problem& problem) {
    const NTSTATUS status =
        registryAddLink(u"\\Registry\\Machine\\SECURITY\\SAM", u"\\Registry\\Machine\\SAM\\SAM");
    return status >= 0 ? status : refuse(problem, status, "the SAM can't be linked to below SECURITY");
}

const std::u16string_view userRoot = u"\\Registry\\User\\";
const std::u16string_view profileList = u"Microsoft\\Windows NT\\CurrentVersion\\ProfileList\\";

/* Accounts whose hives a running system always has open. */
const std::u16string_view serviceAccounts[] = {u"S-1-5-19", u"S-1-5-20"};

/* Mounts the hive file at a path of the system volume as a user's; where there is no such file, nothing. */
NTSTATUS mountUserHive(InstallationVolume& entry, const std::u16string& path, std::u16string_view name,
                       bool& mounted, Problem& problem) {
    LoadedHive loaded;
    mounted = false;
    NTSTATUS status = installationReadHive(entry, path, loaded.hive, loaded.store, problem);
    if (status == STATUS_OBJECT_NAME_NOT_FOUND || status == STATUS_OBJECT_PATH_NOT_FOUND) {
        problem = {};
        return STATUS_SUCCESS;
    }
    if (status < 0) return status;
    status =
        registryMount(std::u16string(userRoot).append(name), std::move(loaded.hive), std::move(loaded.store));
    mounted = status >= 0;
    return status >= 0 ? status
                       : refuse(problem, status, "the hive of " + toUtf8(name) + " could not be mounted");
}

/* Where the accounts' profiles lie on the system volume, as the profile list of the SOFTWARE hive has them.
 */
std::array<std::u16string, std::size(serviceAccounts)> serviceProfiles(const Hive& software, char letter) {
    std::array<std::u16string, std::size(serviceAccounts)> paths;
    for (size_t i = 0; i < std::size(serviceAccounts); i++) {
        const std::u16string key = std::u16string(profileList).append(serviceAccounts[i]);
        const std::u16string path = environmentExpand(hiveText(software, key, u"ProfileImagePath"));
        const bool here =
            path.size() > 3 && upcase(path[0]) == static_cast<char16_t>(letter) && path[1] == u':';
        if (here) paths[i] = path.substr(2) + u"\\NTUSER.DAT";
    }
    return paths;
}

/* HKEY_USERS as it is with nobody logged on. */
NTSTATUS mountUsers(Installation& installation,
                    const std::array<std::u16string, std::size(serviceAccounts)>& profiles,
                    Problem& problem) {
    InstallationVolume& entry = installation.volumes[installation.systemVolume];
    const std::u16string defaultPath = installationHivePath(installation, u"DEFAULT");
    bool hasDefault = false, has = false;
    NTSTATUS status = mountUserHive(entry, defaultPath, u".DEFAULT", hasDefault, problem);
    for (size_t i = 0; i < std::size(serviceAccounts) && status >= 0; i++) {
        if (!profiles[i].empty())
            status = mountUserHive(entry, profiles[i], serviceAccounts[i], has, problem);
    }
    if (status < 0 || !hasDefault) return status;
    status = registryAddLink(u"\\Registry\\User\\S-1-5-18", u"\\Registry\\User\\.DEFAULT");
    return status >= 0 ? status : refuse(problem, status, "the system account's hive can't be linked to");
}

/* RegLoadKeyW's way to a hive file by its Windows path. */
NTSTATUS loadByPath(std::u16string_view path, HivePtr& hive, std::unique_ptr<HiveStore>& store) {
    Problem unsaid; /* the caller has a status and nothing else */
    return driveReadHive(path, hive, store, unsaid);
}

enum MachineHive { systemHive, softwareHive, samHive, securityHive, machineHiveCount };

/* A machine hive, and a key at its root without which it is another one's. */
struct MachineHiveName {
    std::u16string_view name;
    std::u16string_view key;
};
const MachineHiveName hiveNames[machineHiveCount] = {
    {u"SYSTEM", u"Select"}, {u"SOFTWARE", u"Microsoft"}, {u"SAM", u"SAM"}, {u"SECURITY", u"Policy"}};

NTSTATUS readMachineHive(InstallationVolume& entry, const std::u16string& path,
                         std::u16string_view expectedKey, LoadedHive& loaded, Problem& problem) {
    const NTSTATUS status = installationReadHive(entry, path, loaded.hive, loaded.store, problem);
    if (status < 0) return status;
    Cell key;
    if (hiveFindSubkey(*loaded.hive, hiveRoot(*loaded.hive), expectedKey, key) >= 0) return STATUS_SUCCESS;
    return refuse(problem, STATUS_OBJECT_NAME_NOT_FOUND,
                  installationFileName(entry, path) +
                      " is not the hive that its name says (it has no key \"" + toUtf8(expectedKey) +
                      "\"); restore the file from a copy of this machine");
}

/* Without it a run would end half-way, at the first tree of the current control set. */
NTSTATUS refuseControlSet(const Installation& installation, Problem& problem) {
    const std::u16string path = installationHivePath(installation, hiveNames[systemHive].name);
    return refuse(problem, STATUS_OBJECT_NAME_NOT_FOUND,
                  installationFileName(installation.volumes[installation.systemVolume], path) +
                      " does not say which control set is the current one; restore the file from a copy of "
                      "this machine");
}

/* All are read before anything is done with one, so that a refusal leaves nothing half set up. */
NTSTATUS mountAll(Installation& installation, Problem& problem) {
    InstallationVolume& entry = installation.volumes[installation.systemVolume];
    LoadedHive loaded[machineHiveCount];
    for (size_t i = 0; i < machineHiveCount; i++) {
        const std::u16string path = installationHivePath(installation, hiveNames[i].name);
        const NTSTATUS status = readMachineHive(entry, path, hiveNames[i].key, loaded[i], problem);
        if (status < 0) return status;
    }
    const uint32_t controlSet = currentControlSet(*loaded[systemHive].hive);
    if (controlSet == 0) return refuseControlSet(installation, problem);
    NTSTATUS status = lettersAssign(*loaded[systemHive].hive, installation, problem);
    if (status < 0) return status;
    status = environmentLoad(*loaded[systemHive].hive, *loaded[softwareHive].hive, entry.letter,
                             installation.directory);
    if (status < 0) return refuse(problem, status, "out of memory");
    const auto profiles = serviceProfiles(*loaded[softwareHive].hive, entry.letter);
    for (size_t i = 0; i < machineHiveCount && status >= 0; i++) {
        status = mountMachineHive(hiveNames[i].name, std::move(loaded[i]), problem);
    }
    if (status >= 0) status = linkSam(problem);
    if (status >= 0) status = linkControlSet(controlSet, problem);
    if (status >= 0) status = mountUsers(installation, profiles, problem);
    if (status >= 0) registrySetLoader(loadByPath);
    return status;
}

NTSTATUS refuseSave(NTSTATUS status, const std::vector<const HiveStore*>& failed, Problem& problem) {
    std::string names, reason;
    for (const HiveStore* store : failed) names += (names.empty() ? "" : ", ") + store->name();
    if (!failed.empty()) reason = failed.front()->refusal();
    if (names.empty()) names = "the registry";
    const char* const advice =
        status == STATUS_DISK_FULL
            ? "there is no room for it; nothing was changed; make room, on the volume and where the image "
              "lies"
            : "nothing was changed; check the disk";
    return refuse(problem, status, names + " could not be written back" + reason + "; " + advice);
}

} /* namespace */

NTSTATUS machineHivesMount(Installation& installation, Problem& problem) {
    return guardedRefusing(problem, [&] { return mountAll(installation, problem); });
}

NTSTATUS machineHivesSave(Problem& problem) {
    std::vector<const HiveStore*> failed;
    const NTSTATUS status = registrySaveAll(failed);
    if (status >= 0) return status;
    return guardedRefusing(problem, [&] { return refuseSave(status, failed, problem); });
}

bool isServiceAccount(std::u16string_view sid) {
    return std::find(std::begin(serviceAccounts), std::end(serviceAccounts), sid) !=
           std::end(serviceAccounts);
}

} /* namespace offline */
