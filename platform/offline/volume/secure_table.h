/* SPDX-License-Identifier: GPL-2.0-or-later */
/* All descriptors that a volume stores, by where they lie: some 32 bytes each. Private to this room; include
 * it first. */
#ifndef QUILLET_OFFLINE_VOLUME_SECURE_TABLE_H
#define QUILLET_OFFLINE_VOLUME_SECURE_TABLE_H

#include "platform/offline/volume/ntfs3g.h"
/* before everything else */
#include <cstddef>
#include <memory>
#include <vector>

namespace offline {

struct AttributeCloser {
    void operator()(ntfs3g::ntfs_attr* attribute) const { ntfs3g::ntfs_attr_close(attribute); }
};
using AttributePtr = std::unique_ptr<ntfs3g::ntfs_attr, AttributeCloser>;

/* What both indexes say of a descriptor, and the header before it in the stream as well, bit for bit. */
struct SdsEntry {
    uint32_t hash;
    uint32_t id;
    uint64_t offset; /* bytes, of the header */
    uint32_t length; /* bytes, the header's included */
    bool operator==(const SdsEntry&) const = default;
};

struct SecureTable {
    bool made = false;
    size_t asked = 0; /* descriptors that were looked for in the index of ids before */
    AttributePtr stream;

    std::vector<SdsEntry> entries; /* their ids ascend */
    /* By hash: the number of the first entry of a chain, and after each entry that of the next; from 1 on. */
    std::vector<uint32_t> heads, next;

    /* What of the stream was read at once: the beginnings of its blocks, front to back. */
    bool blocksRead = false;
    uint64_t blocksEnd = 0; /* bytes of the stream */
    std::vector<std::vector<uint8_t>> blocks;

    /* ---- What is still to be written ---- */
    size_t inById = 0, inByHash = 0;     /* how many entries, from the first on, each index has */
    uint64_t tailStart = 0, tailEnd = 0; /* bytes of the stream: from where to where the tail goes */
    std::vector<uint8_t> tail;
};

} /* namespace offline */

#endif
