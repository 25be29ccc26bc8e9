/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "tests/support/drives.h"

#include "platform/offline/base/handles.h"

namespace offline {
namespace {

/* What a search is still to give, the next last. */
struct Search {
    std::vector<WIN32_FIND_DATAW> left;
};
const HandleType searchType = {[](void* search) { delete static_cast<Search*>(search); }};
const HandleType volumeType = {[](void*) {}};

BOOL failWith(DWORD code) {
    SetLastError(code);
    return FALSE;
}

BOOL nextOf(HANDLE handle, WIN32_FIND_DATAW* record) {
    auto* const search = static_cast<Search*>(handleObject(handle, searchType));
    if (search->left.empty()) return failWith(ERROR_NO_MORE_FILES);
    *record = search->left.back();
    search->left.pop_back();
    return TRUE;
}

/* All but the entries is filled with 0xCC. */
HANDLE searchIn(std::map<std::u16string, File>& files, const std::u16string& path) {
    auto* const search = new Search;
    std::vector<std::u16string> names = files.at(path).below;
    names.insert(names.begin(), {u".", u".."});
    for (; !names.empty(); names.pop_back()) {
        WIN32_FIND_DATAW& record = search->left.emplace_back();
        memset(&record, 0xCC, sizeof record);
        const bool dots = names.size() <= 2;
        record.dwFileAttributes = dots ? directory : files.at(path + u"\\" + names.back()).attributes;
        wide(toUtf8(names.back())).copy(record.cFileName, 259);
        record.cFileName[names.back().size()] = 0;
    }
    return handleCreate(searchType, search);
}

} /* namespace */

File& Drives::add(const std::u16string& path, DWORD attributes) {
    const size_t end = path.rfind(u'\\');
    if (path.size() > 6) files.at(path.substr(0, end)).below.push_back(path.substr(end + 1));
    return files[path] = {attributes};
}

std::u16string Drives::chain(int levels, const std::u16string& name) {
    std::u16string path = u"\\\\?\\c:";
    for (add(path); levels > 0; levels--) add(path += u"\\" + name);
    return path;
}

void Drives::answerCalls() {
    answer.GetFileSecurityW = [this](LPCWSTR path, SECURITY_INFORMATION information, PSECURITY_DESCRIPTOR out,
                                     DWORD size, LPDWORD needed) {
        note("read %u %ws", size, path);
        const ByteVector& stored = files.at(path).descriptor;
        *needed = reported != 0 ? reported : static_cast<DWORD>(stored.size());
        if (information != 15 || reported != 0 || *needed > size) return failWith(ERROR_INSUFFICIENT_BUFFER);
        memcpy(out, stored.data(), stored.size());
        return TRUE;
    };
    answer.SetFileSecurityW = [this](LPCWSTR path, SECURITY_INFORMATION information,
                                     PSECURITY_DESCRIPTOR image) {
        note("write %ws", path);
        EXPECT_EQ(information, 15u);
        ByteVector& stored = files.at(path).descriptor;
        if (!keepsOld) memcpy(stored.data(), image, stored.size());
        return TRUE;
    };
    answer.SetNamedSecurityInfoW = [](LPWSTR path, SE_OBJECT_TYPE type, SECURITY_INFORMATION information,
                                      PSID owner, PSID, PACL list, PACL) -> DWORD {
        const ByteVector mine = sidFromText(admins);
        const bool isOwner = owner != nullptr && memcmp(owner, mine.data(), mine.size()) == 0;
        note("%s %ws",
             information == 1 && isOwner ? "owner"
             : information == 0x80000004 ? "list"
                                         : "?",
             path);
        EXPECT_TRUE(type == SE_FILE_OBJECT && list == nullptr);
        return 0;
    };
    answer.GetFileAttributesW = [this](LPCWSTR path) {
        note("attributes %ws", path);
        return files.at(path).attributes;
    };
    answer.FindFirstFileW = [this](LPCWSTR pattern, LPWIN32_FIND_DATAW record) {
        const std::u16string path = pattern;
        EXPECT_TRUE(path.ends_with(u"\\*.*"));
        const HANDLE search = searchIn(files, path.substr(0, path.size() - 4));
        nextOf(search, record);
        return search;
    };
    answer.FindNextFileW = nextOf;
    answer.FindClose = [](HANDLE search) { return handleClose(search) ? TRUE : FALSE; };
    answer.GetDriveTypeW = [this](LPCWSTR drive) -> UINT {
        static const UINT otherTypes[] = {0, 1, 2, 4, 5, 6};
        return files.contains(std::u16string(u"\\\\?\\") + drive) ? DRIVE_FIXED : otherTypes[drive[0] % 6];
    };
    answer.CreateFileW = [](LPCWSTR path, DWORD access, DWORD sharing, LPSECURITY_ATTRIBUTES,
                            DWORD disposition, DWORD flags, HANDLE) {
        note("volume %ws", path);
        EXPECT_TRUE(access == 0x40000000 && sharing == 7 && disposition == 3 && flags == 0);
        return handleCreate(volumeType, nullptr);
    };
    answer.FlushFileBuffers = [](HANDLE) {
        note("flush");
        return TRUE;
    };
}

} /* namespace offline */
