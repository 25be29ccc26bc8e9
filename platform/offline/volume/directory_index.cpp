/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The index of a directory, read in one pass: its root, then the blocks that its bitmap says are in use, in
 * the order of their numbers. What a node's header and its entries say is checked here before it is used. */
#include "platform/offline/volume/directory_index.h"
/* before everything else */
#include <algorithm>
#include <bit>
#include <cerrno>

#include "platform/offline/volume/secure_file.h"

namespace offline {
namespace {

constexpr std::u16string_view indexName = u"$I30";
constexpr size_t rootHeader = 16, blockHeader = 24, nodeHeader = 16, entryHeader = 16;
constexpr size_t smallestBlock = 512, largestBlock = 65536;
constexpr uint8_t innerNode = 1;
constexpr uint16_t hasSubnode = 1, isEnd = 2;

/* Of the name in an entry, which is kept as in the file's own record. */
constexpr size_t createdPlace = entryHeader + 8, writtenPlace = entryHeader + 16,
                 accessedPlace = entryHeader + 32, sizePlace = entryHeader + 48;
constexpr size_t attributesPlace = entryHeader + 56, lengthPlace = entryHeader + 64,
                 typePlace = entryHeader + 65, namePlace = entryHeader + 66;

struct SearchCloser {
    void operator()(ntfs3g::ntfs_attr_search_ctx* search) const { ntfs3g::ntfs_attr_put_search_ctx(search); }
};
using SearchPtr = std::unique_ptr<ntfs3g::ntfs_attr_search_ctx, SearchCloser>;

struct DirectoryIndex {
    Inode& directory;
    const VisitIndexEntry& visit;
    bool& whole;
    uint32_t blockSize = 0;  /* bytes */
    unsigned blockShift = 0; /* of a block's number, to its place in bytes */
    AttributePtr blocks = {};
    std::vector<uint8_t>& used; /* a bit for each block, by its number */
};

NTSTATUS damaged(const DirectoryIndex& index) {
    return libraryStatus(index.directory.volume, 0);
}

/* What the library met. */
NTSTATUS refused(const DirectoryIndex& index) {
    return libraryStatus(index.directory.volume, errno);
}

/* Finds an attribute and gives its value, which is good as long as the search. One that is not there, or not
 * in a record, is damage. */
NTSTATUS findValue(const DirectoryIndex& index, ntfs3g::ntfs_attr_search_ctx& search, ntfs3g::ATTR_TYPES type,
                   std::u16string_view name, Bytes& value) {
    ntfs3g::ntfs_attr_reinit_search_ctx(&search);
    const ntfs3g::ntfschar* const wanted = name.empty() ? ntfs3g::AT_UNNAMED : libraryName(name);
    if (ntfs3g::ntfs_attr_lookup(type, wanted, static_cast<uint32_t>(name.size()), ntfs3g::CASE_SENSITIVE, 0,
                                 nullptr, 0, &search) != 0) {
        return refused(index);
    }
    const auto* const record = reinterpret_cast<const uint8_t*>(search.mrec);
    const auto* const found = reinterpret_cast<const uint8_t*>(search.attr);
    Attribute attribute;
    const bool there = attributeAt({record, index.directory.volume.ntfs->mft_record_size},
                                   static_cast<size_t>(found - record), attribute);
    value = there ? attribute.value : Bytes();
    return value.empty() ? damaged(index) : STATUS_SUCCESS;
}

AttributePtr openPart(const DirectoryIndex& index, ntfs3g::ATTR_TYPES type) {
    return AttributePtr(ntfs3g::ntfs_attr_open(index.directory.inode, type,
                                               const_cast<ntfs3g::ntfschar*>(libraryName(indexName)),
                                               static_cast<uint32_t>(indexName.size())));
}

/* ---- Nodes ---- */

bool isUsed(const DirectoryIndex& index, uint64_t number) {
    if (!index.blocks || number > UINT64_MAX >> index.blockShift) return false;
    const uint64_t bit = (number << index.blockShift) / index.blockSize;
    return bit / 8 < index.used.size() && (index.used[bit / 8] >> (bit % 8) & 1) != 0;
}

bool isInner(Bytes node) {
    return (node[12] & innerNode) != 0;
}

/* The entries of a node, up to the length that its header gives; empty when that does not lie inside. */
Bytes entriesOf(Bytes node) {
    const uint32_t first = numberAt<uint32_t>(node, 0), length = numberAt<uint32_t>(node, 4);
    return first >= nodeHeader && first < length ? checkedSpan(node, 0, length) : Bytes();
}

/* The entry at an offset; empty when it does not lie inside, or is the last one and does not end there. */
Bytes entryAt(Bytes entries, size_t offset) {
    const Bytes head = checkedSpan(entries, offset, entryHeader);
    if (head.empty()) return {};
    const size_t size = numberAt<uint16_t>(head, 8);
    const bool end = (numberAt<uint16_t>(head, 12) & isEnd) != 0;
    if (size < entryHeader || size % 8 != 0 || (end && offset + size != entries.size())) return {};
    return checkedSpan(entries, offset, size);
}

/* The file and name of an entry that is not the last one. */
bool takeName(Bytes entry, IndexEntry& result) {
    const size_t key = numberAt<uint16_t>(entry, 10);
    if (entry.size() < namePlace || (key != 0 && entryHeader + key > entry.size())) return false;
    result.file = numberAt<uint64_t>(entry, 0);
    result.attributes = numberAt<uint32_t>(entry, attributesPlace);
    result.nameType = entry[typePlace];
    result.info = {.size = numberAt<uint64_t>(entry, sizePlace),
                   .created = numberAt<uint64_t>(entry, createdPlace),
                   .lastWritten = numberAt<uint64_t>(entry, writtenPlace),
                   .lastAccessed = numberAt<uint64_t>(entry, accessedPlace)};
    const size_t bytes = entry[lengthPlace] * sizeof(char16_t);
    result.name = checkedSpan(entry, namePlace, bytes);
    return result.name.size() == bytes;
}

/* Whether what an entry leads to, if anything, is a block that is in use. */
bool subnodeFits(const DirectoryIndex& index, Bytes entry, bool inner) {
    if ((numberAt<uint16_t>(entry, 12) & hasSubnode) == 0) return true;
    return inner && entry.size() >= entryHeader + sizeof(uint64_t) &&
           isUsed(index, numberAt<uint64_t>(entry, entry.size() - sizeof(uint64_t)));
}

/* Gives the names of a node, which begins with its header, to the visitor. */
bool visitNode(const DirectoryIndex& index, Bytes node) {
    const Bytes entries = entriesOf(node);
    if (entries.empty()) return false;
    const bool inner = isInner(node);
    for (size_t offset = numberAt<uint32_t>(node, 0);;) {
        const Bytes entry = entryAt(entries, offset);
        if (entry.empty()) return false;
        if (!subnodeFits(index, entry, inner)) index.whole = false;
        if ((numberAt<uint16_t>(entry, 12) & isEnd) != 0) return true;
        IndexEntry taken;
        if (!takeName(entry, taken)) return false;
        index.visit(taken);
        offset += entry.size();
    }
}

/* ---- Blocks ---- */

/* Whether this is the block of that number, and its node fills it. */
bool blockFits(const DirectoryIndex& index, Bytes block, uint64_t position) {
    return std::memcmp(block.data(), "INDX", 4) == 0 &&
           numberAt<uint64_t>(block, 16) == position >> index.blockShift &&
           uint64_t{numberAt<uint32_t>(block, blockHeader + 8)} + blockHeader == block.size();
}

/* What comes of a block whose sectors do not match does not begin as it should. */
NTSTATUS visitBlock(const DirectoryIndex& index, uint64_t position) {
    std::vector<uint8_t>& block = index.directory.volume.indexBlock;
    const int64_t done = ntfs3g::ntfs_attr_mst_pread(index.blocks.get(), static_cast<int64_t>(position), 1,
                                                     index.blockSize, block.data());
    if (done < 0) return refused(index);
    if (done == 0 || !blockFits(index, block, position)) return damaged(index);
    const Bytes node = Bytes(block).subspan(blockHeader);
    if (!updateSequenceFits(block, blockHeader + nodeHeader,
                            blockHeader + size_t{numberAt<uint32_t>(node, 0)}))
        index.whole = false;
    return visitNode(index, node) ? STATUS_SUCCESS : damaged(index);
}

/* Reads which blocks are in use. The bitmap may be longer than the blocks, but not than those of a whole
 * disk. */
NTSTATUS readBitmap(DirectoryIndex& index) {
    const AttributePtr bitmap = openPart(index, ntfs3g::AT_BITMAP);
    if (!bitmap) return refused(index);
    const uint64_t size = static_cast<uint64_t>(bitmap->data_size);
    const uint64_t mostBlocks = index.directory.volume.device.size / smallestBlock;
    if (size == 0 || size > mostBlocks / 8 + sizeof(uint64_t)) return damaged(index);
    if (static_cast<uint64_t>(index.blocks->data_size) / index.blockSize > mostBlocks) index.whole = false;
    index.used.resize(static_cast<size_t>(size));
    return readAttribute(bitmap.get(), 0, index.used) ? STATUS_SUCCESS : refused(index);
}

NTSTATUS visitBlocks(const DirectoryIndex& index) {
    if (index.blockSize > largestBlock) return damaged(index);
    index.directory.volume.indexBlock.resize(index.blockSize);
    for (uint64_t byte = 0; byte < index.used.size(); ++byte) {
        for (unsigned left = index.used[byte]; left != 0; left &= left - 1) {
            const uint64_t number = byte * 8 + static_cast<unsigned>(std::countr_zero(left));
            const NTSTATUS status = visitBlock(index, number * index.blockSize);
            if (status < 0) return status;
        }
    }
    return STATUS_SUCCESS;
}

/* ---- The root ---- */

/* What the root says of the blocks, and where they are. An index that was large may have blocks still when
 * all of it is back in the root. */
NTSTATUS takeRoot(DirectoryIndex& index, Bytes root) {
    if (root.size() < rootHeader + nodeHeader) return damaged(index);
    const auto cluster = index.directory.volume.ntfs->cluster_size;
    index.blockSize = numberAt<uint32_t>(root, 8);
    if (index.blockSize < smallestBlock || !std::has_single_bit(index.blockSize)) return damaged(index);
    index.blockShift = cluster <= index.blockSize ? index.directory.volume.ntfs->cluster_size_bits : 9u;
    errno = 0;
    index.blocks = openPart(index, ntfs3g::AT_INDEX_ALLOCATION);
    if (index.blocks) return readBitmap(index);
    if (errno != ENOENT || index.directory.volume.device.failed) return refused(index);
    return isInner(root.subspan(rootHeader)) ? damaged(index) : STATUS_SUCCESS;
}

} /* namespace */

NTSTATUS visitIndex(Inode& directory, const VisitIndexEntry& visit, bool& whole) {
    whole = true;
    DirectoryIndex index{
        .directory = directory, .visit = visit, .whole = whole, .used = directory.volume.indexBitmap};
    const SearchPtr search(ntfs3g::ntfs_attr_get_search_ctx(directory.inode, nullptr));
    if (!search) return refused(index);
    Bytes name, root;
    NTSTATUS status = findValue(index, *search, ntfs3g::AT_FILE_NAME, {}, name);
    if (status >= 0) status = findValue(index, *search, ntfs3g::AT_INDEX_ROOT, indexName, root);
    if (status >= 0) status = takeRoot(index, root);
    if (status >= 0 && !visitNode(index, root.subspan(rootHeader))) status = damaged(index);
    return status >= 0 && index.blocks ? visitBlocks(index) : status;
}

} /* namespace offline */
