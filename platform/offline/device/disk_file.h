/* SPDX-License-Identifier: GPL-2.0-or-later */
/* An image file or a block device, open, measured and locked. Private to this room. */
#ifndef QUILLET_OFFLINE_DEVICE_DISK_FILE_H
#define QUILLET_OFFLINE_DEVICE_DISK_FILE_H

#include <cstdint>
#include <string>

#include "platform/offline/base/problem.h"
#include "platform/offline/device/disk_access.h"

namespace offline {

/* Owns its descriptors; the locks fall with them. */
struct DiskFile {
    std::string path;
    int file = -1;
    int bottomFile = -1; /* of a loop device: the file below it, open for its lock alone */
    uint64_t size = 0;   /* bytes */
    uint32_t sectorSize = 512;
    bool isDevice = false; /* a block device, and no file */
    bool readOnly = true;

    DiskFile() = default;
    ~DiskFile();
    DiskFile(const DiskFile&) = delete;
    DiskFile& operator=(const DiskFile&) = delete;
};

/* Opens it, or refuses as fileDeviceOpen says. May throw std::bad_alloc. */
NTSTATUS diskFileOpen(const std::string& path, DiskAccess access, DiskFile& disk, Problem& problem);

/* Whether readWrite would open it for writing, however this was opened. */
bool diskFileWritable(const DiskFile& disk);

/* Locks the file against writers, and leaves room for qemu's readers. qemu locks single bytes: those from 100
 * on tell what somebody does, those from 200 on what he does not let others do; a reader looks at 101 to 103
 * (writing, resizing) and at 200 (reading), so that these are left out. Whoever writes, qemu or we, meets the
 * others. refusingWriters: also fails where qemu writes already, with EAGAIN. 0 or an errno. */
enum class ReaderLock { plain, refusingWriters };
int lockAmongReaders(int file, ReaderLock kind);

/* Refusals that other kinds of disks have in common with this one. */
NTSTATUS refuseInUse(const std::string& disk, Problem& problem);
NTSTATUS refuseOnlyReadable(const std::string& disk, Problem& problem);

} /* namespace offline */

#endif
