/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/device/device_error.h"

#include <cerrno>
#include <cstring>

namespace offline {

bool noRoom(DeviceError error) {
    return error == ENOSPC || error == EDQUOT || error == EFBIG;
}

NTSTATUS deviceStatus(DeviceError error) {
    if (noRoom(error)) return STATUS_DISK_FULL;
    switch (error) {
        case 0:
            return STATUS_SUCCESS;
        case ENOMEM:
            return STATUS_NO_MEMORY;
        case EACCES:
            return STATUS_ACCESS_DENIED;
        case EROFS:
        case EPERM:
            return STATUS_MEDIA_WRITE_PROTECTED;
        default:
            return STATUS_IO_DEVICE_ERROR;
    }
}

std::string deviceErrorText(DeviceError error) {
    if (error == deviceGone) return "its server has gone";
    return error == deviceShrank ? "it became shorter while it was in use" : std::strerror(error);
}

std::string BlockDevice::reason(DeviceError error) const {
    return deviceErrorText(error);
}

} /* namespace offline */
