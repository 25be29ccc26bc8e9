/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The stream of descriptors, $SDS: reading one, and adding one, which is written together with others. */
#include "platform/offline/volume/secure_file.h"
/* before everything else */
#include <algorithm>
#include <cerrno>
#include <optional>

#include "platform/offline/descriptor/security_descriptor.h"

namespace offline {
namespace {

/* No descriptor crosses from one block of the stream to the next. */
constexpr uint64_t streamGrain = 16; /* bytes; where a header may lie */
constexpr uint32_t firstId = 0x100;

/* How many descriptors of one hash and length are compared before another is stored beside them, and how many
 * are looked at: hashes are not kept from meeting. */
constexpr int mostCompared = 32, mostLookedAt = 1000;

/* How much of the stream is kept in memory, of copies none. */
constexpr size_t keptBlocks = 16;

/* ---- Reading ---- */

/* Where the stream's first copies are told from the others. */
constexpr uint64_t blockStart(size_t index) {
    return 2 * index * streamBlock;
}

/* Reads the stream's blocks, front to back, as long as there is room for them. What the disk refuses is not
 * missed here. */
void readBlocks(Volume& volume) {
    SecureTable& table = volume.secure;
    table.blocksRead = true;
    table.blocksEnd = table.tailStart;
    for (size_t i = 0; i < keptBlocks && blockStart(i) < table.blocksEnd; ++i) {
        std::vector<uint8_t> block(
            static_cast<size_t>(std::min(streamBlock, table.blocksEnd - blockStart(i))));
        if (!readAttributePast(volume, table.stream.get(), blockStart(i), block)) return;
        table.blocks.push_back(std::move(block));
    }
}

/* A part of the stream, from memory where it is there. */
bool readStream(const SecureTable& table, uint64_t offset, std::span<uint8_t> bytes) {
    Bytes found;
    if (offset >= table.tailStart && offset < table.tailEnd)
        found = checkedSpan(table.tail, offset - table.tailStart, bytes.size());
    const uint64_t block = offset / streamBlock;
    if (found.empty() && block % 2 == 0 && block / 2 < table.blocks.size())
        found = checkedSpan(table.blocks[static_cast<size_t>(block / 2)], offset % streamBlock, bytes.size());
    if (found.empty()) return readAttribute(table.stream.get(), offset, bytes);
    std::copy(found.begin(), found.end(), bytes.begin());
    return true;
}

enum class Copy { unreadable, doubtful, good };

/* One of the two copies. It is good when its header is what the index says and its bytes have the hash that
 * stands there; without the hash it is doubtful, and serves when the other copy is no better. */
Copy readCopy(const SecureTable& table, const SdsEntry& sds, uint64_t offset,
              std::vector<uint8_t>& descriptor) {
    descriptor.resize(sds.length);
    if (!readStream(table, offset, descriptor) || sdsEntry(descriptor) != sds) return Copy::unreadable;
    descriptor.erase(descriptor.begin(), descriptor.begin() + storedHeader);
    return hashOf(descriptor) == sds.hash ? Copy::good : Copy::doubtful;
}

/* Whether either copy could be read. */
bool readEntry(const SecureTable& table, const SdsEntry& sds, std::vector<uint8_t>& descriptor) {
    if (sds.length <= storedHeader || sds.length > storedHeader + largestDescriptor) return false;
    const Copy first = readCopy(table, sds, sds.offset, descriptor);
    if (first == Copy::good) return true;
    std::vector<uint8_t> other;
    const Copy second = sds.offset > UINT64_MAX - streamBlock
                            ? Copy::unreadable
                            : readCopy(table, sds, sds.offset + streamBlock, other);
    if (second > first) descriptor = std::move(other);
    return std::max(first, second) != Copy::unreadable;
}

/* Opens the stream, once. */
bool openStream(Volume& volume) {
    SecureTable& table = volume.secure;
    if (!table.stream) table.stream = openSecure(volume, ntfs3g::AT_DATA, u"$SDS");
    return table.stream != nullptr;
}

/* The whole index of ids, once it is worth reading; a damaged one is followed for each id. */
void readTable(Volume& volume) {
    constexpr size_t fewest = 16, bytesForOne = 1024 * 1024;
    SecureTable& table = volume.secure;
    if (table.made || ++table.asked <= fewest) return;
    SecureIndex index;
    if (!openById(volume, index)) return;
    const auto all = index.blocks ? static_cast<uint64_t>(index.blocks->data_size) : 0;
    if (table.asked <= fewest + all / bytesForOne) return;
    std::vector<SdsEntry> entries;
    table.asked = 0; /* where it can't be followed, that is not tried for each */
    if (visitEntries(index, 0, [&](const SdsEntry& sds) {
            entries.push_back(sds);
            return true;
        }))
        takeTable(volume, std::move(entries));
}

/* The entry of an id, or none. False when the index can't be followed. */
bool findById(Volume& volume, uint32_t id, std::optional<SdsEntry>& found) {
    readTable(volume);
    if (volume.secure.made) {
        if (const SdsEntry* const sds = entryOf(volume.secure.entries, id)) found = *sds;
        return true;
    }
    SecureIndex index;
    return openById(volume, index) && visitEntries(index, keyById(id), [&](const SdsEntry& sds) {
               if (sds.id == id) found = sds;
               return false;
           });
}

/* ---- Storing ---- */

/* The id of an equal one, or 0. */
uint32_t findEqual(const SecureTable& table, uint32_t hash, Bytes descriptor) {
    int looked = 0, compared = 0;
    std::vector<uint8_t> stored;
    for (const SdsEntry* sds = firstOfHash(table, hash);
         sds != nullptr && looked < mostLookedAt && compared < mostCompared; sds = nextOfHash(table, sds)) {
        ++looked;
        if (sds->hash != hash || sds->length != storedHeader + descriptor.size()) continue;
        ++compared;
        if (readEntry(table, *sds, stored) && sameBytes(stored, descriptor)) return sds->id;
    }
    return 0;
}

/* Where the next one may lie: after the end of all others, in a block that is no copy, and in one piece. */
uint64_t offsetAfter(uint64_t end, uint64_t length) {
    uint64_t offset = (end + streamGrain - 1) / streamGrain * streamGrain;
    if (offset / streamBlock % 2 != 0) offset = (offset / streamBlock + 1) * streamBlock;
    if (offset % streamBlock + length > streamBlock) offset = (offset / streamBlock + 2) * streamBlock;
    return offset;
}

/* Into both copies, and the stream's new size onto the disk: all that the entries will rely on. */
NTSTATUS writeTail(Volume& volume) {
    SecureTable& table = volume.secure;
    if (table.tail.empty()) return STATUS_SUCCESS;
    const auto size = static_cast<int64_t>(table.tail.size());
    beginCall(volume, ntfs3g::FILE_Secure);
    for (const uint64_t offset : {table.tailStart, table.tailStart + streamBlock}) {
        if (ntfs3g::ntfs_attr_pwrite(table.stream.get(), static_cast<int64_t>(offset), size,
                                     table.tail.data()) != size)
            return libraryStatus(volume, errno);
    }
    if (ntfs3g::ntfs_inode_sync(volume.ntfs->secure_ni) != 0 || volume.device.failed < 0)
        return libraryStatus(volume, errno);
    table.tail.clear();
    table.tailStart = table.tailEnd;
    return STATUS_SUCCESS;
}

/* Appends to the tail, after what lies in the same block; a full block is written before the next is begun.
 */
NTSTATUS append(Volume& volume, const SdsEntry& sds, Bytes descriptor) {
    SecureTable& table = volume.secure;
    if (sds.offset / streamBlock != table.tailStart / streamBlock) {
        const NTSTATUS status = writeTail(volume);
        if (status < 0) return changeFailed(volume, status);
    }
    if (table.tail.empty()) table.tailStart = sds.offset;
    const auto at = static_cast<size_t>(sds.offset - table.tailStart);
    table.tail.reserve(streamBlock);
    table.tail.resize((at + sds.length + streamGrain - 1) / streamGrain * streamGrain);
    putHeader(table.tail.data() + at, sds);
    std::copy(descriptor.begin(), descriptor.end(),
              table.tail.begin() + static_cast<ptrdiff_t>(at + storedHeader));
    return STATUS_SUCCESS;
}

NTSTATUS store(Volume& volume, uint32_t hash, Bytes descriptor, uint32_t& id) {
    SecureTable& table = volume.secure;
    const uint32_t highest =
        table.entries.empty() ? firstId - 1 : std::max(firstId - 1, table.entries.back().id);
    if (highest == UINT32_MAX) return STATUS_DISK_FULL;
    const auto length = static_cast<uint32_t>(storedHeader + descriptor.size());
    const SdsEntry sds = {hash, highest + 1, offsetAfter(table.tailEnd, length), length};
    const NTSTATUS status = append(volume, sds, descriptor);
    if (status < 0) return status;
    addToTable(table, sds); /* without the memory for it the next one takes the same place */
    table.tailEnd = sds.offset + sds.length;
    id = sds.id;
    return STATUS_SUCCESS;
}

/* ---- The indexes ---- */

/* From this many entries for a new one on, the library puts that in; else the whole is made anew. */
constexpr size_t fewNew = 32;

std::vector<uint32_t> orderOf(const SecureTable& table, bool byHash) {
    std::vector<uint32_t> order(table.entries.size());
    for (uint32_t i = 0; i < order.size(); ++i) order[i] = i;
    if (!byHash) return order;
    std::sort(order.begin(), order.end(), [&](uint32_t a, uint32_t b) {
        const SdsEntry &left = table.entries[a], &right = table.entries[b];
        return keyByHash(left.hash, left.id) < keyByHash(right.hash, right.id);
    });
    return order;
}

/* Whether the index holds these entries and no others. */
bool holdsAll(const SecureIndex& index, const SecureTable& table, const std::vector<uint32_t>& order) {
    size_t next = 0;
    return visitEntries(index, 0,
                        [&](const SdsEntry& sds) {
                            const bool same = next < order.size() && sds == table.entries[order[next]];
                            ++next;
                            return same;
                        }) &&
           next == order.size();
}

/* Adds what the index does not have yet, from the entry of this number on. */
bool completeIndex(Volume& volume, bool byHash, size_t& there) {
    SecureTable& table = volume.secure;
    const std::u16string_view name = byHash ? u"$SDH" : u"$SII";
    const auto open = [&](SecureIndex& index) {
        return byHash ? openByHash(volume, index) : openById(volume, index);
    };
    const auto few = [&] { return (table.entries.size() - there) * fewNew < table.entries.size(); };
    bool blocks = false;
    while (there < table.entries.size()) {
        SecureIndex index;
        if (!open(index)) return false;
        blocks = index.blocks != nullptr;
        if (blocks && !few()) break;
        if (!addToIndex(volume, table.entries[there], byHash)) return false;
        ++there;
    }
    std::vector<uint32_t> order = orderOf(table, byHash);
    if (there < table.entries.size()) {
        SecureIndex index;
        if (!open(index) || !buildIndex(index, name, table.entries, order)) return false;
    }
    SecureIndex written;
    if (ntfs3g::ntfs_inode_sync(volume.ntfs->secure_ni) != 0 || volume.device.failed < 0) return false;
    allowReads(volume, readsOfACall);
    if (!open(written) || !holdsAll(written, table, order)) return false;
    there = table.entries.size();
    return true;
}

} /* namespace */

uint32_t hashOf(Bytes descriptor) {
    return ntfs3g::ntfs_security_hash(
        reinterpret_cast<const ntfs3g::SECURITY_DESCRIPTOR_RELATIVE*>(descriptor.data()),
        static_cast<uint32_t>(descriptor.size()));
}

NTSTATUS unreadable(const Volume& volume, NTSTATUS otherwise) {
    if (errno == ENOMEM) return STATUS_NO_MEMORY;
    return volume.device.failed < 0 ? volume.device.failed : otherwise;
}

void takeTable(Volume& volume, std::vector<SdsEntry> entries) {
    SecureTable& table = volume.secure;
    table.entries = std::move(entries);
    makeChains(table);
    table.inById = table.inByHash = table.entries.size();
    for (const SdsEntry& sds : table.entries)
        table.tailEnd = std::max(table.tailEnd, sds.offset + sds.length);
    table.tailStart = table.tailEnd;
    table.made = true;
}

NTSTATUS readStored(Volume& volume, uint32_t id, std::vector<uint8_t>& descriptor) {
    if (volume.ntfs->secure_ni == nullptr) return STATUS_INVALID_SECURITY_DESCR;
    volume.device.failed = STATUS_SUCCESS;
    allowReads(volume, readsOfACall);
    errno = 0;
    std::optional<SdsEntry> sds;
    const bool there = openStream(volume) && findById(volume, id, sds) && sds;
    if (volume.secure.made && !volume.secure.blocksRead) readBlocks(volume);
    const bool read = there && readEntry(volume.secure, *sds, descriptor);
    if (!read) return unreadable(volume, STATUS_INVALID_SECURITY_DESCR);
    return descriptorValid(descriptor) ? STATUS_SUCCESS : STATUS_INVALID_SECURITY_DESCR;
}

bool knownId(const Volume& volume, uint32_t hash, Bytes descriptor, uint32_t& id) {
    int looked = 0;
    for (const SdsEntry* sds = firstOfHash(volume.secure, hash); sds != nullptr && looked < mostLookedAt;
         sds = nextOfHash(volume.secure, sds)) {
        ++looked;
        if (sds->hash != hash || sds->length != storedHeader + descriptor.size()) continue;
        const auto known = volume.descriptors.find(sds->id);
        if (known == volume.descriptors.end()) return false; /* the first of several equal ones is shared */
        id = sds->id;
        if (sameBytes(known->second, descriptor)) return true;
    }
    return false;
}

NTSTATUS findOrStore(Volume& volume, uint32_t hash, Bytes descriptor, uint32_t& id) {
    SecureTable& table = volume.secure;
    if (volume.ntfs->secure_ni == nullptr || !table.made || !openStream(volume)) return STATUS_NOT_SUPPORTED;
    volume.device.failed = STATUS_SUCCESS;
    allowReads(volume, readsOfACall);
    errno = 0;
    id = findEqual(table, hash, descriptor);
    return id != 0 ? STATUS_SUCCESS : store(volume, hash, descriptor, id);
}

NTSTATUS writeStored(Volume& volume) {
    SecureTable& table = volume.secure;
    if (table.inById == table.entries.size() && table.inByHash == table.entries.size()) return STATUS_SUCCESS;
    const NTSTATUS status = writeTail(volume);
    if (status < 0) return status;
    beginCall(volume, ntfs3g::FILE_Secure);
    allowReads(volume, readsOfACall);
    errno = 0;
    return completeIndex(volume, false, table.inById) && completeIndex(volume, true, table.inByHash)
               ? STATUS_SUCCESS
               : libraryStatus(volume, errno);
}

} /* namespace offline */
