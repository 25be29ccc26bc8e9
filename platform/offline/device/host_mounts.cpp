/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/device/host_mounts.h"

#include <mntent.h>
#include <sys/stat.h>

#include <cstdio>
#include <memory>

namespace offline {
namespace {

struct MountsCloser {
    void operator()(FILE* mounts) const { endmntent(mounts); }
};

bool sameFile(const struct stat& one, const struct stat& other) {
    if (S_ISBLK(one.st_mode) && S_ISBLK(other.st_mode)) return one.st_rdev == other.st_rdev;
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

} /* namespace */

bool isMounted(const struct stat& disk) {
    const std::unique_ptr<FILE, MountsCloser> mounts(setmntent("/proc/self/mounts", "re"));
    while (const mntent* entry = mounts == nullptr ? nullptr : getmntent(mounts.get())) {
        struct stat source = {};
        /* A name that is no path is a kind of file system. */
        if (entry->mnt_fsname[0] == '/' && stat(entry->mnt_fsname, &source) == 0 && sameFile(disk, source)) {
            return true;
        }
    }
    return false;
}

} /* namespace offline */
