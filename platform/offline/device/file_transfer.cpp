/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/device/file_transfer.h"

#include <unistd.h>

#include <cerrno>

namespace offline {

DeviceError fileReadAt(int file, uint64_t offset, std::span<uint8_t> bytes) {
    while (!bytes.empty()) {
        const ssize_t done = pread(file, bytes.data(), bytes.size(), static_cast<off_t>(offset));
        if (done < 0 && errno == EINTR) continue;
        if (done <= 0) return done < 0 ? errno : deviceShrank;
        bytes = bytes.subspan(static_cast<size_t>(done));
        offset += static_cast<uint64_t>(done);
    }
    return 0;
}

DeviceError fileWriteAt(int file, uint64_t offset, Bytes bytes) {
    while (!bytes.empty()) {
        const ssize_t done = pwrite(file, bytes.data(), bytes.size(), static_cast<off_t>(offset));
        if (done < 0 && errno == EINTR) continue;
        if (done <= 0) return done < 0 ? errno : EIO;
        bytes = bytes.subspan(static_cast<size_t>(done));
        offset += static_cast<uint64_t>(done);
    }
    return 0;
}

} /* namespace offline */
