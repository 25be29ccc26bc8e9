/* SPDX-License-Identifier: GPL-2.0-or-later */
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

/* One of $Secure's attributes; null when it is not there. */
AttributePtr openSecure(Volume& volume, ntfs3g::ATTR_TYPES type, std::u16string_view name);

/* Whether all of the bytes could be read. */
bool readAttribute(ntfs3g::ntfs_attr* attribute, uint64_t offset, std::span<uint8_t> bytes);

/* The same in long reads past the block cache, of what is read once; where the disk refuses them, that is not
 * missed. */
bool readAttributePast(Volume& volume, ntfs3g::ntfs_attr* attribute, uint64_t offset,
                       std::span<uint8_t> bytes);

/* ---- The indexes ---- */

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

/* Adds an entry that the index does not have yet; through the library, which reports no block that it could
 * not write. */
bool addToIndex(Volume& volume, const SdsEntry& sds, bool byHash);

/* Makes an index that has blocks anew, of all entries, in the order of its keys. Whether all was written. May
 * throw std::bad_alloc. */
bool buildIndex(SecureIndex& index, std::u16string_view name, std::span<const SdsEntry> entries,
                std::vector<uint32_t> order);

/* An entry as an index has it, before what leads to a block below; null: the last of a node. */
std::vector<uint8_t> indexEntry(const SdsEntry* sds, bool byHash);

/* The header, of storedHeader bytes. */
void putHeader(uint8_t* at, const SdsEntry& sds);

/* ---- The table ---- */

/* The entry of an id, where ids ascend; null when there is none. */
const SdsEntry* entryOf(const std::vector<SdsEntry>& entries, uint32_t id);

/* The entries of a hash, and others among them; null at the end. */
const SdsEntry* firstOfHash(const SecureTable& table, uint32_t hash);
const SdsEntry* nextOfHash(const SecureTable& table, const SdsEntry* entry);

/* Finds the entries of the table by hash, too. May throw std::bad_alloc. */
void makeChains(SecureTable& table);

/* Takes an entry with an id above all others. May throw std::bad_alloc. */
void addToTable(SecureTable& table, const SdsEntry& sds);

/* Makes the volume's table of what an index of ids says. Its entries ascend. May throw std::bad_alloc. */
void takeTable(Volume& volume, std::vector<SdsEntry> entries);

/* ---- Descriptors ---- */

constexpr uint64_t streamBlock = 256 * 1024; /* bytes; every second one is a copy of the one before */

/* Why a descriptor could not be had, after calls of the library before which errno was 0: memory, the disk,
 * or else what the caller says. */
NTSTATUS unreadable(const Volume& volume, NTSTATUS otherwise);

/* The descriptor under an id, valid. STATUS_INVALID_SECURITY_DESCR when there is none or it is not valid;
 * STATUS_IO_DEVICE_ERROR when the disk could not be read. May throw std::bad_alloc. */
NTSTATUS readStored(Volume& volume, uint32_t id, std::vector<uint8_t>& descriptor);

/* Whether an equal descriptor is among those that the volume remembers, and under which id. */
bool knownId(const Volume& volume, uint32_t hash, Bytes descriptor, uint32_t& id);
uint32_t hashOf(Bytes descriptor);

/* The id of an equal descriptor, which is stored when there is none yet; writeStored writes it. The
 * descriptor is valid. May throw std::bad_alloc. */
NTSTATUS findOrStore(Volume& volume, uint32_t hash, Bytes descriptor, uint32_t& id);

} /* namespace offline */

#endif
