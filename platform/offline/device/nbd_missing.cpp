/* SPDX-License-Identifier: GPL-2.0-or-later */
/* What stands for the NBD device in a build without libnbd. */
#include "platform/offline/base/guarded.h"
#include "platform/offline/device/nbd_device.h"

namespace offline {
namespace {

NTSTATUS refuseBuild(const std::string& name, Problem& problem) {
    return guardedRefusing(problem, [&] {
        return refuse(problem, STATUS_NOT_SUPPORTED,
                      name +
                          ": this quillet was built without libnbd, so only raw disks can be used; "
                          "convert it to one, or use the Debian package's or one that is built with libnbd");
    });
}

} /* namespace */

bool nbdBuiltIn() {
    return false;
}

NTSTATUS nbdDeviceConnect(const std::string& address, DiskAccess, BlockDevicePtr&, Problem& problem) {
    return refuseBuild(address, problem);
}

NTSTATUS nbdDeviceServed(const std::string& name, std::unique_ptr<QemuNbd>, DiskAccess, bool, BlockDevicePtr&,
                         Problem& problem) {
    return refuseBuild(name, problem);
}

} /* namespace offline */
