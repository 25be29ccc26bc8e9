/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Creating files, directories, links and junctions. */
#include "platform/offline/volume/open_volume.h"
/* before everything else */
#include <cerrno>

#include "platform/offline/descriptor/security_descriptor.h"

namespace offline {
namespace {

constexpr uint32_t settableAttributes =
    FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_ARCHIVE;
constexpr uint32_t junctionTag = 0xA0000003;

bool validName(std::u16string_view name) {
    if (name.empty() || name.size() > longestName) return false;
    return ntfs3g::ntfs_forbidden_chars(libraryName(name), static_cast<int>(name.size()), libraryTrue) == 0;
}

/* Opens a file that is to be changed. */
NTSTATUS openToChange(Inode& inode, FileRef file) {
    NTSTATUS status = beginChange(inode.volume);
    if (status < 0) return status;
    forgetRecord(inode.volume, file);
    return inode.open(file);
}

/* Opens the directory for a new name in it. */
NTSTATUS openFor(Inode& directory, FileRef reference, std::u16string_view name) {
    if (!validName(name)) return STATUS_OBJECT_NAME_INVALID;
    NTSTATUS status = openToChange(directory, reference);
    if (status < 0) return status;
    if (!directory.isDirectory()) return STATUS_NOT_A_DIRECTORY;
    FileRef there = 0;
    status = lookUpIn(directory.volume, directory, name, there);
    if (status >= 0) return STATUS_OBJECT_NAME_COLLISION;
    return status == STATUS_OBJECT_NAME_NOT_FOUND ? STATUS_SUCCESS : status;
}

/* Of several statuses that have all come about, the first failure. */
NTSTATUS firstFailure(NTSTATUS first, NTSTATUS second) {
    return first < 0 ? first : second;
}

void append16(std::vector<uint8_t>& bytes, size_t number) {
    bytes.push_back(static_cast<uint8_t>(number));
    bytes.push_back(static_cast<uint8_t>(number >> 8));
}

/* Structure: the published mount point reparse data. The name for the system and the name to show are both
 * there, each with a terminator. */
std::vector<uint8_t> junctionData(std::u16string_view target) {
    std::u16string names = u"\\??\\";
    names.append(target).push_back(u'\0');
    size_t systemBytes = (names.size() - 1) * 2;
    names.append(target).push_back(u'\0');
    std::vector<uint8_t> data;
    append16(data, junctionTag & 0xFFFF);
    append16(data, junctionTag >> 16);
    append16(data, 8 + names.size() * 2);
    append16(data, 0);
    append16(data, 0);
    append16(data, systemBytes);
    append16(data, systemBytes + 2);
    append16(data, target.size() * 2);
    for (char16_t unit : names) append16(data, unit);
    return data;
}

} /* namespace */

NTSTATUS volumeCreate(Volume& volume, FileRef directory, std::u16string_view name, NewFile kind,
                      Bytes descriptor, FileRef& file) {
    return guarded([&]() -> NTSTATUS {
        if (!descriptorValid(descriptor)) return STATUS_INVALID_SECURITY_DESCR;
        Inode parent(volume), made(volume);
        NTSTATUS status = openFor(parent, directory, name);
        if (status < 0) return status;
        uint32_t id = 0;
        status = securityIdOf(volume, descriptor, id);
        if (status < 0) return status;
        errno = 0;
        made.inode =
            ntfs3g::ntfs_create(parent.inode, id, libraryName(name), static_cast<uint8_t>(name.size()),
                                kind == NewFile::file ? S_IFREG : S_IFDIR);
        if (made.inode == nullptr) return libraryStatus(volume, errno);
        file = MK_MREF(made.inode->mft_no, made.inode->mrec->sequence_number);
        ntfs3g::ntfs_inode_update_times(parent.inode, updateContents);
        status = made.closeIn(parent);
        return firstFailure(status, parent.close());
    });
}

NTSTATUS volumeLink(Volume& volume, FileRef file, FileRef directory, std::u16string_view name) {
    return guarded([&]() -> NTSTATUS {
        if (isMetadata(file) || recordNumberOf(file) == recordNumberOf(directory))
            return STATUS_ACCESS_DENIED;
        Inode parent(volume), linked(volume);
        NTSTATUS status = openFor(parent, directory, name);
        if (status >= 0) forgetRecord(volume, file);
        if (status >= 0) status = linked.open(file);
        if (status >= 0 && linked.isDirectory()) status = STATUS_ACCESS_DENIED;
        if (status < 0) return status;
        errno = 0;
        if (ntfs3g::ntfs_link(linked.inode, parent.inode, libraryName(name),
                              static_cast<uint8_t>(name.size())) != 0) {
            status = libraryStatus(volume, errno);
        } else {
            ntfs3g::ntfs_inode_update_times(linked.inode, ntfs3g::NTFS_UPDATE_CTIME);
            ntfs3g::ntfs_inode_update_times(parent.inode, updateContents);
        }
        /* The directory first: closing the file opens the directory of each of its names and looks the name
         * up. */
        status = firstFailure(status, parent.close());
        return firstFailure(status, linked.close());
    });
}

NTSTATUS volumeCreateJunction(Volume& volume, FileRef directory, std::u16string_view target) {
    return guarded([&]() -> NTSTATUS {
        if (recordNumberOf(directory) < firstOrdinaryRecord) return STATUS_ACCESS_DENIED;
        if (target.empty() || target.size() > 4000) return STATUS_OBJECT_NAME_INVALID;
        Inode inode(volume);
        NTSTATUS status = openToChange(inode, directory);
        if (status < 0) return status;
        if (!inode.isDirectory()) return STATUS_NOT_A_DIRECTORY;
        if (ntfs3g::ntfs_check_empty_dir(inode.inode) != 0) return STATUS_ACCESS_DENIED;
        std::vector<uint8_t> data = junctionData(target);
        errno = 0;
        if (ntfs3g::ntfs_set_ntfs_reparse_data(inode.inode, reinterpret_cast<const char*>(data.data()),
                                               data.size(), 0) != 0) {
            status = libraryStatus(volume, errno);
        }
        return firstFailure(status, inode.close());
    });
}

NTSTATUS volumeSetAttributes(Volume& volume, FileRef file, uint32_t attributes) {
    return guarded([&]() -> NTSTATUS {
        if (isMetadata(file)) return STATUS_ACCESS_DENIED;
        Inode inode(volume);
        NTSTATUS status = openToChange(inode, file);
        if (status < 0) return status;
        uint32_t kept = inode.attributes() & ~settableAttributes;
        inode.inode->flags = static_cast<ntfs3g::FILE_ATTR_FLAGS>(kept | (attributes & settableAttributes));
        NInoFileNameSetDirty(inode.inode);
        ntfs3g::ntfs_inode_update_times(inode.inode, ntfs3g::NTFS_UPDATE_CTIME);
        return inode.close();
    });
}

} /* namespace offline */
