/* The blocks of a directory's index. */
#include "platform/offline/volume/secure_file.h"
/* before everything else */
#include <algorithm>
#include <bit>

namespace offline {
namespace {

constexpr std::u16string_view indexName = u"$I30";
constexpr size_t rootHeader = 16, blockHeader = 24, nodeHeader = 16, entryHeader = 16;
constexpr size_t smallestBlock = 512, largestBlock = 65536;
constexpr uint8_t innerNode = 1;
constexpr uint16_t hasSubnode = 1, isEnd = 2;

struct DirectoryIndex {
    Inode& directory;
    uint32_t blockSize = 0;  /* bytes */
    unsigned blockShift = 0; /* of a block's number, to its place in bytes */
    AttributePtr blocks = {};
    std::vector<uint8_t>& used; /* a bit for each block, by its number */
};

AttributePtr openPart(const DirectoryIndex& index, ntfs3g::ATTR_TYPES type) {
    return AttributePtr(ntfs3g::ntfs_attr_open(index.directory.inode, type,
                                               const_cast<ntfs3g::ntfschar*>(libraryName(indexName)),
                                               static_cast<uint32_t>(indexName.size())));
}

bool isUsed(const DirectoryIndex& index, uint64_t number) {
    if (number > UINT64_MAX >> index.blockShift) return false;
    const uint64_t bit = (number << index.blockShift) / index.blockSize;
    return bit / 8 < index.used.size() && (index.used[bit / 8] >> (bit % 8) & 1) != 0;
}

bool isInner(Bytes node) {
    return node.size() >= nodeHeader && (node[12] & innerNode) != 0;
}

/* Whether all blocks below the node, which begins with its header, are in use. */
bool subnodesUsed(const DirectoryIndex& index, Bytes node) {
    const Bytes entries = checkedSpan(node, 0, numberAt<uint32_t>(node, 4));
    for (size_t offset = numberAt<uint32_t>(node, 0);;) {
        const Bytes head = checkedSpan(entries, offset, entryHeader);
        if (head.empty()) return false;
        const size_t size = numberAt<uint16_t>(head, 8);
        const uint16_t flags = numberAt<uint16_t>(head, 12);
        const Bytes entry = checkedSpan(entries, offset, size);
        if ((flags & hasSubnode) != 0 &&
            (entry.size() < entryHeader + sizeof(uint64_t) ||
             !isUsed(index, numberAt<uint64_t>(entry, entry.size() - sizeof(uint64_t))))) {
            return false;
        }
        if ((flags & isEnd) != 0) return true;
        if (entry.size() < entryHeader) return false;
        offset += size;
    }
}

/* Each block that is in use, whether it was read as it should, and what it leads to. */
bool blocksLeadToUsed(const DirectoryIndex& index) {
    std::vector<uint8_t>& block = index.directory.volume.indexBlock;
    block.resize(index.blockSize);
    const auto count = static_cast<uint64_t>(index.blocks->data_size) / index.blockSize;
    for (uint64_t bit = 0; bit < count && bit / 8 < index.used.size(); ++bit) {
        if ((index.used[bit / 8] >> (bit % 8) & 1) == 0) continue;
        if (ntfs3g::ntfs_attr_mst_pread(index.blocks.get(), static_cast<int64_t>(bit * index.blockSize), 1,
                                        index.blockSize, block.data()) != 1) {
            return false;
        }
        const Bytes node = Bytes(block).subspan(blockHeader);
        if (!updateSequenceFits(block, blockHeader + nodeHeader,
                                blockHeader + size_t{numberAt<uint32_t>(node, 0)}))
            return false;
        if (isInner(node) && !subnodesUsed(index, node)) return false;
    }
    return true;
}

} /* namespace */

bool indexBlocksInUse(Inode& directory) {
    DirectoryIndex index{.directory = directory, .used = directory.volume.indexBitmap};
    const AttributePtr root = openPart(index, ntfs3g::AT_INDEX_ROOT);
    const auto most = static_cast<int64_t>(directory.volume.ntfs->mft_record_size);
    if (!root || root->data_size < static_cast<int64_t>(rootHeader + nodeHeader) || root->data_size > most)
        return false;
    std::vector<uint8_t>& bytes = directory.volume.indexRoot;
    bytes.resize(static_cast<size_t>(root->data_size));
    if (!readAttribute(root.get(), 0, bytes)) return false;
    const Bytes node = Bytes(bytes).subspan(rootHeader);
    if (!isInner(node)) return true; /* there are no blocks */
    index.blockSize = numberAt<uint32_t>(bytes, 8);
    if (index.blockSize < smallestBlock || index.blockSize > largestBlock ||
        !std::has_single_bit(index.blockSize)) {
        return false;
    }
    const auto cluster = directory.volume.ntfs->cluster_size;
    index.blockShift = cluster <= index.blockSize ? directory.volume.ntfs->cluster_size_bits : 9u;
    index.blocks = openPart(index, ntfs3g::AT_INDEX_ALLOCATION);
    const AttributePtr bitmap = openPart(index, ntfs3g::AT_BITMAP);
    if (!index.blocks || !bitmap) return false;
    const uint64_t blocks = static_cast<uint64_t>(index.blocks->data_size) / index.blockSize;
    const uint64_t size = std::min<uint64_t>(static_cast<uint64_t>(bitmap->data_size), blocks / 8 + 1);
    if (blocks > directory.volume.device.size / smallestBlock) return false;
    index.used.resize(static_cast<size_t>(size));
    return readAttribute(bitmap.get(), 0, index.used) && subnodesUsed(index, node) && blocksLeadToUsed(index);
}

} /* namespace offline */
