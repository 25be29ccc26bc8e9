/* SPDX-License-Identifier: GPL-2.0-or-later */
/* What the first bytes of a disk or partition say that it holds. Private to this room. */
#ifndef QUILLET_OFFLINE_VOLUME_CONTENTS_KIND_H
#define QUILLET_OFFLINE_VOLUME_CONTENTS_KIND_H

#include "platform/offline/base/bytes.h"

namespace offline {

enum class ContentsKind {
    unknown,
    ntfs,      /* by name; see ntfsBootSector */
    bitLocker, /* encrypted */
    reFs,
    other,     /* a file system or encryption that has no NTFS in it */
    container, /* an image format that must be converted before its disk can be seen */
};

struct Contents {
    ContentsKind kind = ContentsKind::unknown;
    const char* name = ""; /* for messages */
};

/* How many bytes from the start recogniseContents wants to see; fewer will do. */
constexpr size_t contentsHeadSize = 4096;

Contents recogniseContents(Bytes head);

/* A boot sector's first 512 bytes as an NTFS one. Structure: the BIOS parameter block as NTFS uses it. */
struct NtfsBootSector {
    uint32_t sectorSize = 0; /* bytes */
    uint64_t volumeSize = 0; /* bytes; the backup boot sector after them is not counted */
    uint64_t serial = 0;
    uint64_t mftStart = 0; /* cluster */
};

/* False when it is no NTFS boot sector, or one with a field that no volume can have. */
bool ntfsBootSector(Bytes sector, NtfsBootSector& boot);

} /* namespace offline */

#endif
