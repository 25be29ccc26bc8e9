/* SPDX-License-Identifier: GPL-2.0-or-later */
/* What an open disk consists of. Private to this room; everyone else uses diskRead, diskWrite and diskSync.
 */
#ifndef QUILLET_OFFLINE_VOLUME_OPEN_DISK_H
#define QUILLET_OFFLINE_VOLUME_OPEN_DISK_H

#include "platform/offline/device/block_cache.h"
#include "platform/offline/volume/disk.h"

namespace offline {

struct Disk {
    Disk(BlockDevicePtr owned, DiskAccess wanted)
        : device(std::move(owned)),
          cache(*device),
          readOnly(wanted == DiskAccess::readOnly || wanted == DiskAccess::trial || device->readOnly()),
          forChanges(wanted != DiskAccess::readOnly) {}

    const BlockDevicePtr device;
    BlockCache cache;
    const bool readOnly;
    const bool forChanges;
    DiskTrouble trouble;
    std::vector<DirtyMark> marks;
};

} /* namespace offline */

#endif
