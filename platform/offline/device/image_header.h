/* SPDX-License-Identifier: GPL-2.0-or-later */
/* What an image file says of itself, as far as we have to know it before another program opens it. The file
 * is hostile: here is the one place where its fields are checked. Structures: the published formats of qcow2,
 * VMDK ("Virtual Disk Format 5.0"), VHD and VDI. Private to this room. Every function may throw
 * std::bad_alloc. */
#ifndef QUILLET_OFFLINE_DEVICE_IMAGE_HEADER_H
#define QUILLET_OFFLINE_DEVICE_IMAGE_HEADER_H

#include <string>
#include <vector>

#include "platform/offline/device/block_device.h"
#include "platform/offline/device/disk_name.h"

namespace offline {

/* What the first bytes are those of; raw when they are of none that is known. */
DeviceError beginningOf(BlockDevice& file, DiskFormat& format);

/* Whether the file can be of a format that is not raw: its beginning is, or it is a VHD of fixed size, which
 * has the disk's own bytes at the beginning and a footer behind them. */
DeviceError fitsFormat(BlockDevice& file, DiskFormat format, bool& fits);

struct ImageHeader {
    std::string backing;              /* the file below it, as it is written there; "" for none */
    std::string backingFormat;        /* "" when it is not written */
    std::vector<std::string> extents; /* of a VMDK: files beside it that hold its contents */
    bool onlyReadable = false;        /* the format can't be changed in place */
    std::string unusable;             /* why it can't be used, "it ..."; "" as a rule */
};

/* Of a file that fits the format. */
DeviceError readHeader(BlockDevice& file, DiskFormat format, ImageHeader& header);

} /* namespace offline */

#endif
