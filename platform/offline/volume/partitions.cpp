/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Which NTFS volumes lie on a disk, and why a disk is refused. */
#include <algorithm>
#include <array>

#include "platform/offline/base/bytes.h"
#include "platform/offline/base/guarded.h"
#include "platform/offline/volume/contents_kind.h"
#include "platform/offline/volume/open_disk.h"
#include "platform/offline/volume/partition_table.h"

namespace offline {
namespace {

struct Head {
    std::array<uint8_t, contentsHeadSize> buffer{};
    size_t size = 0;
    Bytes bytes() const { return Bytes(buffer).first(size); }
};

struct Search {
    Disk& disk;
    std::vector<Partition>& partitions;
    Problem& problem;
    std::string others;       /* names of what was left out, for a message */
    std::string unrecognised; /* a partition for NTFS that holds something else, for a message */

    NTSTATUS damaged(const std::string& text) const {
        return refuse(problem, STATUS_DISK_CORRUPT_ERROR, diskPath(disk) + ": " + text);
    }
    NTSTATUS unreadable(NTSTATUS status) const {
        const char* const text = status == STATUS_NO_MEMORY
                                     ? ": there is not enough memory to read it"
                                     : ": it can't be read; check the medium, or work on a copy of it";
        return refuse(problem, status, diskPath(disk) + text);
    }
};

NTSTATUS readHead(Search& search, uint64_t start, uint64_t size, Head& head) {
    head.size = static_cast<size_t>(std::min<uint64_t>(size, head.buffer.size()));
    const NTSTATUS status = diskRead(search.disk, start, std::span(head.buffer).first(head.size));
    return status < 0 ? search.unreadable(status) : STATUS_SUCCESS;
}

/* NTFS keeps a copy of its boot sector in the last sector of its partition. */
NTSTATUS findBackupBootSector(Search& search, const Partition& partition, bool& found) {
    found = false;
    for (uint32_t sectorSize : {512u, 4096u}) {
        std::array<uint8_t, 512> sector;
        NtfsBootSector boot;
        if (partition.size < sectorSize) continue;
        uint64_t last = partition.start + partition.size - sectorSize;
        if (const NTSTATUS status = diskRead(search.disk, last, sector); status < 0)
            return search.unreadable(status);
        if (ntfsBootSector(sector, boot)) found = true;
    }
    return STATUS_SUCCESS;
}

/* What lies in a partition that is known to be on the disk. name: of the partition, for messages. */
NTSTATUS probe(Search& search, const Partition& partition, bool forNtfs, const std::string& name) {
    const std::string& path = diskPath(search.disk);
    Head head;
    NTSTATUS status = readHead(search, partition.start, partition.size, head);
    if (status < 0) return status;
    Contents contents = recogniseContents(head.bytes());
    NtfsBootSector boot;
    switch (contents.kind) {
        case ContentsKind::bitLocker:
            return refuse(search.problem, STATUS_NOT_SUPPORTED,
                          path + ": " + name +
                              " is encrypted with BitLocker; decrypt it (manage-bde -off), then try again");
        case ContentsKind::reFs:
            return refuse(
                search.problem, STATUS_NOT_SUPPORTED,
                path + ": " + name + " is a ReFS volume, which is not supported; use a disk with NTFS");
        case ContentsKind::ntfs:
            if (!ntfsBootSector(head.bytes(), boot)) break;
            if (boot.volumeSize > partition.size) {
                return search.damaged(name + " is truncated: its NTFS volume has " +
                                      std::to_string(boot.volumeSize) + " bytes, and " +
                                      std::to_string(partition.size) + " are there; get a complete image");
            }
            search.partitions.push_back(partition);
            search.partitions.back().serial = boot.serial;
            search.partitions.back().mftStart = boot.mftStart;
            return STATUS_SUCCESS;
        case ContentsKind::other:
        case ContentsKind::container:
            search.others += (search.others.empty() ? "" : ", ") + std::string(contents.name);
            return STATUS_SUCCESS;
        case ContentsKind::unknown:
            break;
    }
    bool backup = false;
    if (forNtfs || contents.kind == ContentsKind::ntfs) {
        status = findBackupBootSector(search, partition, backup);
        if (status < 0) return status;
    }
    if (backup) {
        return search.damaged(
            "the boot sector of " + name +
            " is damaged, its backup copy is intact; restore it (ntfsfix, or chkdsk /f), then try again");
    }
    if (contents.kind == ContentsKind::ntfs) {
        return search.damaged("the boot sector of " + name +
                              " is damaged; repair the volume (chkdsk /f) first");
    }
    if (forNtfs && search.unrecognised.empty()) search.unrecognised = name;
    return STATUS_SUCCESS;
}

NTSTATUS probeTable(Search& search, const std::vector<TableEntry>& entries) {
    for (const TableEntry& entry : entries) {
        std::string name = "partition " + std::to_string(entry.number);
        const Partition& partition = entry.partition;
        if (partition.start >= diskSize(search.disk) ||
            partition.size > diskSize(search.disk) - partition.start) {
            return search.damaged(
                name + " reaches beyond the disk's end; the image is truncated or the table is damaged");
        }
        if (entry.dynamicDisk) {
            return refuse(search.problem, STATUS_NOT_SUPPORTED,
                          diskPath(search.disk) +
                              ": it is a dynamic disk, which is not supported; convert it to a basic one");
        }
        NTSTATUS status = probe(search, partition, entry.forNtfs, name);
        if (status < 0) return status;
    }
    return STATUS_SUCCESS;
}

/* Two volumes that share bytes would destroy each other. */
NTSTATUS refuseOverlaps(const Search& search) {
    std::vector<Partition> sorted = search.partitions;
    std::sort(sorted.begin(), sorted.end(),
              [](const Partition& a, const Partition& b) { return a.start < b.start; });
    for (size_t i = 1; i < sorted.size(); ++i) {
        if (sorted[i].start - sorted[i - 1].start < sorted[i - 1].size) {
            return search.damaged("two of its partitions overlap; repair the partition table first");
        }
    }
    return STATUS_SUCCESS;
}

NTSTATUS nothingFound(const Search& search, bool table) {
    std::string text = diskPath(search.disk) + ": it holds no NTFS volume";
    if (table && !search.unrecognised.empty()) {
        text += "; " + search.unrecognised + " is meant for one but is damaged, encrypted or not formatted";
    } else if (!search.others.empty()) {
        text += " (found: " + search.others + ")";
    } else if (!table) {
        text += " and no partition table";
    }
    text += "; name the disk of a Windows installation";
    return refuse(search.problem, STATUS_UNRECOGNIZED_VOLUME, text);
}

NTSTATUS findVolumes(Search& search) {
    Partition whole;
    whole.size = diskSize(search.disk);
    Head head;
    NTSTATUS status = readHead(search, 0, whole.size, head);
    if (status < 0) return status;
    Contents contents = recogniseContents(head.bytes());
    if (contents.kind == ContentsKind::container) {
        return refuse(
            search.problem, STATUS_NOT_SUPPORTED,
            diskPath(search.disk) + ": it is a " + contents.name +
                " image; name its format (--format, QUILLET_FORMAT), or convert it to a raw one (qemu-img "
                "convert -O raw)");
    }
    bool table = false;
    /* What another file system left outside the first sector doesn't hide a table that was written since. */
    const bool leftOver = contents.kind == ContentsKind::other;
    if (contents.kind == ContentsKind::unknown || leftOver) {
        std::vector<TableEntry> entries;
        TableFault fault;
        TableState mbr = readMbr(search.disk, head.bytes(), search.disk.device->sectorSize(), entries, fault);
        TableState state = mbr;
        if (mbr == TableState::protective || (mbr == TableState::absent && !leftOver))
            state = readGpt(search.disk, entries, fault);
        if (state == TableState::unreadable) return search.unreadable(fault.unread);
        if (state == TableState::damaged || (mbr == TableState::protective && state == TableState::absent)) {
            return search.damaged("its partition table is damaged: " + fault.damage + "; repair it first");
        }
        table = state == TableState::good && (!leftOver || !entries.empty());
        if (table) status = probeTable(search, entries);
    }
    if (!table) status = probe(search, whole, true, "the disk");
    if (status >= 0 && search.partitions.empty()) status = nothingFound(search, table);
    if (status >= 0) status = refuseOverlaps(search);
    return status;
}

} /* namespace */

NTSTATUS diskPartitions(Disk& disk, std::vector<Partition>& partitions, Problem& problem) {
    return guardedRefusing(problem, [&]() -> NTSTATUS {
        partitions.clear();
        Search search{disk, partitions, problem, {}, {}};
        NTSTATUS status = findVolumes(search);
        if (status < 0) partitions.clear();
        return status;
    });
}

} /* namespace offline */
