/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The one way to open a disk: an image file or block device itself when it is raw, else over NBD. */
#ifndef QUILLET_OFFLINE_DEVICE_DEVICE_OPEN_H
#define QUILLET_OFFLINE_DEVICE_DEVICE_OPEN_H

#include <vector>

#include "platform/offline/base/problem.h"
#include "platform/offline/device/block_device.h"
#include "platform/offline/device/disk_access.h"
#include "platform/offline/device/disk_name.h"

namespace offline {

/* Opens the disk, and holds its lock as long as the BlockDevice lives; an NBD server at an address has its
 * own rules. What is refused: see fileDeviceOpen (file_device.h), imageChainOf (image_chain.h) and
 * nbd_device.h.
 */
NTSTATUS deviceOpen(const DiskName& disk, DiskAccess access, BlockDevicePtr& device, Problem& problem);

/* Refuses two names that lead to the same bytes: links, bind mounts, a loop device and its file; a disk and
 * another one's backing file. Two disks may share their backing files. What can't be found out is left to
 * deviceOpen. */
NTSTATUS disksApart(const std::vector<DiskName>& disks, Problem& problem);

} /* namespace offline */

#endif
