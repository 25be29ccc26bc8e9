/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Bytes that say that they are an image, in each format: whatever they are, they are read within their
 * bounds, and no name gets through that leads elsewhere. */
#include <cstdlib>

#include "platform/offline/device/image_header.h"
#include "tests/device/machine.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace offline;
    test::Machine machine;
    test::MachineDisk file(machine, "image", ByteVector(data, data + size));
    for (const DiskFormat format : {DiskFormat::qcow2, DiskFormat::vmdk, DiskFormat::vhd, DiskFormat::vdi}) {
        bool fits = false;
        ImageHeader header;
        if (fitsFormat(file, format, fits) != 0 || readHeader(file, format, header) != 0) std::abort();
        if (header.backing.size() > 1023) std::abort();
        for (const std::string& name : header.extents) {
            if (header.unusable.empty() && name.find_first_of("/:") != std::string::npos) std::abort();
        }
    }
    return 0;
}
