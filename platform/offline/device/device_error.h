/* SPDX-License-Identifier: GPL-2.0-or-later */
/* What a refusal of a device, or of a file beside one, means to those above. */
#ifndef QUILLET_OFFLINE_DEVICE_DEVICE_ERROR_H
#define QUILLET_OFFLINE_DEVICE_DEVICE_ERROR_H

#include <string>

#include "platform/nt.h"
#include "platform/offline/device/block_device.h"

namespace offline {

/* Whether there was no room for what was to be written, or a limit on it. */
bool noRoom(DeviceError error);

/* No room, no memory, no permission and no writes have statuses of their own. */
NTSTATUS deviceStatus(DeviceError error);

/* For a message: "File too large". May throw std::bad_alloc. */
std::string deviceErrorText(DeviceError error);

} /* namespace offline */

#endif
