/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Security descriptors of files. A volume keeps each once, under an id that the files refer to; a walk over a
 * whole volume meets few different ones, so that reading goes by the id, and writing one that was stored
 * before changes just the id. */
#include "platform/offline/volume/secure_file.h"
/* before everything else */
#include <cerrno>

#include "platform/offline/descriptor/security_descriptor.h"

namespace offline {
namespace {

constexpr size_t keptDescriptorBytes = 4 * 1024 * 1024;
constexpr size_t keptEntry = 64; /* bytes that an entry of a map takes beside its descriptor, about */

/* The memory for descriptors is bounded, whatever a volume holds. */
void makeRoom(Volume& volume, size_t bytes) {
    if (volume.descriptorBytes + bytes > keptDescriptorBytes) {
        volume.descriptors.clear();
        volume.descriptorBytes = 0;
    }
    volume.descriptorBytes += bytes;
}

/* One that is not valid is remembered as such, so that it is read once as well. */
NTSTATUS descriptorById(Volume& volume, uint32_t id, Bytes& descriptor) {
    auto known = volume.descriptors.find(id);
    if (known == volume.descriptors.end()) {
        std::vector<uint8_t> bytes;
        const NTSTATUS status = readStored(volume, id, bytes);
        if (status == STATUS_INVALID_SECURITY_DESCR) bytes.clear();
        if (status < 0 && status != STATUS_INVALID_SECURITY_DESCR) return status;
        makeRoom(volume, bytes.size() + keptEntry);
        known = volume.descriptors.emplace(id, std::move(bytes)).first;
    }
    descriptor = known->second;
    return descriptor.empty() ? STATUS_INVALID_SECURITY_DESCR : STATUS_SUCCESS;
}

/* The descriptor of a file without an id: an attribute of the file's own. */
NTSTATUS readOwnDescriptor(Inode& file, std::vector<uint8_t>& descriptor) {
    errno = 0;
    const AttributePtr attribute(
        ntfs3g::ntfs_attr_open(file.inode, ntfs3g::AT_SECURITY_DESCRIPTOR, nullptr, 0));
    const auto size = attribute ? static_cast<uint64_t>(attribute->data_size) : 0;
    descriptor.resize(size <= largestDescriptor ? static_cast<size_t>(size) : 0);
    if (size != 0 && readAttribute(attribute.get(), 0, descriptor) && descriptorValid(descriptor)) {
        return STATUS_SUCCESS;
    }
    return unreadable(file.volume, STATUS_INVALID_SECURITY_DESCR);
}

/* Whether changing the id in the file's record is all that is needed. A file without an id may have a
 * descriptor of its own in a further record. */
bool goesById(const FileRecord& record) {
    return record.securityIdOffset != 0 && !record.ownDescriptor &&
           (record.securityId != 0 || record.complete);
}

/* Gives the inode's file the id, and takes away the descriptor that it has of its own. A file of NTFS before
 * version 3 gets the room for an id first. */
bool setIdOfInode(Inode& file, uint32_t id) {
    ntfs3g::ntfs_inode* inode = file.inode;
    if (!test_nino_flag(inode, v3_Extensions)) {
        const AttributePtr information(
            ntfs3g::ntfs_attr_open(inode, ntfs3g::AT_STANDARD_INFORMATION, nullptr, 0));
        if (!information ||
            ntfs3g::ntfs_attr_truncate(information.get(), sizeof(ntfs3g::STANDARD_INFORMATION)) != 0) {
            return false;
        }
        inode->owner_id = 0;
        inode->quota_charged = 0;
        inode->usn = 0;
        set_nino_flag(inode, v3_Extensions);
    }
    inode->security_id = id;
    NInoSetDirty(inode);
    errno = 0;
    return (ntfs3g::ntfs_attr_remove(inode, ntfs3g::AT_SECURITY_DESCRIPTOR, ntfs3g::AT_UNNAMED, 0) == 0 ||
            errno == ENOENT) &&
           ntfs3g::ntfs_inode_sync(inode) == 0;
}

NTSTATUS setIdThroughLibrary(Volume& volume, FileRef file, uint32_t id) {
    forgetRecord(volume, file);
    forgetChangedId(volume, recordNumberOf(file));
    Inode inode(volume);
    NTSTATUS status = inode.open(file);
    if (status < 0) return status;
    if (!setIdOfInode(inode, id)) status = changeFailed(volume, libraryStatus(volume, errno));
    const NTSTATUS closed = inode.close();
    return status < 0 ? status : closed;
}

NTSTATUS findAndKeep(Volume& volume, uint32_t hash, Bytes descriptor, uint32_t& id) {
    const NTSTATUS status = findOrStore(volume, hash, descriptor, id);
    if (status < 0) return status;
    makeRoom(volume, descriptor.size() + keptEntry);
    volume.descriptors.insert_or_assign(id, std::vector<uint8_t>(descriptor.begin(), descriptor.end()));
    return STATUS_SUCCESS;
}

} /* namespace */

NTSTATUS securityIdOf(Volume& volume, Bytes descriptor, uint32_t& id) {
    const uint32_t hash = hashOf(descriptor);
    return knownId(volume, hash, descriptor, id) ? STATUS_SUCCESS : findAndKeep(volume, hash, descriptor, id);
}

NTSTATUS volumeDescriptor(Volume& volume, FileRef file, Bytes& descriptor) {
    return guarded([&]() -> NTSTATUS {
        descriptor = {};
        if (const RecordFacts* const facts = factsOf(volume, file))
            return descriptorById(volume, facts->securityId, descriptor);
        NTSTATUS status = loadRecord(volume, file);
        if (status < 0) return status;
        if (volume.record.securityId != 0)
            return descriptorById(volume, volume.record.securityId, descriptor);
        Inode inode(volume);
        status = inode.open(file);
        if (status >= 0) status = readOwnDescriptor(inode, volume.lastDescriptor);
        if (status < 0) return status;
        descriptor = volume.lastDescriptor;
        return inode.close();
    });
}

NTSTATUS volumeSetDescriptor(Volume& volume, FileRef file, Bytes descriptor) {
    return guarded([&]() -> NTSTATUS {
        if (isMetadata(file)) return STATUS_ACCESS_DENIED;
        uint32_t id = 0, hash = hashOf(descriptor);
        const bool known = knownId(volume, hash, descriptor, id);
        if (!known && !descriptorValid(descriptor)) return STATUS_INVALID_SECURITY_DESCR;
        NTSTATUS status = beginChange(volume);
        RecordFacts* const facts = status >= 0 ? factsOf(volume, file) : nullptr;
        if (status >= 0 && facts == nullptr) status = loadRecord(volume, file);
        if (status >= 0 && !known) {
            beginCall(volume, file);
            status = findAndKeep(volume, hash, descriptor, id);
        }
        if (status < 0) return status;
        if (facts != nullptr) {
            if (id != facts->securityId) changeSecurityId(volume, file, *facts, id);
            return STATUS_SUCCESS;
        }
        if (!goesById(volume.record)) return setIdThroughLibrary(volume, file, id);
        return id == volume.record.securityId ? STATUS_SUCCESS : writeSecurityId(volume, id);
    });
}

} /* namespace offline */
