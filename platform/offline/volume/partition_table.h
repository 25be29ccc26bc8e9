/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The two kinds of partition tables. Private to this room. */
#ifndef QUILLET_OFFLINE_VOLUME_PARTITION_TABLE_H
#define QUILLET_OFFLINE_VOLUME_PARTITION_TABLE_H

#include <string>
#include <vector>

#include "platform/offline/base/bytes.h"
#include "platform/offline/volume/disk.h"

namespace offline {

struct TableEntry {
    Partition partition;      /* whether it lies on the disk is not yet known */
    unsigned number = 0;      /* as partition managers count */
    bool forNtfs = false;     /* of a type under which NTFS is kept */
    bool dynamicDisk = false; /* its volumes are laid out by a database of their own */
};

enum class TableState {
    absent,     /* the disk has no such table */
    protective, /* MBR: only there to say that a GPT rules */
    good,
    damaged,
    unreadable,
};

/* Why a table is none of any use. */
struct TableFault {
    std::string damage;               /* what is damaged, for a message */
    NTSTATUS unread = STATUS_SUCCESS; /* what reading it gave */
};

/* sector: the disk's first 512 bytes. */
TableState readMbr(Disk& disk, Bytes sector, uint32_t sectorSize, std::vector<TableEntry>& entries,
                   TableFault& fault);

/* Both sector sizes, 512 and 4096, are tried; of each the primary table and then its backup at the disk's
 * end. */
TableState readGpt(Disk& disk, std::vector<TableEntry>& entries, TableFault& fault);

} /* namespace offline */

#endif
