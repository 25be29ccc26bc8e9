/* The device at the bottom of a disk: an image file or a block device of the system. */
#ifndef QUILLET_OFFLINE_DEVICE_FILE_DEVICE_H
#define QUILLET_OFFLINE_DEVICE_FILE_DEVICE_H

#include <string>
#include <vector>

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

/* Refuses two paths that lead to the same bytes: links, bind mounts, a loop device and its file. What can't
 * be found out is left to fileDeviceOpen. */
NTSTATUS disksApart(const std::vector<std::string>& paths, Problem& problem);

} /* namespace offline */

#endif
