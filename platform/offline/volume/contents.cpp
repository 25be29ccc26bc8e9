/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The unnamed data of files. */
#include "platform/offline/volume/open_volume.h"
/* before everything else */
#include <sys/mman.h>

#include <algorithm>
#include <cerrno>

namespace offline {
namespace {

constexpr uint32_t fileAttributeEncrypted = 0x4000;
constexpr size_t chunk = 1024 * 1024; /* bytes; one call of the library */

struct DataCloser {
    void operator()(ntfs3g::ntfs_attr* data) const { ntfs3g::ntfs_attr_close(data); }
};
using DataPtr = std::unique_ptr<ntfs3g::ntfs_attr, DataCloser>;

/* Where the data of a reparse point is, only the program knows that made it one; that of an encrypted file is
 * not ours to read. */
NTSTATUS openData(Inode& inode, FileRef file, DataPtr& data) {
    NTSTATUS status = inode.open(file);
    if (status < 0) return status;
    if (inode.isDirectory()) return STATUS_ACCESS_DENIED;
    if ((inode.attributes() & (FILE_ATTRIBUTE_REPARSE_POINT | fileAttributeEncrypted)) != 0) {
        return STATUS_NOT_SUPPORTED;
    }
    errno = 0;
    data.reset(ntfs3g::ntfs_attr_open(inode.inode, ntfs3g::AT_DATA, nullptr, 0));
    return data != nullptr && inode.volume.device.failed >= 0 ? STATUS_SUCCESS
                                                              : libraryStatus(inode.volume, errno);
}

/* Makes room for a file of this size and an eighth more, which costs nothing until it is used. A large buffer
 * is put on large pages, as far as the system has them: first touching it is a good part of reading a file.
 */
void reserveRoom(std::vector<uint8_t>& bytes, size_t size) {
    constexpr size_t largePage = size_t{2} << 20;
    bytes.reserve(size + size / 8);
    const auto start = reinterpret_cast<uintptr_t>(bytes.data());
    const uintptr_t first = (start + largePage - 1) / largePage * largePage;
    const uintptr_t end = (start + bytes.capacity()) / largePage * largePage;
    if (first < end) madvise(bytes.data() + (first - start), end - first, MADV_HUGEPAGE);
}

/* Lengthens the buffer as it goes, so that what is cleared and read over lies in the processor's caches. */
NTSTATUS readData(Volume& volume, ntfs3g::ntfs_attr* data, size_t size, std::vector<uint8_t>& bytes) {
    for (size_t offset = 0; offset < size;) {
        size_t count = std::min(chunk, size - offset);
        bytes.resize(offset + count);
        errno = 0;
        allowReads(volume, readsOfACall);
        int64_t done = ntfs3g::ntfs_attr_pread(data, static_cast<int64_t>(offset),
                                               static_cast<int64_t>(count), bytes.data() + offset);
        if (done <= 0 || volume.device.failed < 0) return libraryStatus(volume, errno);
        offset += static_cast<size_t>(done);
    }
    return STATUS_SUCCESS;
}

NTSTATUS writeData(Volume& volume, ntfs3g::ntfs_attr* data, uint64_t offset, Bytes bytes) {
    while (!bytes.empty()) {
        size_t count = std::min(chunk, bytes.size());
        errno = 0;
        allowReads(volume, readsOfACall);
        int64_t done = ntfs3g::ntfs_attr_pwrite(data, static_cast<int64_t>(offset),
                                                static_cast<int64_t>(count), bytes.data());
        if (done <= 0 || volume.device.failed < 0) return libraryStatus(volume, errno);
        offset += static_cast<uint64_t>(done);
        bytes = bytes.subspan(static_cast<size_t>(done));
    }
    return STATUS_SUCCESS;
}

} /* namespace */

NTSTATUS volumeReadFile(Volume& volume, FileRef file, uint64_t limit, std::vector<uint8_t>& bytes) {
    return guarded([&]() -> NTSTATUS {
        bytes.clear();
        Inode inode(volume);
        DataPtr data;
        NTSTATUS status = openData(inode, file, data);
        if (status < 0) return status;
        uint64_t size = static_cast<uint64_t>(data->data_size);
        /* A file may have holes, but one that is larger than its volume is nothing to load. */
        if (size > volume.device.size) return libraryStatus(volume, 0);
        if (size > limit) return STATUS_INSUFFICIENT_RESOURCES;
        reserveRoom(bytes, static_cast<size_t>(size));
        status = readData(volume, data.get(), static_cast<size_t>(size), bytes);
        data.reset();
        if (status < 0) bytes.clear();
        return status;
    });
}

NTSTATUS volumeWriteFile(Volume& volume, FileRef file, uint64_t offset, Bytes bytes) {
    return guarded([&]() -> NTSTATUS {
        if (isMetadata(file)) return STATUS_ACCESS_DENIED;
        if (offset > INT64_MAX - bytes.size()) return STATUS_INVALID_PARAMETER;
        NTSTATUS status = beginChange(volume);
        if (status < 0) return status;
        forgetRecord(volume, file);
        Inode inode(volume);
        DataPtr data;
        status = openData(inode, file, data);
        if (status < 0) return status;
        status = writeData(volume, data.get(), offset, bytes);
        if (NAttrCompressed(data.get()) && ntfs3g::ntfs_attr_pclose(data.get()) != 0 && status >= 0) {
            status = libraryStatus(volume, errno);
        }
        data.reset();
        if (status < 0) changeFailed(volume, status);
        ntfs3g::ntfs_inode_update_times(inode.inode, updateContents);
        NTSTATUS closed = inode.close();
        return status < 0 ? status : closed;
    });
}

} /* namespace offline */
