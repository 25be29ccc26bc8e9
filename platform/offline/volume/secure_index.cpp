/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Reading the two indexes of $Secure: headers, nodes and entries are those of every NTFS index. */
#include "platform/offline/volume/secure_file.h"

namespace offline {
namespace {

constexpr size_t rootHeader = 16, blockHeader = 24, nodeHeader = 16, entryHeader = 16;
constexpr size_t sectorSize = 512;
constexpr uint32_t byIdRule = 16, byHashRule = 18;
constexpr uint16_t hasSubnode = 1, isEnd = 2;
constexpr int deepest = 16; /* levels of blocks */

struct Entry {
    bool end; /* the last of a node, which has neither key nor data */
    uint64_t key;
    SdsEntry sds;
    uint64_t subnode; /* valid in an inner node */
};

/* One node as entries. */
struct Node {
    bool inner = false;
    std::vector<Entry> entries;
};

/* Key and data of an entry that is not the last; end is where they end. */
bool takeContent(const SecureIndex& index, Bytes entry, size_t end, Entry& taken) {
    const size_t dataAt = numberAt<uint16_t>(entry, 0);
    if (numberAt<uint16_t>(entry, 10) != index.keySize || entryHeader + index.keySize > end) return false;
    if (numberAt<uint16_t>(entry, 2) != storedHeader || dataAt < entryHeader + index.keySize ||
        dataAt > end || end - dataAt < storedHeader) {
        return false;
    }
    taken.sds = sdsEntry(entry.subspan(dataAt, storedHeader));
    const uint32_t first = numberAt<uint32_t>(entry, entryHeader);
    if (!index.byHash()) {
        taken.key = keyById(first);
        return first == taken.sds.id;
    }
    taken.key = keyByHash(first, numberAt<uint32_t>(entry, entryHeader + 4));
    return taken.key == keyByHash(taken.sds.hash, taken.sds.id);
}

bool takeEntry(const SecureIndex& index, Bytes entry, bool inner, Entry& taken) {
    const uint16_t flags = numberAt<uint16_t>(entry, 12);
    const size_t tail = inner ? sizeof(uint64_t) : 0;
    if (entry.size() % 8 != 0 || entry.size() < entryHeader + tail) return false;
    if (((flags & hasSubnode) != 0) != inner) return false;
    const size_t end = entry.size() - tail;
    taken = {};
    taken.end = (flags & isEnd) != 0;
    if (inner) taken.subnode = numberAt<uint64_t>(entry, end);
    return taken.end || takeContent(index, entry, end, taken);
}

/* A node from its header on: of the root, or of a block. The library relies on the sizes in the header. */
bool takeNode(const SecureIndex& index, Bytes bytes, bool root, Node& node) {
    if (bytes.size() < nodeHeader) return false;
    const size_t length = numberAt<uint32_t>(bytes, 4);
    const size_t allocated = numberAt<uint32_t>(bytes, 8);
    if (allocated > bytes.size() || (!root && allocated != bytes.size()) || length > allocated) return false;
    node.inner = (bytes[12] & 1) != 0;
    node.entries.clear();
    size_t offset = numberAt<uint32_t>(bytes, 0);
    if (offset < nodeHeader || offset % 8 != 0) return false;
    const Bytes used = bytes.first(length);
    for (;;) {
        const Bytes head = checkedSpan(used, offset, entryHeader);
        if (head.empty()) return false;
        const Bytes entry = checkedSpan(used, offset, numberAt<uint16_t>(head, 8));
        Entry taken;
        if (entry.size() < entryHeader || !takeEntry(index, entry, node.inner, taken)) return false;
        node.entries.push_back(taken);
        if (taken.end) return true;
        offset += entry.size();
    }
}

bool readBlock(const SecureIndex& index, uint64_t number, Node& node) {
    if (index.blocks == nullptr) return false;
    const auto all = static_cast<uint64_t>(index.blocks->data_size);
    if (all < index.blockSize || number > (all - index.blockSize) >> index.blockShift) return false;
    std::vector<uint8_t> block(index.blockSize);
    const int64_t done =
        ntfs3g::ntfs_attr_mst_pread(index.blocks.get(), static_cast<int64_t>(number << index.blockShift), 1,
                                    index.blockSize, block.data());
    return done == 1 && std::memcmp(block.data(), "INDX", 4) == 0 &&
           numberAt<uint64_t>(block, 16) == number &&
           updateSequenceFits(block, blockHeader + nodeHeader,
                              blockHeader + size_t{numberAt<uint32_t>(block, blockHeader)}) &&
           takeNode(index, Bytes(block).subspan(blockHeader), false, node);
}

struct Walk {
    const SecureIndex& index;
    uint64_t first;
    const VisitEntry& visit;
    const EnterBlock& enter;
    uint64_t last = 0; /* the key before; valid when any is set */
    bool any = false;
    bool stopped = false;
};

bool walkNode(Walk& walk, const Node& node, int depth);

bool walkBlock(Walk& walk, uint64_t number, int depth) {
    if (depth > deepest || (walk.enter && !walk.enter(number))) return false;
    Node node;
    return readBlock(walk.index, number, node) && walkNode(walk, node, depth);
}

bool walkNode(Walk& walk, const Node& node, int depth) {
    for (const Entry& entry : node.entries) {
        if (!entry.end && entry.key < walk.first) continue;
        if (node.inner && !walkBlock(walk, entry.subnode, depth + 1)) return false;
        if (walk.stopped || entry.end) return true;
        if (walk.any && entry.key <= walk.last) return false;
        walk.last = entry.key;
        walk.any = true;
        walk.stopped = !walk.visit(entry.sds);
        if (walk.stopped) return true;
    }
    return true;
}

bool openIndex(Volume& volume, std::u16string_view name, size_t keySize, uint32_t rule, SecureIndex& index) {
    index.volume = &volume;
    index.keySize = keySize;
    const AttributePtr root = openSecure(volume, ntfs3g::AT_INDEX_ROOT, name);
    if (!root || root->data_size < static_cast<int64_t>(rootHeader + nodeHeader) ||
        root->data_size > static_cast<int64_t>(volume.ntfs->mft_record_size)) {
        return false;
    }
    std::vector<uint8_t> bytes(static_cast<size_t>(root->data_size));
    if (!readAttribute(root.get(), 0, bytes)) return false;
    const uint32_t size = numberAt<uint32_t>(bytes, 8);
    if (numberAt<uint32_t>(bytes, 0) != 0 || numberAt<uint32_t>(bytes, 4) != rule) return false;
    if (size < sectorSize || size > 65536 || !std::has_single_bit(size)) return false;
    index.blockSize = size;
    index.blockShift = volume.ntfs->cluster_size <= size ? volume.ntfs->cluster_size_bits : 9u;
    index.root.assign(bytes.begin() + rootHeader, bytes.end());
    index.blocks = openSecure(volume, ntfs3g::AT_INDEX_ALLOCATION, name);
    return true;
}

} /* namespace */

AttributePtr openSecure(Volume& volume, ntfs3g::ATTR_TYPES type, std::u16string_view name) {
    return AttributePtr(ntfs3g::ntfs_attr_open(volume.ntfs->secure_ni, type,
                                               const_cast<ntfs3g::ntfschar*>(libraryName(name)),
                                               static_cast<uint32_t>(name.size())));
}

bool readAttribute(ntfs3g::ntfs_attr* attribute, uint64_t offset, std::span<uint8_t> bytes) {
    const auto size = static_cast<int64_t>(bytes.size());
    return attribute != nullptr && offset <= static_cast<uint64_t>(attribute->data_size) &&
           ntfs3g::ntfs_attr_pread(attribute, static_cast<int64_t>(offset), size, bytes.data()) == size;
}

bool readAttributePast(Volume& volume, ntfs3g::ntfs_attr* attribute, uint64_t offset,
                       std::span<uint8_t> bytes) {
    const unsigned bits = volume.ntfs->cluster_size_bits;
    const auto initialized = static_cast<uint64_t>(attribute->initialized_size);
    if (!NAttrNonResident(attribute) || NAttrCompressed(attribute) || NAttrEncrypted(attribute)) return false;
    if (offset > initialized || bytes.size() > initialized - offset) return false;
    while (!bytes.empty()) {
        const auto vcn = static_cast<int64_t>(offset >> bits);
        const ntfs3g::runlist_element* const run = ntfs3g::ntfs_attr_find_vcn(attribute, vcn);
        if (run == nullptr || run->lcn < 0 || run->lcn >= volume.ntfs->nr_clusters) return false;
        const uint64_t within = offset - (static_cast<uint64_t>(run->vcn) << bits);
        const uint64_t length = (static_cast<uint64_t>(run->length) << bits) - within;
        const auto count = static_cast<size_t>(std::min<uint64_t>(length, bytes.size()));
        const uint64_t place = (static_cast<uint64_t>(run->lcn) << bits) + within;
        if (place > volume.device.size || count > volume.device.size - place) return false;
        if (diskReadPast(*volume.device.disk, volume.device.start + place, bytes.first(count)) < 0)
            return false;
        offset += count;
        bytes = bytes.subspan(count);
    }
    return true;
}

SdsEntry sdsEntry(Bytes header) {
    return {numberAt<uint32_t>(header, 0), numberAt<uint32_t>(header, 4), numberAt<uint64_t>(header, 8),
            numberAt<uint32_t>(header, 16)};
}

bool openById(Volume& volume, SecureIndex& index) {
    return openIndex(volume, u"$SII", 4, byIdRule, index);
}

bool openByHash(Volume& volume, SecureIndex& index) {
    return openIndex(volume, u"$SDH", 8, byHashRule, index);
}

bool visitEntries(const SecureIndex& index, uint64_t first, const VisitEntry& visit,
                  const EnterBlock& enter) {
    Walk walk{index, first, visit, enter};
    Node root;
    return takeNode(index, index.root, true, root) && walkNode(walk, root, 0);
}

} /* namespace offline */
