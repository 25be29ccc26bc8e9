/* What refused, in words and as a status. */
#ifndef QUILLET_OFFLINE_DEVICE_REASONS_H
#define QUILLET_OFFLINE_DEVICE_REASONS_H

#include <cerrno>
#include <cstring>
#include <string>

#include "platform/nt.h"
#include "platform/offline/device/block_device.h"

namespace offline {

/* "No space left on device" */
inline std::string reasonOf(DeviceError error) {
    return error == deviceShrank ? "it has become shorter" : std::strerror(error);
}

/* Whether there was no room for what was to be written, or a limit on it. */
inline bool noRoom(DeviceError error) {
    return error == ENOSPC || error == EDQUOT || error == EFBIG;
}

inline NTSTATUS statusOfDevice(DeviceError error) {
    if (error == 0) return STATUS_SUCCESS;
    if (noRoom(error)) return STATUS_DISK_FULL;
    if (error == ENOMEM) return STATUS_NO_MEMORY;
    if (error == EACCES || error == EPERM || error == EROFS) return STATUS_ACCESS_DENIED;
    return STATUS_IO_DEVICE_ERROR;
}

} /* namespace offline */

#endif
