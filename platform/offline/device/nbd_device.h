/* SPDX-License-Identifier: GPL-2.0-or-later */
/* A disk that an NBD server has. Private to this room; a build without libnbd has its refusals alone. No
 * function throws. */
#ifndef QUILLET_OFFLINE_DEVICE_NBD_DEVICE_H
#define QUILLET_OFFLINE_DEVICE_NBD_DEVICE_H

#include <memory>
#include <string>

#include "platform/offline/base/problem.h"
#include "platform/offline/device/block_device.h"
#include "platform/offline/device/disk_access.h"
#include "platform/offline/device/qemu_nbd.h"

namespace offline {

/* Whether this build has the library. */
bool nbdBuiltIn();

/* Connects to an address that libnbd knows. Refused: no server, one that does not answer, that has no disk,
 * or whose sizes make no sense; for readWrite and trial one that does not take writes, or that can't flush.
 */
NTSTATUS nbdDeviceConnect(const std::string& address, DiskAccess access, BlockDevicePtr& device,
                          Problem& problem);

/* The disk of this name, over a server that was started for it. writable: whether it could be opened for
 * writing. The same is refused; in the server's own words where it has any. */
NTSTATUS nbdDeviceServed(const std::string& name, std::unique_ptr<QemuNbd> server, DiskAccess access,
                         bool writable, BlockDevicePtr& device, Problem& problem);

} /* namespace offline */

#endif
