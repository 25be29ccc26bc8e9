/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Bytes of an open file, all of them. Private to this room. */
#ifndef QUILLET_OFFLINE_DEVICE_FILE_TRANSFER_H
#define QUILLET_OFFLINE_DEVICE_FILE_TRANSFER_H

#include "platform/offline/device/block_device.h"

namespace offline {

/* deviceShrank where the file ends before them. */
DeviceError fileReadAt(int file, uint64_t offset, std::span<uint8_t> bytes);
DeviceError fileWriteAt(int file, uint64_t offset, Bytes bytes);

} /* namespace offline */

#endif
