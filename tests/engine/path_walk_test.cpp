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
    std::vector<std::pair<std::vector<Entry>, size_t>> searches; /* by the handle's number, and what came */
    size_t open = 0, mostOpen = 0;
    DWORD readError = 0;

    void SetUp() override {
        Scripted::SetUp();
        answer.GetFileSecurityW = [this](LPCWSTR path, SECURITY_INFORMATION, PSECURITY_DESCRIPTOR descriptor,
                                         DWORD, LPDWORD) {
            note("%ws", path);
            if (readError != 0) return failWith(readError);
            const Bytes bytes = image({administrators, administrators});
            memcpy(descriptor, bytes.data(), bytes.size());
            return TRUE;
        };
        answer.FindFirstFileW = [this](LPCWSTR pattern, LPWIN32_FIND_DATAW record) {
            const std::u16string path = pattern;
            EXPECT_TRUE(path.ends_with(u"\\*.*"));
            const auto found = tree.find(path.substr(0, path.size() - 4));
            if (found == tree.end()) {
                failWith(ERROR_ACCESS_DENIED);
                return INVALID_HANDLE_VALUE;
            }
            searches.emplace_back(found->second, 0);
            mostOpen = std::max(mostOpen, ++open);
            give(&searches.back(), record);
            return fakeHandle(searches.size());
        };
        answer.FindNextFileW = [this](HANDLE search, LPWIN32_FIND_DATAW record) {
            return give(&searches.at(numberOf(search) - 1), record);
        };
        answer.FindClose = [this](HANDLE search) {
            EXPECT_FALSE(searches.at(numberOf(search) - 1).first.empty()) << "closed twice";
            searches[numberOf(search) - 1] = {};
            open--;
            return TRUE;
        };
    }

    static BOOL give(std::pair<std::vector<Entry>, size_t>* search, LPWIN32_FIND_DATAW record) {
        if (search->second == search->first.size()) return failWith(ERROR_NO_MORE_FILES);
        const Entry& entry = search->first[search->second++];
        memset(record, 0xCC, sizeof *record);
        record->dwFileAttributes = entry.attributes;
        memcpy(record->cFileName, entry.name.c_str(), (entry.name.size() + 1) * sizeof(WCHAR));
        return TRUE;
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

TEST_F(PathWalk, StartPathsGetTheirLongForm) {
    DWORD attributes = file;
    answer.GetFileAttributesW = [&](LPCWSTR path) {
        note("attributes %ws", path);
        return attributes;
    };
    const struct {
        std::u16string given;
        Events expected;
    } rows[] = {
        {u"c:", {"\\\\?\\c:"}},
        {u"c:\\", {"\\\\?\\c:"}},
        {u"c:\\\\\\", {"\\\\?\\c:"}},
        {u"\\\\?\\c:\\", {"\\\\?\\c:"}},
        {u"\\\\?\\c:\\dir\\", {"attributes \\\\?\\c:\\dir", "\\\\?\\c:\\dir"}},
        {u"c:\\dir", {"attributes \\\\?\\c:\\dir", "\\\\?\\c:\\dir"}},
        {u"\\\\.\\x", {"attributes \\\\?\\\\\\.\\x", "\\\\?\\\\\\.\\x"}},
        {u"x", {"attributes \\\\?\\x", "\\\\?\\x"}},
    };
    for (const auto& row : rows) {
        for (const DWORD each : {file, directory}) {  // without SID_RECURSIVE nothing is listed
            attributes = each;
            EXPECT_EQ(walk(row.given, SID_REPLACE_SD), 0u);
            EXPECT_EQ(events, row.expected) << narrow(row.given);
        }
    }
    const std::u16string longPath = u"c:\\" + std::u16string(3000, u'n');
    EXPECT_EQ(walk(longPath, SID_REPLACE_SD), 0u);
    EXPECT_EQ(events.back(), "\\\\?\\" + narrow(longPath));
}

TEST_F(PathWalk, StartPathsThatCannotBeTreated) {
    DWORD code = 0;
    answer.GetFileAttributesW = [&](LPCWSTR) {
        failWith(code);
        return INVALID_FILE_ATTRIBUTES;
    };
    for (const uint32_t flags : {uint32_t{SID_REPLACE_SD}, SID_REPLACE_SD | SID_OPTIONAL}) {
        for (const DWORD each : {2u, 3u, 5u}) {
            code = each;
            const bool silent = (flags & SID_OPTIONAL) != 0 && each != 5;
            EXPECT_EQ(walk(u"c:\\gone\\", flags), silent ? 0 : each);
            const Events reported = {
                text("ERROR sidReplaceInPath: Win API call GetFileAttributes returned %d for \\\\?\\c:\\gone",
                     each)};
            EXPECT_EQ(events, silent ? Events{} : reported);
        }
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
        "WARN sidReplaceInPathImpl: Win API call FindFirstFile returned 5 for \\\\?\\c:\\shut\\*.*, "
        "attr=0x10";
    Events expected;
    for (const char* path :
         {"", "\\a", "\\a\\1", "\\a\\empty", "\\a\\2", "\\...", "\\.x", "\\.x\\y", "\\link", "\\shut"})
        expected.push_back(std::string("\\\\?\\c:") + path);
    expected.push_back(shut);
    expected.push_back("\\\\?\\c:\\b");
    EXPECT_EQ(walk(u"c:", SID_RECURSIVE | SID_REPLACE_SD), 0u);
    EXPECT_EQ(events, expected);
    EXPECT_EQ(walk(u"c:", SID_RECURSIVE | SID_REPLACE_SD | SID_SIMULATE), 0u);
    EXPECT_EQ(events, expected);

    EXPECT_EQ(walk(u"c:", SID_RECURSIVE), 0u);
    EXPECT_EQ(events, Events{shut});
    readError = 32;  // a descriptor that can't be read neither stops the walk nor shows in its result
    EXPECT_EQ(walk(u"c:", SID_RECURSIVE | SID_REPLACE_SD), 0u);
    EXPECT_EQ(events.size(), 2 * expected.size() - 1);
    EXPECT_EQ(walk(u"c:", SID_REPLACE_SD), 32u);
    EXPECT_EQ(events.size(), 2u);
}

TEST_F(PathWalk, DepthEndsBehind256) {
    const std::u16string deepest = chain(256, u"d");
    EXPECT_EQ(walk(u"c:", SID_RECURSIVE | SID_REPLACE_SD), 0u);
    EXPECT_EQ(events.size(), 257u);
    EXPECT_EQ(mostOpen, 257u);

    for (const DWORD attributes : {file, directory}) {
        tree[deepest] = {{u"x", attributes}, {u"y", file}};
        tree[u"\\\\?\\c:"] = {{u"d", directory}, {u"behind", file}};
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
    while (path.size() > 6) {  // each directory has a file behind the next directory
        expected.insert(expected.begin(), narrow(path));
        path.resize(path.rfind(u'\\'));
        tree[path].push_back({u"behind", file});
        expected.push_back(narrow(path + u"\\behind"));
    }
    expected.insert(expected.begin(), "\\\\?\\c:");
    EXPECT_EQ(walk(u"c:", SID_RECURSIVE | SID_REPLACE_SD), 0u);
    EXPECT_EQ(events, expected);

    allocationsLeft = 5;  // the two buffers and three steps down
    EXPECT_EQ(walk(u"c:", SID_RECURSIVE), DWORD{ERROR_NOT_ENOUGH_MEMORY});
    EXPECT_EQ(logLines().size(), 1u);
}
