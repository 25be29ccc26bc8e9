/* The volume's file of descriptors, $Secure: the stream $SDS holds each descriptor once, after a header, and
 * a copy of both further on; the index $SII leads there from a descriptor's id, $SDH from its hash.
 * Structure: NTFS 3. Private to this room. */
#ifndef QUILLET_OFFLINE_VOLUME_SECURE_FILE_H
#define QUILLET_OFFLINE_VOLUME_SECURE_FILE_H

#include "platform/offline/volume/open_volume.h"
/* before everything else */
#include <functional>
#include <memory>
#include <string_view>
#include <vector>

namespace offline {

/* ---- Attributes ---- */

struct AttributeCloser {
    void operator()(ntfs3g::ntfs_attr* attribute) const { ntfs3g::ntfs_attr_close(attribute); }
};
using AttributePtr = std::unique_ptr<ntfs3g::ntfs_attr, AttributeCloser>;

/* One of $Secure's attributes; null when it is not there. */
AttributePtr openSecure(Volume& volume, ntfs3g::ATTR_TYPES type, std::u16string_view name);

/* Whether all of the bytes could be read. */
bool readAttribute(ntfs3g::ntfs_attr* attribute, uint64_t offset, std::span<uint8_t> bytes);

/* ---- The indexes ---- */

/* What both indexes say of a descriptor, and the header before it in the stream as well, bit for bit. */
struct SdsEntry {
    uint32_t hash;
    uint32_t id;
    uint64_t offset; /* bytes, of the header */
    uint32_t length; /* bytes, the header's included */
    bool operator==(const SdsEntry&) const = default;
};
constexpr size_t storedHeader = 20; /* bytes that it takes on the disk */

SdsEntry sdsEntry(Bytes header);
inline uint64_t keyById(uint32_t id) {
    return id;
}
inline uint64_t keyByHash(uint32_t hash, uint32_t id) {
    return uint64_t{hash} << 32 | id;
}

/* One of the two, open. */
struct SecureIndex {
    Volume* volume = nullptr;
    std::vector<uint8_t> root; /* its node, from the node's header on */
    AttributePtr blocks;       /* null: all is in the root */
    uint32_t blockSize = 0;    /* bytes */
    unsigned blockShift = 0;   /* of a block's number, to its offset in bytes */
    size_t keySize = 0;        /* bytes: an id, or a hash and an id */
    bool byHash() const { return keySize == 8; }
};

/* False when it is missing, is no such index, or can't be read. May throw std::bad_alloc. */
bool openById(Volume& volume, SecureIndex& index);
bool openByHash(Volume& volume, SecureIndex& index);

/* Calls visit with each entry whose key is not below the first one, in the order of the keys, until it
 * answers false. Every node on the way is checked whole before it is used; enter is asked before a block is
 * read and may refuse it. False when a node is damaged or could not be read, or the keys do not ascend. */
using VisitEntry = std::function<bool(const SdsEntry&)>;
using EnterBlock = std::function<bool(uint64_t number)>;
bool visitEntries(const SecureIndex& index, uint64_t first, const VisitEntry& visit,
                  const EnterBlock& enter = {});

/* ---- Descriptors ---- */

/* Why a descriptor could not be had, after calls of the library before which errno was 0: memory, the disk,
 * or else what the caller says. */
NTSTATUS unreadable(const Volume& volume, NTSTATUS otherwise);

/* The descriptor under an id, valid. STATUS_INVALID_SECURITY_DESCR when there is none or it is not valid;
 * STATUS_IO_DEVICE_ERROR when the disk could not be read. May throw std::bad_alloc. */
NTSTATUS readStored(Volume& volume, uint32_t id, std::vector<uint8_t>& descriptor);

/* The id of an equal descriptor, which is stored when there is none yet: first the descriptor, then the
 * entries that lead to it, so that none ever leads nowhere. The descriptor is valid. May throw
 * std::bad_alloc. */
NTSTATUS findOrStore(Volume& volume, Bytes descriptor, uint32_t& id);

} /* namespace offline */

#endif
