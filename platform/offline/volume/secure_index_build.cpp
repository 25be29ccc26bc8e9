/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Writing the two indexes of $Secure: entry by entry through the library, or a whole one anew. */
#include "platform/offline/volume/secure_file.h"
/* before everything else */
#include <algorithm>
#include <cerrno>

namespace offline {
namespace {

constexpr size_t rootHeader = 16, blockHeader = 24, nodeHeader = 16, entryHeader = 16, subnodeSize = 8;
constexpr size_t sectorSize = 512;
constexpr size_t sequencePlace = 40; /* of a block's update sequence */
constexpr uint16_t hasSubnode = 1, isEnd = 2;
constexpr size_t writtenAtOnce = 256 * 1024; /* bytes */

void put(uint8_t* at, uint64_t number, size_t size) {
    for (size_t i = 0; i < size; ++i) at[i] = static_cast<uint8_t>(number >> (8 * i));
}

void putEntryHead(std::vector<uint8_t>& entry, uint16_t flags) {
    put(entry.data() + 8, entry.size(), 2);
    put(entry.data() + 12, flags, 2);
}

/* The same with what leads to a block below it. */
void addSubnode(std::vector<uint8_t>& entry, uint64_t block) {
    entry.resize(entry.size() + subnodeSize);
    put(entry.data() + entry.size() - subnodeSize, block, subnodeSize);
    putEntryHead(entry, static_cast<uint16_t>(numberAt<uint16_t>(entry, 12) | hasSubnode));
}

/* The header of a node whose entries take this many bytes. */
void putNodeHeader(uint8_t* node, size_t first, size_t entries, size_t room, bool inner) {
    put(node, first, 4);
    put(node + 4, first + entries, 4);
    put(node + 8, room, 4);
    put(node + 12, inner ? 1 : 0, 4);
}

/* The entries of one level, and the blocks between which they stand, one more; none at the lowest level. */
struct Level {
    std::vector<uint32_t> entries; /* into Builder::entries */
    std::vector<uint64_t> below;   /* numbers of blocks, as an entry has them */
};

/* Makes blocks one after the other. */
struct Builder {
    SecureIndex& index;
    std::span<const SdsEntry> entries;
    std::vector<uint8_t> bytes = {}; /* blocks that are not written yet */
    uint64_t made = 0;               /* blocks */
    uint64_t written = 0;            /* bytes */
    bool good = true;

