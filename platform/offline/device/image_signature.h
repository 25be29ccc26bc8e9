/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The signatures of image formats. Structures: the published formats of qcow2, VMDK ("Virtual Disk
 * Format 5.0"), VHDX, VHD and VDI. */
#ifndef QUILLET_OFFLINE_DEVICE_IMAGE_SIGNATURE_H
#define QUILLET_OFFLINE_DEVICE_IMAGE_SIGNATURE_H

#include <string_view>

#include "platform/offline/base/bytes.h"
#include "platform/offline/device/disk_name.h"

namespace offline {

constexpr std::string_view vmdkSparse = "KDMV", vmdkDescriptor = "# Disk DescriptorFile",
                           vhdCookie = "conectix";

/* Whether the text stands at an offset of the bytes. */
bool holdsText(Bytes bytes, std::string_view text, size_t at = 0);

/* The format whose signature a file's first bytes bear, of which 512 will do; raw when there is none that is
 * known. A VHD of fixed size bears none. */
DiskFormat formatOfBeginning(Bytes bytes);

} /* namespace offline */

#endif
