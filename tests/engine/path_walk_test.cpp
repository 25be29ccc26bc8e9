#include <cstring>
#include <map>

#include "sidchng/sidchng.h"
#include "tests/engine/scripted.h"

namespace {

constexpr DWORD file = FILE_ATTRIBUTE_NORMAL;
constexpr DWORD directory = FILE_ATTRIBUTE_DIRECTORY;

struct Entry {
    std::u16string name;
    DWORD attributes;
};

std::string narrow(const std::u16string& wide) {
    return text("%ws", wide.c_str());
}

} /* namespace */

/* A tree: what is in each directory, by its path. A directory that is not there can't be listed. */
class PathWalk : public Scripted {
protected:
    std::map<std::u16string, std::vector<Entry>> tree;
    std::vector<std::vector<Entry>>
        searches; /* by the handle's number: what is still to come, the next last */
    size_t open = 0;
    DWORD readError = 0;

    void SetUp() override {
        Scripted::SetUp();
        answer.GetFileSecurityW = [this](LPCWSTR path, SECURITY_INFORMATION, PSECURITY_DESCRIPTOR descriptor,
                                         DWORD, LPDWORD) {
            note("%ws", path);
            if (readError != 0) return failWith(readError);
            const ByteVector bytes = image({administrators, administrators});
            memcpy(descriptor, bytes.data(), bytes.size());
            return TRUE;
        };
        answer.FindFirstFileW = [this](LPCWSTR pattern, LPWIN32_FIND_DATAW record) {
            const std::u16string path = pattern;
            EXPECT_TRUE(path.ends_with(u"\\*.*"));
            const auto found = tree.find(path.substr(0, path.size() - 4));
            SetLastError(ERROR_ACCESS_DENIED);
            if (found == tree.end()) return INVALID_HANDLE_VALUE;
            searches.emplace_back(found->second.rbegin(), found->second.rend());
            open++;
            answer.FindNextFileW(fakeHandle(searches.size()), record);
            return fakeHandle(searches.size());
        };
        answer.FindNextFileW = [this](HANDLE search, LPWIN32_FIND_DATAW record) {
            std::vector<Entry>& left = searches.at(numberOf(search) - 1);
            if (left.empty()) return failWith(ERROR_NO_MORE_FILES);
            memset(record, 0xCC, sizeof *record);
            record->dwFileAttributes = left.back().attributes;
            left.back().name.copy(record->cFileName, left.back().name.size());
            record->cFileName[left.back().name.size()] = 0;
            left.pop_back();
            return TRUE;
        };
        answer.FindClose = [this](HANDLE) {
            open--;
            return TRUE;
        };
    }

    /* Runs over the tree; every search must be closed afterwards. */
    DWORD walk(const std::u16string& path, uint32_t flags) {
        events.clear();
        const DWORD result = sidReplaceInPath(path.c_str(), flags, oldSid.data(), 24, newSid.data(), 24);
        EXPECT_EQ(open, 0u);
        return result;
    }

    /* A chain of directories, one in the other, below "\\?\c:"; gives the path of the last. */
    std::u16string chain(int levels, const std::u16string& name) {
        std::u16string path = u"\\\\?\\c:";
        for (int level = 0; level < levels; level++) {
            tree[path] = {{u".", directory}, {name, directory}};
            path += u"\\" + name;
        }
        tree[path] = {{u".", directory}, {u"..", directory}};
        return path;
    }
};

TEST_F(PathWalk, StartPaths) {
    const std::string named = "\\\\?\\c:\\dir", gone = " for " + named;
    const std::string failed = "ERROR sidReplaceInPath: Win API call GetFileAttributes returned ";
    const struct {
        std::u16string given;
        std::string expected;
        DWORD code = 0; /* of the attributes */
        uint32_t flags = 0;
        DWORD result = 0;
    } rows[] = {
        {u"c:", "\\\\?\\c:"},
        {u"c:\\\\", "\\\\?\\c:"},
        {u"\\\\?\\c:\\", "\\\\?\\c:"},
        {u"\\\\?\\c:\\dir\\", "attributes, " + named},
        {u"c:\\dir", "attributes, " + named},
        {u"\\\\.\\x", "attributes, \\\\?\\\\\\.\\x"},
        {u"c:\\" + std::u16string(3000, u'n'), "attributes, \\\\?\\c:\\" + std::string(3000, 'n')},
        {u"c:\\dir\\", "attributes, " + failed + "3" + gone, 3, 0, 3},
        {u"c:\\dir", "attributes", 3, SID_OPTIONAL, 0},
        {u"c:\\dir", "attributes", 2, SID_OPTIONAL, 0},
        {u"c:\\dir", "attributes, " + failed + "5" + gone, 5, SID_OPTIONAL, 5},
        {u"c:\\dir", "attributes, " + failed + "1359" + gone, silently, SID_OPTIONAL, 1359},
    };
    for (const auto& row : rows) {
        answer.GetFileAttributesW = [&](LPCWSTR) -> DWORD {
            note("attributes");
            return row.code == 0 ? directory : (failWith(row.code), INVALID_FILE_ATTRIBUTES);
        };
        EXPECT_EQ(walk(row.given, SID_REPLACE_SD | row.flags), row.result);
        EXPECT_EQ(shortened({}), row.expected);
    }
    answer = {};  // no call may come before the pair is checked
    allocationsLeft = 0;
    EXPECT_EQ(sidReplaceInPath(u"c:\\x", SID_REPLACE_SD, oldSid.data(), 24, administrators.data(), 16),
              DWORD{ERROR_INVALID_PARAMETER});
    for (const int left : {0, 1}) {
        allocationsLeft = left;
        EXPECT_EQ(walk(u"c:", SID_REPLACE_SD), DWORD{ERROR_NOT_ENOUGH_MEMORY});
    }
}