    size_t firstEntry() const { /* bytes from the block's start */
        return (sequencePlace + 2 * (index.blockSize / sectorSize + 1) + 7) / 8 * 8;
    }
    size_t entriesInBlock(bool inner) const {
        const size_t end = entryHeader + (inner ? subnodeSize : 0);
        const size_t one = indexEntry(&entries[0], index.byHash()).size() + (inner ? subnodeSize : 0);
        return (index.blockSize - firstEntry() - end) / one;
    }
    void write();
    uint64_t makeBlock(const Level& level, size_t from, size_t to);
    Level makeLevel(const Level& level);
};

void Builder::write() {
    const auto size = static_cast<int64_t>(bytes.size());
    errno = 0;
    good = good && ntfs3g::ntfs_attr_pwrite(index.blocks.get(), static_cast<int64_t>(written), size,
                                            bytes.data()) == size;
    written += bytes.size();
    bytes.clear();
}

/* A block of the level's entries from one number up to another; gives its number. */
uint64_t Builder::makeBlock(const Level& level, size_t from, size_t to) {
    const bool inner = !level.below.empty();
    const size_t start = bytes.size(), first = firstEntry();
    const uint64_t number = made++ * index.blockSize >> index.blockShift;
    bytes.resize(start + index.blockSize);
    uint8_t* const block = bytes.data() + start;
    size_t at = first;
    for (size_t i = from; i <= to; ++i) {
        std::vector<uint8_t> entry =
            indexEntry(i < to ? &entries[level.entries[i]] : nullptr, index.byHash());
        if (inner) addSubnode(entry, level.below[i]);
        std::memcpy(block + at, entry.data(), entry.size());
        at += entry.size();
    }
    std::memcpy(block, "INDX", 4);
    put(block + 4, sequencePlace, 2);
    put(block + 6, index.blockSize / sectorSize + 1, 2);
    put(block + 16, number, 8);
    putNodeHeader(block + blockHeader, first - blockHeader, at - first, index.blockSize - blockHeader, inner);
    good = good && ntfs3g::ntfs_mst_pre_write_fixup(reinterpret_cast<ntfs3g::NTFS_RECORD*>(block),
                                                    index.blockSize) == 0;
    if (bytes.size() >= writtenAtOnce) write();
    return number;
}

/* Puts a level's entries into blocks but for one between any two of them: these are the next level. No block
 * stays without entries. */
Level Builder::makeLevel(const Level& level) {
    const size_t all = level.entries.size();
    const size_t most = entriesInBlock(!level.below.empty());
    Level above;
    size_t from = 0, to = std::min(all, most);
    if (all % (most + 1) == 0) --to; /* or nothing would be left for the last */
    while (true) {
        above.below.push_back(makeBlock(level, from, to));
        if (to == all) return above;
        above.entries.push_back(level.entries[to]);
        from = to + 1;
        to = std::min(all, from + most);
    }
}

/* The root leads to one block. */
bool writeRoot(SecureIndex& index, std::u16string_view name, uint64_t block) {
    const AttributePtr root = openSecure(*index.volume, ntfs3g::AT_INDEX_ROOT, name);
    std::vector<uint8_t> bytes(rootHeader);
    if (!readAttribute(root.get(), 0, bytes)) return false;
    std::vector<uint8_t> end = indexEntry(nullptr, index.byHash());
    addSubnode(end, block);
    bytes.resize(rootHeader + nodeHeader);
    putNodeHeader(bytes.data() + rootHeader, nodeHeader, end.size(), nodeHeader + end.size(), true);
    bytes.insert(bytes.end(), end.begin(), end.end());
    const auto size = static_cast<int64_t>(bytes.size());
    return ntfs3g::ntfs_attr_truncate(root.get(), size) == 0 &&
           ntfs3g::ntfs_attr_pwrite(root.get(), 0, size, bytes.data()) == size;
}

/* The first blocks are in use, and no others. */
bool writeBitmap(SecureIndex& index, std::u16string_view name, uint64_t blocks) {
    const AttributePtr bitmap = openSecure(*index.volume, ntfs3g::AT_BITMAP, name);
    if (!bitmap) return false;
    const auto there = static_cast<uint64_t>(bitmap->data_size);
    if (there > index.volume->device.size) return false;
    std::vector<uint8_t> bits(static_cast<size_t>(std::max((blocks / 8 / 8 + 1) * 8, there)));
    for (uint64_t block = 0; block < blocks; ++block)
        bits[static_cast<size_t>(block / 8)] |= static_cast<uint8_t>(1u << block % 8);
    const auto size = static_cast<int64_t>(bits.size());
    return ntfs3g::ntfs_attr_pwrite(bitmap.get(), 0, size, bits.data()) == size;
}

bool addEntry(ntfs3g::ntfs_index_context* context, const SdsEntry& sds, bool byHash) {
    std::vector<uint8_t> entry = indexEntry(&sds, byHash);
    errno = 0;
    ntfs3g::ntfs_index_ctx_reinit(context);
    const bool added =
        ntfs3g::ntfs_ie_add(context, reinterpret_cast<ntfs3g::INDEX_ENTRY*>(entry.data())) == 0;
    const int error = errno;
    ntfs3g::ntfs_index_ctx_reinit(context); /* writes the block that was changed */
    errno = error;
    return added;
}

} /* namespace */

std::vector<uint8_t> indexEntry(const SdsEntry* sds, bool byHash) {
    constexpr uint32_t filler = 0x00490049;
    std::vector<uint8_t> entry(entryHeader);
    if (sds == nullptr) {
        putEntryHead(entry, isEnd);
        return entry;
    }
    const size_t keySize = byHash ? 8 : 4, dataAt = entryHeader + keySize;
    entry.resize(dataAt + storedHeader + (byHash ? 4 : 0));
    uint8_t* const at = entry.data();
    put(at, dataAt, 2);
    put(at + 2, storedHeader, 2);
    put(at + 10, keySize, 2);
    if (byHash) put(at + entryHeader, sds->hash, 4);
    put(at + dataAt - 4, sds->id, 4);
    putHeader(at + dataAt, *sds);
    if (byHash) put(at + dataAt + storedHeader, filler, 4);
    putEntryHead(entry, 0);
    return entry;
}

void putHeader(uint8_t* at, const SdsEntry& sds) {
    put(at, sds.hash, 4);
    put(at + 4, sds.id, 4);
    put(at + 8, sds.offset, 8);
    put(at + 16, sds.length, 4);
}

bool addToIndex(Volume& volume, const SdsEntry& sds, bool byHash) {
    ntfs3g::ntfs_index_context* const context = byHash ? volume.ntfs->secure_xsdh : volume.ntfs->secure_xsii;
    allowReads(volume, readsOfACall);
    return context != nullptr && addEntry(context, sds, byHash);
}

bool buildIndex(SecureIndex& index, std::u16string_view name, std::span<const SdsEntry> entries,
                std::vector<uint32_t> order) {
    allowReads(*index.volume, readsOfACall);
    Builder builder{.index = index, .entries = entries};
    Level level{.entries = std::move(order), .below = {}};
    do level = builder.makeLevel(level);
    while (level.below.size() > 1);
    builder.write();
    return builder.good && writeBitmap(index, name, builder.made) && writeRoot(index, name, level.below[0]);
}

} /* namespace offline */
