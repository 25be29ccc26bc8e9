/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Looking at files and directories. */
#include "platform/offline/volume/directory_index.h"
/* before everything else */
#include <algorithm>
#include <cerrno>

namespace offline {
namespace {

/* In the attributes that an index has of a file: it is a directory. */
constexpr uint32_t indexedDirectory = 0x10000000;

struct Listing {
    FileRef directory;
    DirectoryListing& result;
    std::vector<DirectoryEntry> aliases = {}; /* short names beside long ones */
    bool strayed = false; /* an entry has no name, or leads to the volume's own metadata from elsewhere */
};

/* Adds a name to the listing's, from the start on. */
std::u16string_view addName(std::u16string& names, size_t start, Bytes name) {
    names.resize(start + name.size() / sizeof(char16_t));
    std::memcpy(names.data() + start, name.data(), name.size());
    return std::u16string_view(names).substr(start);
}

bool isDots(std::u16string_view name) {
    return name == u"." || name == u"..";
}

void addEntry(Listing& listing, const IndexEntry& entry) {
    const uint64_t record = recordNumberOf(entry.file);
    if (record == rootDirectory) return; /* the root directory's entry for itself */
    std::u16string& names = listing.result.names;
    const size_t start = names.size();
    const std::u16string_view name = addName(names, start, entry.name);
    const bool inRoot = recordNumberOf(listing.directory) == rootDirectory;
    const bool metadata = record < firstOrdinaryRecord;
    if (name.empty() || (metadata && !isDots(name) && !(inRoot && name[0] == u'$'))) listing.strayed = true;
    if (name.empty() || metadata || isDots(name)) return names.resize(start);
    std::vector<DirectoryEntry>& entries =
        entry.nameType == ntfs3g::FILE_NAME_DOS ? listing.aliases : listing.result.entries;
    entries.push_back({.file = entry.file,
                       .nameStart = static_cast<uint32_t>(start),
                       .nameLength = static_cast<uint16_t>(name.size()),
                       .directory = (entry.attributes & indexedDirectory) != 0,
                       .reparse = (entry.attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0,
                       .info = static_cast<uint32_t>(listing.result.infos.size())});
    listing.result.infos.push_back(entry.info);
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

/* Whether a name comes before another: by capital letters first, as in an index. */
bool comesBefore(const ntfs3g::ntfs_volume& ntfs, std::u16string_view a, std::u16string_view b) {
    const auto capital = [&](char16_t letter) -> uint16_t {
        return letter < ntfs.upcase_len ? ntfs.upcase[letter] : letter;
    };
    const size_t shorter = std::min(a.size(), b.size());
    size_t same = 0;
    while (same < shorter && a[same] == b[same]) ++same;
    if (same == shorter) return a.size() < b.size();
    const uint16_t left = capital(a[same]), right = capital(b[same]);
    if (left != right) return left < right;
    const auto rest = [same](std::u16string_view name) { return libraryName(name.substr(same)); };
    return ntfs3g::ntfs_names_full_collate(rest(a), static_cast<uint32_t>(a.size() - same), rest(b),
                                           static_cast<uint32_t>(b.size() - same), ntfs3g::CASE_SENSITIVE,
                                           ntfs.upcase, ntfs.upcase_len) < 0;
}

/* The blocks of a large index come by their numbers. */
void sortEntries(const Volume& volume, DirectoryListing& listing) {
    const auto before = [&](const DirectoryEntry& a, const DirectoryEntry& b) {
        return comesBefore(*volume.ntfs, listing.name(a), listing.name(b));
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
        const std::u16string_view name = listing.name(entry);
        if (volume.walk.progress != nullptr) noteMet(volume, entry.file);
        readAhead(volume, listing, entry);
        const RecordFacts* const facts = factsOf(volume, entry.file);
        bool named = facts != nullptr && factsNamed(volume, entry.file, *facts, directory, name);
        if (named) {
            const RecordKind& kind = volume.table.kinds[facts->kind];
            info.attributes = kind.attributes;
            info.reparseTag = kind.reparseTag;
        } else {
            const NTSTATUS status = loadRecord(volume, entry.file);
            if (status < 0) return status;
            info = volume.record.info;
            named = recordNamed(volume, directory, name);
        }
        const bool isDirectory = (info.attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
        if (!named || (!entry.reparse && entry.directory != isDirectory))
            volumeNoteDamage(volume, entry.file);
        const EntryInfo& indexed = listing.infos[entry.info];
        info.size = isDirectory ? 0 : indexed.size;
        info.created = indexed.created;
        info.lastWritten = indexed.lastWritten;
        info.lastAccessed = indexed.lastAccessed;
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
        listing.infos.clear();
        listing.names.clear();
        Inode inode(volume);
        NTSTATUS status = inode.open(directory);
        if (status < 0) return status;
        if (!inode.isDirectory()) return STATUS_NOT_A_DIRECTORY;
        Listing context{directory, listing};
        bool whole = false;
        status = visitIndex(
            inode, [&](const IndexEntry& entry) { addEntry(context, entry); }, whole);
        if (status < 0) return status;
        /* What can be seen of it is as good as ever; what can't is told. */
        if (!whole || context.strayed) volumeNoteDamage(volume, directory);
        keepLoneAliases(context);
        sortEntries(volume, listing);
        return inode.close();
    });
}

} /* namespace offline */
