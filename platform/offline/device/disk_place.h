/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Where the bytes of a disk really lie: a loop device stands for a part of a file, a partition for a part of
 * its device. Two disks whose places overlap are one, whatever their names. Private to this room. */
#ifndef QUILLET_OFFLINE_DEVICE_DISK_PLACE_H
#define QUILLET_OFFLINE_DEVICE_DISK_PLACE_H

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <vector>

namespace offline {

/* A part of what is at the bottom: a file, or a device that stands for no other. */
struct DiskPlace {
    std::string bottom; /* names it in the same way whatever path or mount namespace leads to it */
    uint64_t start = 0; /* bytes */
    uint64_t end =
        UINT64_MAX;   /* bytes; not beyond the bottom's own end as a rule, but that is not looked up */
    std::string file; /* the path, as the kernel has it, of the file below a loop device; else "" */
    std::vector<dev_t> devices; /* the devices passed on the way down, the disk's own first */
};

/* Where an open file, or one that was found by stat, lies. What the system does not say ends the way
 * down. May throw std::bad_alloc. */
DiskPlace diskPlaceOf(const struct stat& info);

bool placesOverlap(const DiskPlace& one, const DiskPlace& other);

/* The name of a loop device ("/dev/loop3") that stands for bytes of the place, is not on its own way down,
 * and is in use: mounted, in whatever mount namespace, or held by a program; empty when there is none. A
 * device that can't be asked counts as in use. May throw std::bad_alloc. */
std::string loopDeviceInUse(const DiskPlace& place);

/* Opens the file below a loop device, for writing if it can be, and checks that it is the file meant; -1 when
 * it can't be reached here. */
int openBottomFile(const DiskPlace& place, bool forWriting);

} /* namespace offline */

#endif
