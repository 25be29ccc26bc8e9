/* Security descriptors. A volume keeps each once, under an id that the files refer to; a walk over a whole
 * volume meets few different ones, so that reading goes by the id, and writing one that was stored before
 * changes just the id. */
#include "platform/offline/volume/open_volume.h"
/* before everything else */
#include <cerrno>

namespace offline {
namespace {

constexpr size_t usualDescriptorSize = 4096;         /* bytes, the first try */
constexpr size_t largestDescriptorSize = 256 * 1024; /* bytes; the library keeps to 64 KiB and its header */
constexpr size_t keptDescriptorBytes = 8 * 1024 * 1024;

std::string_view textOf(Bytes bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

/* The memory for descriptors is bounded, whatever a volume holds. */
void makeRoom(Volume& volume, size_t bytes) {
    if (volume.descriptorBytes + bytes > keptDescriptorBytes) {
        volume.descriptors.clear();
        volume.storedIds.clear();
        volume.descriptorBytes = 0;
    }
    volume.descriptorBytes += bytes;
}

/* Reads what is stored. The library makes a descriptor up where there is none or an invalid one, and then
 * sets errno, which is the only sign of it. */
NTSTATUS readDescriptor(Inode& file, std::vector<uint8_t>& bytes) {
    ntfs3g::SECURITY_CONTEXT context = {};
    context.vol = file.volume.ntfs;
    bytes.resize(usualDescriptorSize);
    while (true) {
        errno = 0;
        int size = ntfs3g::ntfs_get_ntfs_acl(&context, file.inode, reinterpret_cast<char*>(bytes.data()),
                                             bytes.size());
        if (size <= 0 || errno != 0) {
            return file.volume.device.failed ? STATUS_IO_DEVICE_ERROR : STATUS_INVALID_SECURITY_DESCR;
        }
        size_t needed = static_cast<size_t>(size);
        if (needed > largestDescriptorSize) return STATUS_INVALID_SECURITY_DESCR;
        bool fits = needed <= bytes.size();
        bytes.resize(needed);
        if (fits) return descriptorInBounds(bytes) ? STATUS_SUCCESS : STATUS_INVALID_SECURITY_DESCR;
    }
}

/* Whether changing the id in the file's record is all that is needed. */
bool goesById(const FileRecord& record) {
    return record.securityId != 0 && !record.ownDescriptor;
}

NTSTATUS storeThroughLibrary(Volume& volume, FileRef file, Bytes descriptor) {
    forgetRecord(volume);
    Inode inode(volume);
    NTSTATUS status = inode.open(file);
    if (status >= 0) status = storeDescriptor(inode, descriptor);
    NTSTATUS closed = inode.close();
    return status < 0 ? status : closed;
}

} /* namespace */

NTSTATUS storeDescriptor(Inode& file, Bytes descriptor) {
    Volume& volume = file.volume;
    ntfs3g::SECURITY_CONTEXT context = {};
    context.vol = volume.ntfs;
    errno = 0;
    if (ntfs3g::ntfs_set_ntfs_acl(&context, file.inode, reinterpret_cast<const char*>(descriptor.data()),
                                  descriptor.size(), 0) != 0) {
        if (errno == EINVAL) return STATUS_INVALID_SECURITY_DESCR;
        volume.failed = true;
        return libraryStatus(volume, errno);
    }
    if (ntfs3g::ntfs_inode_sync(file.inode) != 0) {
        volume.failed = true;
        return libraryStatus(volume, errno);
    }
    /* An id is given to other files only when it leads to these very bytes. */
    std::vector<uint8_t> stored;
    NTSTATUS status = readDescriptor(file, stored);
    if (status < 0 || !std::equal(stored.begin(), stored.end(), descriptor.begin(), descriptor.end())) {
        volume.failed = true;
        return status < 0 ? status : STATUS_DISK_CORRUPT_ERROR;
    }
    uint32_t id = file.inode->security_id;
    if (test_nino_flag(file.inode, v3_Extensions) && id != 0) {
        makeRoom(volume, 2 * descriptor.size());
        volume.storedIds.emplace(textOf(descriptor), id);
        volume.descriptors.insert_or_assign(id, std::move(stored));
    }
    return STATUS_SUCCESS;
}

NTSTATUS volumeDescriptor(Volume& volume, FileRef file, std::span<const uint8_t>& descriptor) {
    return guarded([&]() -> NTSTATUS {
        descriptor = {};
        NTSTATUS status = loadRecord(volume, file);
        if (status < 0) return status;
        uint32_t id = volume.record.securityId;
        auto known = volume.descriptors.find(id);
        if (id != 0 && known != volume.descriptors.end()) {
            descriptor = known->second;
            return STATUS_SUCCESS;
        }
        Inode inode(volume);
        status = inode.open(file);
        if (status >= 0) status = readDescriptor(inode, volume.lastDescriptor);
        if (status < 0) return status;
        descriptor = volume.lastDescriptor;
        if (id != 0) {
            makeRoom(volume, descriptor.size());
            descriptor = volume.descriptors.emplace(id, volume.lastDescriptor).first->second;
        }
        return inode.close();
    });
}

NTSTATUS volumeSetDescriptor(Volume& volume, FileRef file, std::span<const uint8_t> descriptor) {
    return guarded([&]() -> NTSTATUS {
        if (isMetadata(file)) return STATUS_ACCESS_DENIED;
        if (!descriptorInBounds(descriptor)) return STATUS_INVALID_SECURITY_DESCR;
        NTSTATUS status = beginChange(volume);
        if (status >= 0) status = loadRecord(volume, file);
        if (status < 0) return status;
        auto stored = volume.storedIds.find(textOf(descriptor));
        if (stored == volume.storedIds.end() || !goesById(volume.record)) {
            return storeThroughLibrary(volume, file, descriptor);
        }
        if (stored->second == volume.record.securityId) return STATUS_SUCCESS;
        return writeSecurityId(volume, stored->second);
    });
}

} /* namespace offline */
