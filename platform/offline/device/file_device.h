/* SPDX-License-Identifier: GPL-2.0-or-later */
/* An image file or a block device of the system, as it is. Private to this room: see deviceOpen. */
#ifndef QUILLET_OFFLINE_DEVICE_FILE_DEVICE_H
#define QUILLET_OFFLINE_DEVICE_FILE_DEVICE_H

#include <string>

#include "platform/offline/base/problem.h"
#include "platform/offline/device/block_device.h"
#include "platform/offline/device/disk_access.h"

namespace offline {

/* Opens the file or device, and locks it as long as the BlockDevice lives. Refused, each with one line that
 * names the path and says what to do: missing, a directory, empty, no permission, in use (a mount, another
 * program's lock, another quillet, also through a loop device or by another name), and for readWrite what can
 * only be read (STATUS_MEDIA_WRITE_PROTECTED).
 * Its size is what it was when it was opened. A file that has become shorter is neither read as zeros nor
 * made longer again: deviceShrank. */
NTSTATUS fileDeviceOpen(const std::string& path, DiskAccess access, BlockDevicePtr& device, Problem& problem);

} /* namespace offline */

#endif