TEST_F(PathWalk, WholeTreeInOrder) {
    tree[u"\\\\?\\c:"] = {{u".", directory},    {u"..", directory},
                          {u"a", directory},    {u"...", file},
                          {u".x", directory},   {u"link", directory | FILE_ATTRIBUTE_REPARSE_POINT},
                          {u"shut", directory}, {u"b", file}};
    tree[u"\\\\?\\c:\\a"] = {{u"1", file}, {u"empty", directory}, {u"2", file}};
    tree[u"\\\\?\\c:\\a\\empty"] = {{u".", directory}, {u"..", directory}};
    tree[u"\\\\?\\c:\\.x"] = {{u"y", file}};
    tree[u"\\\\?\\c:\\link"] = {{u"never", file}};
    const std::string shut =
        "WARN sidReplaceInPathImpl: Win API call FindFirstFile returned 5 for \\shut\\*.*, attr=0x10";
    const std::string all =
        ", \\a, \\a\\1, \\a\\empty, \\a\\2, \\..., \\.x, \\.x\\y, \\link, \\shut, " + shut + ", \\b";
    const Legend legend = {{"\\\\?\\c:", ""}};
    EXPECT_EQ(walk(u"c:", SID_RECURSIVE | SID_REPLACE_SD), 0u);
    EXPECT_EQ(shortened(legend), all);
    EXPECT_EQ(walk(u"c:", SID_RECURSIVE), 0u);
    EXPECT_EQ(shortened(legend), shut);
    readError = 32;  // a descriptor that can't be read neither stops the walk nor shows in its result
    EXPECT_EQ(walk(u"c:", SID_RECURSIVE | SID_REPLACE_SD), 0u);
    EXPECT_EQ(events.size(), 23u);
    EXPECT_EQ(walk(u"c:", SID_REPLACE_SD), 32u);
    EXPECT_EQ(events.size(), 2u);
}

TEST_F(PathWalk, DepthEndsAfter256) {
    const std::u16string deepest = chain(256, u"d");
    EXPECT_EQ(walk(u"c:", SID_RECURSIVE | SID_REPLACE_SD), 0u);
    EXPECT_EQ(events.size(), 257u);
    for (const DWORD attributes : {file, directory}) {
        tree[deepest] = {{u"x", attributes}, {u"y", file}};
        tree[u"\\\\?\\c:"] = {{u"d", directory}, {u"after", file}};
        EXPECT_EQ(walk(u"c:", SID_RECURSIVE | SID_REPLACE_SD), DWORD{ERROR_INTERNAL_ERROR});
        ASSERT_EQ(events.size(), 259u);
        EXPECT_EQ(events[257], narrow(deepest + u"\\x"));
        EXPECT_EQ(events[258],
                  "ERROR sidReplaceInPathImpl: Too deep recursion in " + narrow(deepest + u"\\x"));
    }
}

TEST_F(PathWalk, LongPathsKeepTheirParents) {
    const std::u16string name(255, u'n');
    std::u16string path = chain(30, name);
    Events expected;
    while (path.size() > 6) {  // each directory has a file after the next directory
        expected.insert(expected.begin(), narrow(path));
        path.resize(path.rfind(u'\\'));
        tree[path].push_back({u"after", file});
        expected.push_back(narrow(path + u"\\after"));
    }
    expected.insert(expected.begin(), "\\\\?\\c:");
    EXPECT_EQ(walk(u"c:", SID_RECURSIVE | SID_REPLACE_SD), 0u);
    EXPECT_EQ(events, expected);

    allocationsLeft = 5;  // the two buffers and three steps down
    EXPECT_EQ(walk(u"c:", SID_RECURSIVE), DWORD{ERROR_NOT_ENOUGH_MEMORY});
    EXPECT_EQ(events.size(), 1u);
}
