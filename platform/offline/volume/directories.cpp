/* Looking at files and directories. */
#include "platform/offline/volume/open_volume.h"
/* before everything else */
#include <algorithm>
#include <cerrno>

namespace offline {
namespace {

struct Listing {
    const Volume& volume;
    FileRef directory;
    DirectoryListing& result;
    std::vector<DirectoryEntry> aliases = {}; /* short names beside long ones */
    bool outOfMemory = false;
    bool strayed = false; /* an entry leads to the volume's own metadata, which has none there */
};

bool isDots(const ntfs3g::ntfschar* name, int length) {
    return length >= 1 && length <= 2 && name[0] == u'.' && name[length - 1] == u'.';
}

/* Called by the library for each entry, so that nothing may be thrown. */
int addEntry(void* context, const ntfs3g::ntfschar* name, const int length, const int nameType, const int64_t,
             const ntfs3g::MFT_REF file, const unsigned kind) noexcept {
    auto& listing = *static_cast<Listing*>(context);
    if (length <= 0) listing.strayed = true;
    if (length <= 0 || isDots(name, length)) return 0;
    if (recordNumberOf(file) < firstOrdinaryRecord) {
        if (recordNumberOf(listing.directory) != rootDirectory || name[0] != u'$') listing.strayed = true;
        return 0;
    }
    const NTSTATUS status = guarded([&] {
        DirectoryListing& result = listing.result;
        DirectoryEntry entry = {};
        entry.file = file;
        entry.nameStart = static_cast<uint32_t>(result.names.size());
        entry.nameLength = static_cast<uint16_t>(length);
        entry.directory = kind == NTFS_DT_DIR;
        entry.reparse = kind == NTFS_DT_LNK || kind == NTFS_DT_REPARSE;
        result.names.append(reinterpret_cast<const char16_t*>(name), static_cast<size_t>(length));
        (nameType == ntfs3g::FILE_NAME_DOS ? listing.aliases : result.entries).push_back(entry);
        return STATUS_SUCCESS;
    });
    if (status >= 0) return 0;
    listing.outOfMemory = true;
    errno = ENOMEM;
    return -1;
}

/* A short name stands beside a long one. Where that is missing, it is the only one by which the file can be
 * met. */
void keepLoneAliases(Listing& listing) {
    if (listing.aliases.empty()) return;
    std::vector<FileRef> named;
    for (const DirectoryEntry& entry : listing.result.entries) named.push_back(entry.file);
    std::sort(named.begin(), named.end());
    for (const DirectoryEntry& alias : listing.aliases) {
        if (!std::binary_search(named.begin(), named.end(), alias.file))
            listing.result.entries.push_back(alias);
    }
}

/* The library gives the blocks of a large index in the order of the disk. */
void sortEntries(const Volume& volume, DirectoryListing& listing) {
    const ntfs3g::ntfs_volume* ntfs = volume.ntfs;
    auto before = [&](const DirectoryEntry& a, const DirectoryEntry& b) {
        return ntfs3g::ntfs_names_full_collate(libraryName(listing.name(a)), a.nameLength,
                                               libraryName(listing.name(b)), b.nameLength,
                                               ntfs3g::CASE_SENSITIVE, ntfs->upcase, ntfs->upcase_len) < 0;
    };
    if (!std::is_sorted(listing.entries.begin(), listing.entries.end(), before)) {
        std::sort(listing.entries.begin(), listing.entries.end(), before);
    }
}

/* Whether the directory has an index at all, and its blocks when its root says that there are any: the
 * library takes their absence for that of the name, or for the end of the list. */
bool indexIsThere(Inode& directory) {
    ntfs3g::ntfschar* const name = const_cast<ntfs3g::ntfschar*>(libraryName(u"$I30"));
    constexpr uint32_t length = 4;
    uint8_t header[sizeof(ntfs3g::INDEX_ROOT)];
    ntfs3g::ntfs_attr* root = ntfs3g::ntfs_attr_open(directory.inode, ntfs3g::AT_INDEX_ROOT, name, length);
    if (root == nullptr) return false;
    const bool read = ntfs3g::ntfs_attr_pread(root, 0, sizeof header, header) == sizeof header;
    ntfs3g::ntfs_attr_close(root);
    if (!read) return false;
    const bool blocks =
        (header[offsetof(ntfs3g::INDEX_ROOT, index) + offsetof(ntfs3g::INDEX_HEADER, ih_flags)] &
         ntfs3g::LARGE_INDEX) != 0;
    return !blocks ||
           ntfs3g::ntfs_attr_exist(directory.inode, ntfs3g::AT_INDEX_ALLOCATION, name, length) != 0;
}

NTSTATUS lookUpAs(Volume& volume, Inode& directory, std::u16string_view name, bool exact, FileRef& file) {
    allowReads(volume, readsOfALookUp);
    if (!exact) NVolClearCaseSensitive(volume.ntfs);
    errno = 0;
    uint64_t found =
        ntfs3g::ntfs_inode_lookup_by_name(directory.inode, libraryName(name), static_cast<int>(name.size()));
    int error = errno;
    NVolSetCaseSensitive(volume.ntfs);
    allowReads(volume, readsOfACall);
    if (volume.device.failed < 0) return volume.device.failed;
    if (found != UINT64_MAX) {
        file = found;
        return STATUS_SUCCESS;
    }
    return error == ENOENT && indexIsThere(directory) ? STATUS_OBJECT_NAME_NOT_FOUND
                                                      : libraryStatus(volume, error);
}

/* The next component of a path; the path becomes what comes after it. */
std::u16string_view takeComponent(std::u16string_view& path) {
    size_t end = std::min(path.find(u'\\'), path.size());
    std::u16string_view component = path.substr(0, end);
    path.remove_prefix(std::min(end + 1, path.size()));
    return component;
}

NTSTATUS stepInto(Volume& volume, std::u16string_view component, bool last, FileRef& file) {
    NTSTATUS status = loadRecord(volume, file);
    if (status < 0) return status;
    bool through =
        volume.record.directory && (volume.record.info.attributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0;
    if (!through) return STATUS_OBJECT_PATH_NOT_FOUND;
    status = volumeLookUp(volume, file, component, file);
    if (status == STATUS_OBJECT_NAME_NOT_FOUND && !last) return STATUS_OBJECT_PATH_NOT_FOUND;
    return status;
}

} /* namespace */

NTSTATUS volumeFileInfo(Volume& volume, FileRef file, FileInfo& info) {
    return guarded([&]() -> NTSTATUS {
        NTSTATUS status = loadRecord(volume, file);
        if (status >= 0) info = volume.record.info;
        return status;
    });
}

NTSTATUS lookUpIn(Volume& volume, Inode& directory, std::u16string_view name, FileRef& file) {
    if (name.empty() || name.size() > longestName) return STATUS_OBJECT_NAME_NOT_FOUND;
    NTSTATUS status = lookUpAs(volume, directory, name, true, file);
    return status == STATUS_OBJECT_NAME_NOT_FOUND ? lookUpAs(volume, directory, name, false, file) : status;
}

NTSTATUS volumeEntryInfo(Volume& volume, FileRef directory, const DirectoryListing& listing,
                         const DirectoryEntry& entry, FileInfo& info) {
    return guarded([&]() -> NTSTATUS {
        const NTSTATUS status = loadRecord(volume, entry.file);
        if (status < 0) return status;
        info = volume.record.info;
        const bool kindFits = entry.reparse || entry.directory == volume.record.directory;
        if (!kindFits || !recordNamed(volume, directory, listing.name(entry)))
            volumeNoteDamage(volume, entry.file);
        return STATUS_SUCCESS;
    });
}

NTSTATUS volumeLookUp(Volume& volume, FileRef directory, std::u16string_view name, FileRef& file) {
    return guarded([&]() -> NTSTATUS {
        Inode inode(volume);
        NTSTATUS status = inode.open(directory);
        if (status < 0) return status;
        if (!inode.isDirectory()) return STATUS_NOT_A_DIRECTORY;
        return lookUpIn(volume, inode, name, file);
    });
}

NTSTATUS volumeFind(Volume& volume, std::u16string_view path, FileRef& file) {
    return guarded([&]() -> NTSTATUS {
        if (!path.empty() && path.front() == u'\\') path.remove_prefix(1);
        FileRef current = rootDirectory;
        while (!path.empty()) {
            std::u16string_view component = takeComponent(path);
            if (component.empty()) return STATUS_OBJECT_NAME_INVALID;
            NTSTATUS status = stepInto(volume, component, path.empty(), current);
            if (status < 0) return status;
        }
        file = current;
        return STATUS_SUCCESS;
    });
}

NTSTATUS volumeList(Volume& volume, FileRef directory, DirectoryListing& listing) {
    return guarded([&]() -> NTSTATUS {
        listing.entries.clear();
        listing.names.clear();
        Inode inode(volume);
        NTSTATUS status = inode.open(directory);
        if (status < 0) return status;
        if (!inode.isDirectory()) return STATUS_NOT_A_DIRECTORY;
        Listing context{volume, directory, listing};
        int64_t position = 0;
        errno = 0;
        if (ntfs3g::ntfs_readdir(inode.inode, &position, &context, addEntry) != 0 || volume.device.failed ||
            !indexIsThere(inode)) {
            return context.outOfMemory ? STATUS_NO_MEMORY : libraryStatus(volume, errno);
        }
        /* What can be seen of it is as good as ever; what can't is told. */
        const bool whole = indexBlocksInUse(inode) && !context.strayed;
        if (!whole && !volume.device.failed) volumeNoteDamage(volume, directory);
        keepLoneAliases(context);
        sortEntries(volume, listing);
        return inode.close();
    });
}

} /* namespace offline */
