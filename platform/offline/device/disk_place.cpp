/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/device/disk_place.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <memory>

#include "platform/offline/base/streams.h"

namespace offline {
namespace {

constexpr int deepest = 16; /* devices that stand for each other */
constexpr uint64_t sysfsSector = 512;

std::string fileKey(uint64_t device, uint64_t number) {
    return "file " + std::to_string(device) + " " + std::to_string(number);
}

std::string sysfsOf(dev_t device) {
    return "/sys/dev/block/" + std::to_string(major(device)) + ":" + std::to_string(minor(device));
}

bool readLine(const std::string& path, std::string& line) {
    std::ifstream file(path);
    return static_cast<bool>(std::getline(file, line));
}

uint64_t readNumber(const std::string& path) {
    uint64_t number = 0;
    std::ifstream file(path);
    return file >> number ? number : 0;
}

/* Goes from a part of the place as it is now to a part of what is below it. */
void narrow(DiskPlace& place, uint64_t offset, uint64_t size) {
    const uint64_t length = std::min(place.end - place.start, size - std::min(size, place.start));
    place.start = std::min(place.start, UINT64_MAX - offset) + offset;
    place.end = length > UINT64_MAX - place.start ? UINT64_MAX : place.start + length;
}

/* The whole device that a partition is on. */
bool wholeDevice(const std::string& partition, dev_t& device) {
    unsigned number[2];
    char between;
    std::ifstream file(partition + "/../dev");
    if (!(file >> number[0] >> between >> number[1])) return false;
    device = makedev(number[0], number[1]);
    return true;
}

/* The name below /dev that the kernel gave the device. */
std::string deviceName(const std::string& sysfs) {
    const std::unique_ptr<char, decltype(&std::free)> real(realpath(sysfs.c_str(), nullptr), &std::free);
    const std::string path = real == nullptr ? "" : real.get();
    return "/dev/" + path.substr(path.rfind('/') + 1);
}

/* What the loop device itself says of the file below it, which holds in every mount namespace. */
bool askLoopDevice(const std::string& name, dev_t device, loop_info64& info) {
    const int file = aboveStandard(open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat opened = {};
    const bool known = file >= 0 && fstat(file, &opened) == 0 && S_ISBLK(opened.st_mode) &&
                       opened.st_rdev == device && ioctl(file, LOOP_GET_STATUS64, &info) == 0;
    if (file >= 0) close(file);
    return known;
}

/* One step down. False at the bottom, whose key is then set. */
bool stepDown(DiskPlace& place, dev_t& device) {
    const std::string sysfs = sysfsOf(device);
    place.devices.push_back(device);
    place.bottom = "device " + std::to_string(device);
    dev_t whole = 0;
    if (access((sysfs + "/partition").c_str(), F_OK) == 0 && wholeDevice(sysfs, whole)) {
        narrow(place, readNumber(sysfs + "/start") * sysfsSector, readNumber(sysfs + "/size") * sysfsSector);
        device = whole;
        return true;
    }
    if (!readLine(sysfs + "/loop/backing_file", place.file)) return false;
    const uint64_t limit = readNumber(sysfs + "/loop/sizelimit");
    narrow(place, readNumber(sysfs + "/loop/offset"), limit == 0 ? UINT64_MAX : limit);
    loop_info64 info = {};
    struct stat below = {};
    if (askLoopDevice(deviceName(sysfs), device, info)) {
        if (info.lo_rdevice == 0) {
            place.bottom = fileKey(info.lo_device, info.lo_inode);
            return false;
        }
        device = static_cast<dev_t>(info.lo_rdevice);
        return true;
    }
    if (stat(place.file.c_str(), &below) != 0) {
        place.bottom = "path " + place.file;
        return false;
    }
    device = below.st_rdev;
    if (S_ISBLK(below.st_mode)) return true;
    place.bottom = fileKey(below.st_dev, below.st_ino);
    return false;
}

/* Asks for the device as whoever mounts it would: what is mounted or held, in whole or in part, is refused.
 */
bool deviceInUse(const std::string& name) {
    const int file = aboveStandard(open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_EXCL));
    if (file < 0) return errno != ENXIO && errno != ENOENT && errno != ENODEV; /* else it has just gone */
    close(file);
    return false;
}

struct DirectoryCloser {
    void operator()(DIR* directory) const { closedir(directory); }
};

} /* namespace */

DiskPlace diskPlaceOf(const struct stat& info) {
    DiskPlace place;
    if (!S_ISBLK(info.st_mode)) {
        place.bottom = fileKey(info.st_dev, info.st_ino);
        return place;
    }
    dev_t device = info.st_rdev;
    for (int steps = 0; steps < deepest && stepDown(place, device); steps++) {
    }
    return place;
}

bool placesOverlap(const DiskPlace& one, const DiskPlace& other) {
    return one.bottom == other.bottom && one.start < other.end && other.start < one.end;
}

std::string loopDeviceInUse(const DiskPlace& place) {
    const std::unique_ptr<DIR, DirectoryCloser> devices(opendir("/sys/block"));
    while (const dirent* entry = devices == nullptr ? nullptr : readdir(devices.get())) {
        const std::string name = entry->d_name, sysfs = "/sys/block/" + name;
        unsigned number[2];
        char between;
        std::ifstream file(sysfs + "/dev");
        if (access((sysfs + "/loop/backing_file").c_str(), F_OK) != 0) continue;
        if (!(file >> number[0] >> between >> number[1])) continue;
        struct stat device = {};
        device.st_mode = S_IFBLK;
        device.st_rdev = makedev(number[0], number[1]);
        const auto& own = place.devices;
        if (std::find(own.begin(), own.end(), device.st_rdev) != own.end()) continue;
        if (placesOverlap(diskPlaceOf(device), place) && deviceInUse("/dev/" + name)) return "/dev/" + name;
    }
    return "";
}

int openBottomFile(const DiskPlace& place, bool forWriting) {
    if (place.file.empty()) return -1;
    const int flags = O_CLOEXEC | O_NONBLOCK;
    int file = forWriting ? open(place.file.c_str(), flags | O_RDWR) : -1;
    if (file < 0) file = open(place.file.c_str(), flags | O_RDONLY);
    file = aboveStandard(file);
    struct stat opened = {};
    if (file < 0) return -1;
    if (fstat(file, &opened) == 0 && S_ISREG(opened.st_mode) &&
        fileKey(opened.st_dev, opened.st_ino) == place.bottom) {
        return file;
    }
    close(file);
    return -1;
}

} /* namespace offline */
