/* SPDX-License-Identifier: GPL-2.0-or-later */
/* How the user names a disk, and what the name alone says. */
#ifndef QUILLET_OFFLINE_DEVICE_DISK_NAME_H
#define QUILLET_OFFLINE_DEVICE_DISK_NAME_H

#include <string>
#include <string_view>
#include <vector>

#include "platform/offline/base/problem.h"

namespace offline {

/* byName: what the name's ending and the contents agree on; see image_chain.h. */
enum class DiskFormat { byName, raw, qcow2, vmdk, vhdx, vhd, vdi };

/* "qcow2"; "auto" for byName. */
const char* formatName(DiskFormat format);

/* The format of this name, "vpc" for vhd too; false when there is none. */
bool formatFromName(std::string_view name, DiskFormat& format);

struct DiskName {
    std::string name; /* of a file or device, or an address */
    DiskFormat format = DiskFormat::byName;

    /* A file that nobody else has yet, and that whoever made it throws away unless all went well and its
     * contents are on their medium: nothing else need be flushed. */
    bool scratch = false;

    DiskName() = default;
    DiskName(std::string text, DiskFormat wanted = DiskFormat::byName)
        : name(std::move(text)), format(wanted) {}
};

/* The disks of these names, in the formats that the user says: one word for all, one for each with commas
 * between, or "", which leaves them to the names. Refused: an unknown word, another number of them. May throw
 * std::bad_alloc. */
NTSTATUS diskNames(const std::vector<std::string>& names, std::string_view formats,
                   std::vector<DiskName>& disks, Problem& problem);

/* The formats of the disks as diskNames takes them; "" when all are left to the names. */
std::string formatsOf(const std::vector<DiskName>& disks);

/* file: also what looks like an address of an unknown scheme. nbd: for libnbd. qemu: for qemu-nbd. A file
 * whose name looks like an address is named by a path ("./ssh://x"). */
enum class NameKind { file, nbd, qemu };
NameKind kindOfName(std::string_view name);

/* What the ending says: raw where it says nothing. */
DiskFormat formatOfEnding(std::string_view name);

} /* namespace offline */

#endif
