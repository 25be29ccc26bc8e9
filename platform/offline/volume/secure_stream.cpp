/* The stream of descriptors, $SDS: reading one, and adding one with the entries that lead to it. */
#include "platform/offline/volume/secure_file.h"
/* before everything else */
#include <algorithm>
#include <cerrno>
#include <optional>

#include "platform/offline/descriptor/security_descriptor.h"

namespace offline {
namespace {

/* The stream is in blocks. Every second one is the copy of the one before, and no descriptor crosses from one
 * to the next. */
constexpr uint64_t streamBlock = 256 * 1024; /* bytes */
constexpr uint64_t streamGrain = 16;         /* bytes; where a header may lie */
constexpr uint32_t firstId = 0x100;

/* How many descriptors of one hash and length are compared before another is stored beside them: hashes are
 * not kept from meeting. */
constexpr int mostCompared = 32;

uint32_t hashOf(Bytes descriptor) {
    return ntfs3g::ntfs_security_hash(
        reinterpret_cast<const ntfs3g::SECURITY_DESCRIPTOR_RELATIVE*>(descriptor.data()),
        static_cast<uint32_t>(descriptor.size()));
}

/* ---- Reading ---- */

enum class Copy { unreadable, doubtful, good };

/* One of the two copies. It is good when its header is what the index says and its bytes have the hash that
 * stands there; without the hash it is doubtful, and serves when the other copy is no better. */
Copy readCopy(ntfs3g::ntfs_attr* stream, const SdsEntry& sds, uint64_t offset,
              std::vector<uint8_t>& descriptor) {
    uint8_t header[storedHeader];
    if (!readAttribute(stream, offset, header) || sdsEntry(header) != sds) {
        return Copy::unreadable;
    }
    descriptor.resize(sds.length - storedHeader);
    if (!readAttribute(stream, offset + storedHeader, descriptor)) return Copy::unreadable;
    return hashOf(descriptor) == sds.hash ? Copy::good : Copy::doubtful;
}

/* Whether either copy could be read. */
bool readEntry(ntfs3g::ntfs_attr* stream, const SdsEntry& sds, std::vector<uint8_t>& descriptor) {
    if (sds.length <= storedHeader || sds.length > storedHeader + largestDescriptor) return false;
    const Copy first = readCopy(stream, sds, sds.offset, descriptor);
    if (first == Copy::good) return true;
    std::vector<uint8_t> other;
    const Copy second = sds.offset > UINT64_MAX - streamBlock
                            ? Copy::unreadable
                            : readCopy(stream, sds, sds.offset + streamBlock, other);
    if (second > first) descriptor = std::move(other);
    return std::max(first, second) != Copy::unreadable;
}

/* What the stream holds there is the same as these bytes. */
bool holds(ntfs3g::ntfs_attr* stream, const SdsEntry& sds, Bytes descriptor) {
    std::vector<uint8_t> stored;
    return readEntry(stream, sds, stored) && sameBytes(stored, descriptor);
}

/* The entry of an id, or none. False when the index can't be followed. */
bool findById(Volume& volume, uint32_t id, std::optional<SdsEntry>& found) {
    SecureIndex index;
    return openById(volume, index) && visitEntries(index, keyById(id), [&](const SdsEntry& sds) {
               if (sds.id == id) found = sds;
               return false;
           });
}

/* ---- Storing ---- */

/* The id of an equal one, or 0. */
NTSTATUS findEqual(Volume& volume, ntfs3g::ntfs_attr* stream, uint32_t hash, Bytes descriptor, uint32_t& id) {
    id = 0;
    SecureIndex index;
    int compared = 0;
    const bool followed =
        openByHash(volume, index) && visitEntries(index, keyByHash(hash, 0), [&](const SdsEntry& sds) {
            if (sds.hash != hash || compared == mostCompared) return false;
            if (sds.length != storedHeader + descriptor.size()) return true;
            ++compared;
            if (holds(stream, sds, descriptor)) id = sds.id;
            return id == 0;
        });
    return followed ? STATUS_SUCCESS : unreadable(volume, STATUS_FILE_CORRUPT_ERROR);
}

/* Where the next one may lie: after the end of all others, in a block that is no copy, and in one piece. */
uint64_t offsetAfter(uint64_t end, uint64_t length) {
    uint64_t offset = (end + streamGrain - 1) / streamGrain * streamGrain;
    if (offset / streamBlock % 2 != 0) offset = (offset / streamBlock + 1) * streamBlock;
    if (offset % streamBlock + length > streamBlock) offset = (offset / streamBlock + 2) * streamBlock;
    return offset;
}

/* Gone through once for each opening; then the volume knows. */
NTSTATUS findEnd(Volume& volume) {
    if (volume.nextSecurityId != 0) return STATUS_SUCCESS;
    SecureIndex index;
    uint32_t highest = firstId - 1;
    uint64_t end = 0;
    const bool followed = openById(volume, index) && visitEntries(index, 0, [&](const SdsEntry& sds) {
                              highest = std::max(highest, sds.id);
                              end = std::max(end, sds.offset + sds.length);
                              return true;
                          });
    if (!followed) return unreadable(volume, STATUS_FILE_CORRUPT_ERROR);
    volume.nextSecurityId = uint64_t{highest} + 1;
    volume.securityStreamEnd = end;
    return STATUS_SUCCESS;
}

void put(std::vector<uint8_t>& bytes, uint64_t number, size_t size) {
    for (size_t i = 0; i < size; ++i) bytes.push_back(static_cast<uint8_t>(number >> (8 * i)));
}

void putHeader(std::vector<uint8_t>& bytes, const SdsEntry& sds) {
    put(bytes, sds.hash, 4);
    put(bytes, sds.id, 4);
    put(bytes, sds.offset, 8);
    put(bytes, sds.length, 4);
}

/* Into both copies, and the stream's new size onto the disk: all that the entries will rely on. */
bool writeStream(Volume& volume, ntfs3g::ntfs_attr* stream, const SdsEntry& sds, Bytes descriptor) {
    std::vector<uint8_t> bytes;
    bytes.reserve(sds.length + streamGrain);
    putHeader(bytes, sds);
    bytes.insert(bytes.end(), descriptor.begin(), descriptor.end());
    bytes.resize((bytes.size() + streamGrain - 1) / streamGrain * streamGrain);
    const auto size = static_cast<int64_t>(bytes.size());
    for (const uint64_t offset : {sds.offset, sds.offset + streamBlock}) {
        errno = 0;
        if (ntfs3g::ntfs_attr_pwrite(stream, static_cast<int64_t>(offset), size, bytes.data()) != size) {
            return false;
        }
    }
    return ntfs3g::ntfs_inode_sync(volume.ntfs->secure_ni) == 0;
}

/* An entry as both indexes have it: where its data lies, key, data, and what fills it up. */
bool addEntry(ntfs3g::ntfs_index_context* context, const SdsEntry& sds, bool byHash) {
    constexpr size_t header = 16;
    constexpr uint32_t filler = 0x00490049;
    const size_t keySize = byHash ? 8 : 4;
    std::vector<uint8_t> entry;
    put(entry, header + keySize, 2);
    put(entry, storedHeader, 2);
    put(entry, 0, 4);
    put(entry, header + keySize + storedHeader + (byHash ? 4 : 0), 2);
    put(entry, keySize, 2);
    put(entry, 0, 4);
    if (byHash) put(entry, sds.hash, 4);
    put(entry, sds.id, 4);
    putHeader(entry, sds);
    if (byHash) put(entry, filler, 4);
    errno = 0;
    ntfs3g::ntfs_index_ctx_reinit(context);
    const bool added =
        ntfs3g::ntfs_ie_add(context, reinterpret_cast<ntfs3g::INDEX_ENTRY*>(entry.data())) == 0;
    const int error = errno;
    ntfs3g::ntfs_index_ctx_reinit(context); /* writes the block that was changed */
    errno = error;
    return added;
}

/* The library reports no block that it could not write: so what it wrote is looked for. */
bool leadsTo(const SecureIndex& index, uint64_t key, const SdsEntry& sds) {
    bool found = false;
    return visitEntries(index, key,
                        [&](const SdsEntry& there) {
                            found = there == sds;
                            return false;
                        }) &&
           found;
}

bool addEntries(Volume& volume, const SdsEntry& sds) {
    if (!addEntry(volume.ntfs->secure_xsii, sds, false) || !addEntry(volume.ntfs->secure_xsdh, sds, true) ||
        ntfs3g::ntfs_inode_sync(volume.ntfs->secure_ni) != 0) {
        return false;
    }
    SecureIndex byId, byHash;
    errno = 0;
    return openById(volume, byId) && leadsTo(byId, keyById(sds.id), sds) && openByHash(volume, byHash) &&
           leadsTo(byHash, keyByHash(sds.hash, sds.id), sds);
}

NTSTATUS store(Volume& volume, ntfs3g::ntfs_attr* stream, uint32_t hash, Bytes descriptor, uint32_t& id) {
    NTSTATUS status = findEnd(volume);
    if (status < 0) return status;
    if (volume.nextSecurityId > UINT32_MAX) return STATUS_DISK_FULL;
    if (volume.ntfs->secure_xsii == nullptr || volume.ntfs->secure_xsdh == nullptr)
        return STATUS_FILE_CORRUPT_ERROR;
    const auto length = static_cast<uint32_t>(storedHeader + descriptor.size());
    const SdsEntry sds = {hash, static_cast<uint32_t>(volume.nextSecurityId),
                          offsetAfter(volume.securityStreamEnd, length), length};
    allowReads(volume, readsOfACall);
    status = guarded([&] {
        const bool stored = writeStream(volume, stream, sds, descriptor) && addEntries(volume, sds) &&
                            volume.device.failed >= 0;
        return stored ? STATUS_SUCCESS : libraryStatus(volume, errno);
    });
    if (status < 0) {              /* for want of memory in the middle, too */
        volume.nextSecurityId = 0; /* whatever came of it, it is found out before the next one */
        return changeFailed(volume, status);
    }
    volume.nextSecurityId = uint64_t{sds.id} + 1;
    volume.securityStreamEnd = sds.offset + sds.length;
    id = sds.id;
    return STATUS_SUCCESS;
}

} /* namespace */

NTSTATUS unreadable(const Volume& volume, NTSTATUS otherwise) {
    if (errno == ENOMEM) return STATUS_NO_MEMORY;
    return volume.device.failed < 0 ? volume.device.failed : otherwise;
}

NTSTATUS readStored(Volume& volume, uint32_t id, std::vector<uint8_t>& descriptor) {
    if (volume.ntfs->secure_ni == nullptr) return STATUS_INVALID_SECURITY_DESCR;
    volume.device.failed = STATUS_SUCCESS;
    allowReads(volume, readsOfACall);
    errno = 0;
    std::optional<SdsEntry> sds;
    const AttributePtr stream = openSecure(volume, ntfs3g::AT_DATA, u"$SDS");
    const bool read =
        stream != nullptr && findById(volume, id, sds) && sds && readEntry(stream.get(), *sds, descriptor);
    if (!read) return unreadable(volume, STATUS_INVALID_SECURITY_DESCR);
    return descriptorValid(descriptor) ? STATUS_SUCCESS : STATUS_INVALID_SECURITY_DESCR;
}

NTSTATUS findOrStore(Volume& volume, Bytes descriptor, uint32_t& id) {
    if (volume.ntfs->secure_ni == nullptr) return STATUS_NOT_SUPPORTED;
    volume.device.failed = STATUS_SUCCESS;
    allowReads(volume, readsOfACall);
    errno = 0;
    const AttributePtr stream = openSecure(volume, ntfs3g::AT_DATA, u"$SDS");
    if (stream == nullptr) return unreadable(volume, STATUS_FILE_CORRUPT_ERROR);
    const uint32_t hash = hashOf(descriptor);
    NTSTATUS status = findEqual(volume, stream.get(), hash, descriptor, id);
    if (status >= 0 && id == 0) status = store(volume, stream.get(), hash, descriptor, id);
    return status;
}

} /* namespace offline */
