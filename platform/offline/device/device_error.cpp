#include "platform/offline/device/device_error.h"

#include <cerrno>
#include <cstring>

namespace offline {

NTSTATUS deviceStatus(DeviceError error) {
    switch (error) {
        case 0:
            return STATUS_SUCCESS;
        case ENOSPC:
        case EDQUOT:
            return STATUS_DISK_FULL;
        case EROFS:
        case EPERM:
            return STATUS_MEDIA_WRITE_PROTECTED;
        default:
            return STATUS_IO_DEVICE_ERROR;
    }
}

std::string deviceErrorText(DeviceError error) {
    return error == deviceShrank ? "it became shorter while it was in use" : std::strerror(error);
}

} /* namespace offline */
