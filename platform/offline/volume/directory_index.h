/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The index of a directory, as it lies on the disk. Private to this room; include it first. */
#ifndef QUILLET_OFFLINE_VOLUME_DIRECTORY_INDEX_H
#define QUILLET_OFFLINE_VOLUME_DIRECTORY_INDEX_H

#include "platform/offline/volume/open_volume.h"
/* before everything else */
#include <functional>

namespace offline {

/* What an entry says of the file that it names. */
struct IndexEntry {
    FileRef file;
    uint32_t attributes; /* FILE_ATTR_ bits of NTFS */
    uint8_t nameType;    /* FILE_NAME_ of NTFS */
    EntryInfo info;
    Bytes name; /* at most 255 characters, perhaps none; its address need not be even */
};
using VisitIndexEntry = std::function<void(const IndexEntry&)>;

/* Calls visit with every entry of the open directory's index: those of the root, then those of each block
 * that the bitmap says is in use, by the blocks' numbers, which is not the order of the names. What can't be
 * read ends it: STATUS_FILE_CORRUPT_ERROR, which is remembered as damage, or STATUS_IO_DEVICE_ERROR. whole
 * becomes false where all entries are given and a look-up may miss some all the same: a block has no update
 * sequence, or an entry leads to a block that is not in use, or to any from a node that has none below it.
 * May throw what visit throws, or std::bad_alloc. */
NTSTATUS visitIndex(Inode& directory, const VisitIndexEntry& visit, bool& whole);

} /* namespace offline */

#endif
