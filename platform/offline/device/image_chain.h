/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Which format a disk has, and which files its bytes lie in.
 *
 * The format is what the user says, else what the ending of the name and the beginning of the contents agree
 * on; where they don't, the disk is refused. Contents alone never decide: whoever owns a raw disk can write
 * another format's header there, name any file of the host as its backing file, and so have it opened.
 * For the same reason a chain is followed here, file by file, and whoever opens the disk is told all of it.
 */
#ifndef QUILLET_OFFLINE_DEVICE_IMAGE_CHAIN_H
#define QUILLET_OFFLINE_DEVICE_IMAGE_CHAIN_H

#include <string>
#include <vector>

#include "platform/offline/base/problem.h"
#include "platform/offline/device/block_device.h"
#include "platform/offline/device/disk_name.h"

namespace offline {

struct ImageFile {
    std::string path; /* as the user, or the image above it, names it; from the current directory */
    DiskFormat format = DiskFormat::raw;
};

struct ImageChain {
    std::vector<ImageFile> files;     /* the disk itself, then what each names as its backing file */
    std::vector<std::string> extents; /* paths of further files with contents, of VMDK */
    bool onlyReadable = false;        /* the format can't be changed in place */

    DiskFormat format() const { return files.front().format; }
};

/* Only the files' headers are read. Refused, each with one line: formats that don't agree, and how to say
 * which it is; a backing file that is missing, that is no file, or whose format is neither written down nor
 * clear; what a header says that can't be used. For an address the chain is the address, and raw. */
NTSTATUS imageChainOf(const DiskName& disk, ImageChain& chain, Problem& problem);

/* As imageChainOf, for a disk that is a file and open. */
NTSTATUS imageChainOver(BlockDevice& file, const DiskName& disk, ImageChain& chain, Problem& problem);

} /* namespace offline */

#endif
