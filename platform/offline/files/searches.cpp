/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/files/searches.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "platform/offline/base/guarded.h"
#include "platform/offline/base/handles.h"
#include "platform/offline/base/progress.h"
#include "platform/offline/base/status.h"
#include "platform/offline/base/system_needed.h"
#include "platform/offline/base/unicode.h"
#include "platform/offline/files/drives.h"
#include "platform/offline/files/entered.h"
#include "platform/offline/files/file_access.h"
#include "platform/offline/files/files_state.h"
#include "platform/offline/files/path_lookup.h"
#include "platform/offline/files/wildcard.h"

namespace offline {
namespace {

/* Listings larger than this are given back at the end of their search, smaller ones serve the next search. */
constexpr size_t entriesKept = 4096;

/* ---- Creating and giving back ---- */

/* Takes a search that has room already, if there is one. The caller has it listed as open by enlist. */
std::unique_ptr<Search> takeSearch() {
    if (filesState().idleSearches.empty()) return std::make_unique<Search>();
    std::unique_ptr<Search> search = std::move(filesState().idleSearches.back());
    filesState().idleSearches.pop_back();
    search->next = 0;
    search->delivered = Search::none;
    search->dotsLeft = 0;
    search->pattern.clear();
    return search;
}

void keepSearch(std::unique_ptr<Search> search) {
    if (search->listing.entries.capacity() > entriesKept) search->listing = {};
    static_cast<void>(guarded([&] { /* without memory it is freed */
                                    filesState().idleSearches.push_back(std::move(search));
                                    return STATUS_SUCCESS;
    }));
}

void closeSearch(void* object) {
    std::unique_ptr<Search> search(static_cast<Search*>(object));
    const auto it =
        std::find(filesState().openSearches.rbegin(), filesState().openSearches.rend(), search.get());
    if (it != filesState().openSearches.rend()) filesState().openSearches.erase(std::next(it).base());
    if (search->volume != nullptr) keepSearch(std::move(search));
}

const HandleType searchType = {closeSearch};

NTSTATUS enlist(std::unique_ptr<Search> search, HANDLE& handle) {
    filesState().openSearches.push_back(search.get());
    handle = handleCreate(searchType, search.get());
    if (handle == nullptr) {
        filesState().openSearches.pop_back();
        return STATUS_NO_MEMORY;
    }
    static_cast<void>(search.release());  // the handle owns it
    return STATUS_SUCCESS;
}

/* ---- What was delivered ---- */

bool searchKnows(const Search& search, const Volume& volume, std::u16string_view relative) {
    if (search.delivered == Search::none || search.volume != &volume) return false;
    const std::u16string_view name = search.listing.name(search.listing.entries[search.delivered]);
    const size_t head = search.directory.empty() ? 0 : search.directory.size() + 1;
    if (relative.size() != head + name.size() || !sameText(relative.substr(head), name)) return false;
    return head == 0 ||
           (relative[head - 1] == u'\\' && sameText(relative.substr(0, head - 1), search.directory));
}

/* The search that delivered the name last, or null. */
const Search* deliveredBy(const Volume& volume, std::u16string_view relative) {
    for (auto it = filesState().openSearches.rbegin(); it != filesState().openSearches.rend(); ++it) {
        if (searchKnows(**it, volume, relative)) return *it;
    }
    return nullptr;
}

/* Whether the search may go into its directory. A walk is a search with others below it, each of what the one
 * above delivered; who asks for a directory by a path of his own is always let in. */
bool mayEnter(const Search& search) {
    if (filesState().openSearches.empty()) enteredForget();
    EntryRef by;
    if (!filesState().openSearches.empty() && !search.directory.empty()) {
        const Search* const above = deliveredBy(*search.volume, search.directory);
        if (above == nullptr) return true;
        by = {above->directoryFile, above->delivered};
    }
    return enterOnce(*search.volume, search.directoryFile, by);
}

/* ---- Records ---- */

FILETIME fileTime(uint64_t time) {
    return {static_cast<DWORD>(time), static_cast<DWORD>(time >> 32)};
}

void fillRecord(std::u16string_view name, const FileInfo& info, WIN32_FIND_DATAW& record) {
    record.dwFileAttributes = info.attributes == 0 ? FILE_ATTRIBUTE_NORMAL : info.attributes;
    record.ftCreationTime = fileTime(info.created);
    record.ftLastAccessTime = fileTime(info.lastAccessed);
    record.ftLastWriteTime = fileTime(info.lastWritten);
    record.nFileSizeHigh = static_cast<DWORD>(info.size >> 32);
    record.nFileSizeLow = static_cast<DWORD>(info.size);
    record.dwReserved0 = info.reparseTag;
    record.dwReserved1 = 0;
    const size_t length = std::min<size_t>(name.size(), MAX_PATH - 1);
    std::copy_n(name.begin(), length, record.cFileName); /* memcpy of short text is slower here */
    record.cFileName[length] = 0;
    record.cAlternateFileName[0] = 0;
}

/* An entry whose own record can't be read is delivered with what the directory knows of it: the walk then
 * meets the trouble under the entry's name, and below it where the directory has it for one too. */
FileInfo entryInfo(const Search& search, const DirectoryEntry& entry) {
    FileInfo info = {};
    if (volumeEntryInfo(*search.volume, search.directoryFile, search.listing, entry, info) >= 0) return info;
    info = {};
    if (entry.directory) info.attributes |= FILE_ATTRIBUTE_DIRECTORY;
    return info;
}

/* A name that no terminated path can spell is none that the platform would have given. */
bool spelled(const Search& search, const DirectoryEntry& entry) {
    const std::u16string_view name = search.listing.name(entry);
    size_t terminators = 0; /* counting takes less than stopping at the first */
    for (const char16_t unit : name) terminators += unit == 0 ? 1 : 0;
    if (!name.empty() && terminators == 0) return true;
    volumeNoteDamage(*search.volume, entry.file);
    return false;
}

bool wanted(const Search& search, std::u16string_view name) {
    return search.pattern.empty() || matches(search.pattern, name);
}

/* "." and ".." both have the directory's own record; nothing looks at the parent's. */
NTSTATUS deliverNext(Search& search, WIN32_FIND_DATAW& record) {
    if (search.dotsLeft > 0) {
        fillRecord(search.dotsLeft == 2 ? u"." : u"..", search.directoryInfo, record);
        search.dotsLeft--;
        return STATUS_SUCCESS;
    }
    while (search.next < search.listing.entries.size()) {
        const DirectoryEntry& entry = search.listing.entries[search.next++];
        const std::u16string_view name = search.listing.name(entry);
        if (!spelled(search, entry) || !wanted(search, name)) continue;
        search.delivered = search.next - 1;
        fillRecord(name, entryInfo(search, entry), record);
        return STATUS_SUCCESS;
    }
    search.delivered = Search::none;
    return STATUS_NO_MORE_FILES;
}

/* ---- Beginning a search ---- */

/* Splits a pattern into the directory, taken apart, and what is looked for in it. Only a last component
 * without wildcards takes part in normalisation. */
NTSTATUS parsePattern(std::u16string_view pattern, DrivePath& directory, std::u16string_view& name) {
    const size_t separator = pathLiteral(pattern) ? pattern.rfind(u'\\') : pattern.find_last_of(u"\\/");
    name = pattern.substr(separator == pattern.npos ? 0 : separator + 1);
    if (hasWildcard(name)) return parseDrivePath(pattern.substr(0, pattern.size() - name.size()), directory);

    const NTSTATUS status = parseDrivePath(pattern, directory);
    if (status < 0) return status;
    if (directory.relative.empty() || directory.directoryOnly) return STATUS_NO_SUCH_FILE;
    const size_t last = directory.relative.rfind(u'\\');
    name = directory.relative.substr(last == directory.relative.npos ? 0 : last + 1);
    directory.relative = directory.relative.substr(0, last == directory.relative.npos ? 0 : last);
    return STATUS_SUCCESS;
}

/* Opens the directory for listing. A reparse point leads elsewhere, and that isn't to be had here. */
NTSTATUS openDirectory(const DrivePath& path, Search& search) {
    search.volume = path.volume;
    search.directory = path.relative;
    NTSTATUS status = lookUpRelative(*path.volume, path.relative, search.directoryFile);
    if (status == STATUS_OBJECT_NAME_NOT_FOUND) return STATUS_OBJECT_PATH_NOT_FOUND;
    if (status < 0) return status;
    status = volumeFileInfo(*path.volume, search.directoryFile, search.directoryInfo);
    if (status < 0) return status;
    if ((search.directoryInfo.attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0)
        return STATUS_OBJECT_PATH_NOT_FOUND;
    if ((search.directoryInfo.attributes & FILE_ATTRIBUTE_DIRECTORY) == 0) return STATUS_NOT_A_DIRECTORY;
    if (!mayEnter(search)) {
        volumeNoteDamage(*path.volume, search.directoryFile);
        return STATUS_FILE_CORRUPT_ERROR;
    }
    status = fileAccess(*path.volume, search.directoryFile, fileListDirectory);
    if (status < 0) return status;
    return volumeList(*path.volume, search.directoryFile, search.listing);
}

/* Leaves the one entry in the listing that look-up takes the name for; by its short name too. */
NTSTATUS pickEntry(Search& search, std::u16string_view name) {
    FileRef file = 0;
    const NTSTATUS status = volumeLookUp(*search.volume, search.directoryFile, name, file);
    if (status == STATUS_OBJECT_NAME_NOT_FOUND) return STATUS_NO_SUCH_FILE;
    if (status < 0) return status;
    std::vector<DirectoryEntry>& entries = search.listing.entries;
    auto picked = entries.end();
    for (auto entry = entries.begin(); entry != entries.end(); ++entry) {
        if (entry->file != file) continue;
        const bool byThisName = equalFolded(search.listing.name(*entry), name);
        if (picked == entries.end() || byThisName) picked = entry;
        if (byThisName) break;
    }
    if (picked == entries.end()) return STATUS_NO_SUCH_FILE;
    entries = {*picked};
    return STATUS_SUCCESS;
}

char letterOf(const Volume& volume) {
    char letter = 'A';
    while (letter < 'Z' && driveVolume(static_cast<char16_t>(letter)) != &volume) ++letter;
    return letter;
}

NTSTATUS beginSearch(LPCWSTR pattern, Search& search, WIN32_FIND_DATAW& record) {
    std::u16string_view text;
    NTSTATUS status = pathText(pattern, text);
    if (status < 0) return status;
    DrivePath path;
    std::u16string_view name;
    status = parsePattern(text, path, name);
    if (status < 0) return status;
    status = openDirectory(path, search);
    if (status < 0) return status;
    if (!hasWildcard(name)) {
        status = pickEntry(search, name);
    } else if (matchesAll(name)) {
        search.dotsLeft = path.relative.empty() ? 0 : 2;
        if (path.relative.empty()) {
            volumeWalkBegins(*search.volume, {.title = "Files of", .letter = letterOf(*search.volume)});
        }
    } else {
        search.pattern = name;
    }
    if (status < 0) return status;
    status = deliverNext(search, record);
    return status == STATUS_NO_MORE_FILES ? STATUS_NO_SUCH_FILE : status;
}

NTSTATUS findFirst(LPCWSTR pattern, WIN32_FIND_DATAW* record, HANDLE& handle) {
    const NTSTATUS status = systemNeeded();
    if (status < 0) return status;
    if (record == nullptr) return STATUS_INVALID_PARAMETER;
    return guarded([&] {
        std::unique_ptr<Search> search = takeSearch();
        NTSTATUS begun = beginSearch(pattern, *search, *record);
        if (begun >= 0) return enlist(std::move(search), handle);
        keepSearch(std::move(search));
        return begun;
    });
}

NTSTATUS findNext(HANDLE handle, WIN32_FIND_DATAW* record) {
    const NTSTATUS status = systemNeeded();
    if (status < 0) return status;
    if (record == nullptr) return STATUS_INVALID_PARAMETER;
    auto* search = static_cast<Search*>(handleObject(handle, searchType));
    if (search == nullptr) return STATUS_INVALID_HANDLE;
    return search->volume == nullptr ? STATUS_NO_MORE_FILES : deliverNext(*search, *record);
}

} /* namespace */

bool searchesKnow(const Volume& volume, std::u16string_view relative, FileRef& file) {
    const Search* const search = deliveredBy(volume, relative);
    if (search == nullptr) return false;
    file = search->listing.entries[search->delivered].file;
    return true;
}

void searchesEnd() {
    for (Search* search : filesState().openSearches) {
        search->volume = nullptr;
        search->delivered = Search::none;
        search->listing = {};
    }
    filesState().idleSearches.clear();
    enteredForget();
}

} /* namespace offline */

HANDLE FindFirstFileW(LPCWSTR pattern, LPWIN32_FIND_DATAW record) {
    HANDLE handle = nullptr;
    return offline::booleanResult(offline::findFirst(pattern, record, handle)) ? handle
                                                                               : INVALID_HANDLE_VALUE;
}

BOOL FindNextFileW(HANDLE search, LPWIN32_FIND_DATAW record) {
    return offline::booleanResult(offline::findNext(search, record));
}

BOOL FindClose(HANDLE search) {
    if (offline::handleObject(search, offline::searchType) == nullptr) {
        return offline::booleanResult(STATUS_INVALID_HANDLE);
    }
    return offline::booleanResult(offline::handleClose(search) ? STATUS_SUCCESS : STATUS_INVALID_HANDLE);
}
