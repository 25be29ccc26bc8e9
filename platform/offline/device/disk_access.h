/* SPDX-License-Identifier: GPL-2.0-or-later */
/* What a disk is opened for. */
#ifndef QUILLET_OFFLINE_DEVICE_DISK_ACCESS_H
#define QUILLET_OFFLINE_DEVICE_DISK_ACCESS_H

namespace offline {

/* trial: reads only, and refuses whatever readWrite would, of the disk and of the volumes on it.
 * planned: as readWrite, on a disk that may as well be one that can only be read; the changes go nowhere.
 * Not for a device: that is opened readOnly then.
 * below: as readOnly, of a backing file. Many build on one at a time, so that a block device is not taken
 * exclusively then. */
enum class DiskAccess { readOnly, readWrite, trial, planned, below };

} /* namespace offline */

#endif
