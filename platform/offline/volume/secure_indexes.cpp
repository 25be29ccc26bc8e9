/* The two indexes of a volume's descriptors, by hash and by id, and the stream that both point into. The
 * library follows them without looking, so that they are gone through once before a volume may be changed.
 * Structure: the $Secure file of NTFS 3, with the index header, entries and blocks of every NTFS index. */
#include "platform/offline/volume/open_volume.h"
/* before everything else */
#include <algorithm>
#include <memory>
#include <set>

namespace offline {
namespace {

constexpr size_t rootHeader = 16, blockHeader = 24, indexHeader = 16, entryHeader = 16;
constexpr size_t dataSize = 20; /* of an entry, and of the header that stands before a descriptor: the same */
constexpr uint16_t hasSubnode = 1, isEnd = 2;
constexpr int deepest = 16; /* levels of blocks */

struct AttributeCloser {
    void operator()(ntfs3g::ntfs_attr* attribute) const { ntfs3g::ntfs_attr_close(attribute); }
};
using AttributePtr = std::unique_ptr<ntfs3g::ntfs_attr, AttributeCloser>;

AttributePtr openNamed(Volume& volume, ntfs3g::ATTR_TYPES type, std::u16string_view name) {
    return AttributePtr(ntfs3g::ntfs_attr_open(volume.ntfs->secure_ni, type,
                                               const_cast<ntfs3g::ntfschar*>(libraryName(name)),
                                               static_cast<uint32_t>(name.size())));
}

bool readAt(ntfs3g::ntfs_attr* attribute, uint64_t place, std::span<uint8_t> bytes) {
    const auto size = static_cast<int64_t>(bytes.size());
    return attribute != nullptr && place <= static_cast<uint64_t>(attribute->data_size) &&
           ntfs3g::ntfs_attr_pread(attribute, static_cast<int64_t>(place), size, bytes.data()) == size;
}

/* One walk through one index, in the order of its keys. */
struct Walk {
    Volume& volume;
    ntfs3g::ntfs_attr* blocks; /* null: all is in the root */
    ntfs3g::ntfs_attr* descriptors;
    uint32_t blockSize = 0; /* bytes */
    size_t keySize = 0;     /* bytes: a hash and an id, or an id */
    uint64_t last = 0;      /* the key before, as a number; valid when any is set */
    bool any = false;
    std::set<uint64_t> seen = {}; /* blocks */
};

bool nodeIsSound(Walk& walk, Bytes node, int depth);

bool blockIsSound(Walk& walk, uint64_t number, int depth) {
    const ntfs3g::ntfs_volume* ntfs = walk.volume.ntfs;
    const unsigned shift = ntfs->cluster_size <= walk.blockSize ? ntfs->cluster_size_bits : 9u;
    if (walk.blocks == nullptr || depth > deepest || !walk.seen.insert(number).second) return false;
    const auto all = static_cast<uint64_t>(walk.blocks->data_size);
    if (number > all >> shift || number << shift > all - std::min<uint64_t>(all, walk.blockSize))
        return false;
    std::vector<uint8_t> block(walk.blockSize);
    const int64_t done = ntfs3g::ntfs_attr_mst_pread(walk.blocks, static_cast<int64_t>(number << shift), 1,
                                                     walk.blockSize, block.data());
    return done == 1 && std::memcmp(block.data(), "INDX", 4) == 0 &&
           numberAt<uint64_t>(block, 16) == number &&
           nodeIsSound(walk, Bytes(block).subspan(blockHeader), depth);
}

/* The key and data of an entry: above the key before, and the same as what stands before the descriptor. */
bool contentIsSound(Walk& walk, Bytes entry, size_t end) {
    const size_t dataAt = numberAt<uint16_t>(entry, 0);
    if (numberAt<uint16_t>(entry, 10) != walk.keySize || entryHeader + walk.keySize > end) return false;
    if (numberAt<uint16_t>(entry, 2) != dataSize || dataAt < entryHeader + walk.keySize || dataAt > end ||
        end - dataAt < dataSize) {
        return false;
    }
    const Bytes data = entry.subspan(dataAt, dataSize);
    const bool byHash = walk.keySize == 8;
    const uint64_t hash = byHash ? numberAt<uint32_t>(entry, entryHeader) : 0;
    const uint32_t id = numberAt<uint32_t>(entry, entryHeader + (byHash ? 4 : 0));
    const uint64_t key = hash << 32 | id;
    if (walk.any && key <= walk.last) return false;
    walk.last = key;
    walk.any = true;
    if (numberAt<uint32_t>(data, 4) != id || (byHash && numberAt<uint32_t>(data, 0) != hash)) return false;

    uint8_t header[dataSize];
    const auto offset = numberAt<uint64_t>(data, 8);
    const auto length = numberAt<uint32_t>(data, 16);
    const auto all = static_cast<uint64_t>(walk.descriptors->data_size);
    return length > dataSize && offset <= all && length <= all - offset &&
           readAt(walk.descriptors, offset, header) && std::equal(data.begin(), data.end(), header);
}

/* A node from its header on: of the root, or of a block. */
bool nodeIsSound(Walk& walk, Bytes node, int depth) {
    if (node.size() < indexHeader) return false;
    const size_t length = numberAt<uint32_t>(node, 4);
    const bool inner = (node[12] & 1) != 0;
    size_t offset = numberAt<uint32_t>(node, 0);
    if (offset < indexHeader || offset % 8 != 0 || length > node.size()) return false;
    for (;;) {
        const Bytes head = checkedSpan(node.first(length), offset, entryHeader);
        if (head.empty()) return false;
        const size_t size = numberAt<uint16_t>(head, 8);
        const uint16_t flags = numberAt<uint16_t>(head, 12);
        const Bytes entry = checkedSpan(node.first(length), offset, size);
        const size_t tail = inner ? sizeof(uint64_t) : 0;
        if (size % 8 != 0 || entry.size() < entryHeader + tail) return false;
        if (((flags & hasSubnode) != 0) != inner) return false;
        const size_t end = size - tail;
        if (inner && !blockIsSound(walk, numberAt<uint64_t>(entry, end), depth + 1)) return false;
        if ((flags & isEnd) != 0) return true;
        if (!contentIsSound(walk, entry, end)) return false;
        offset += size;
    }
}

bool indexIsSound(Volume& volume, std::u16string_view name, size_t keySize, ntfs3g::ntfs_attr* descriptors) {
    const AttributePtr root = openNamed(volume, ntfs3g::AT_INDEX_ROOT, name);
    if (!root || root->data_size < static_cast<int64_t>(rootHeader + indexHeader) ||
        root->data_size > static_cast<int64_t>(volume.ntfs->mft_record_size)) {
        return false;
    }
    std::vector<uint8_t> bytes(static_cast<size_t>(root->data_size));
    if (!readAt(root.get(), 0, bytes)) return false;
    const AttributePtr blocks = openNamed(volume, ntfs3g::AT_INDEX_ALLOCATION, name);
    Walk walk{volume, blocks.get(), descriptors};
    walk.keySize = keySize;
    walk.blockSize = numberAt<uint32_t>(bytes, 8);
    const bool usual =
        walk.blockSize >= 512 && walk.blockSize <= 65536 && (walk.blockSize & (walk.blockSize - 1)) == 0;
    return usual && nodeIsSound(walk, Bytes(bytes).subspan(rootHeader), 0);
}

} /* namespace */

bool secureIndexesSound(Volume& volume) {
    if (volume.ntfs->secure_ni == nullptr) return true; /* the library stores descriptors in the files then */
    const AttributePtr descriptors = openNamed(volume, ntfs3g::AT_DATA, u"$SDS");
    return descriptors != nullptr && indexIsSound(volume, u"$SDH", 8, descriptors.get()) &&
           indexIsSound(volume, u"$SII", 4, descriptors.get());
}

} /* namespace offline */
