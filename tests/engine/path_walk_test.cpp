/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "tests/support/drives.h"

namespace offline {
namespace {

struct PathWalk : SmallSystem {
    Drives drives;

    void SetUp() override {
        SmallSystem::SetUp();
        drives.answerCalls();
    }
    std::string walk(const std::u16string& path, uint32_t flags = SID_RECURSIVE | SID_REPLACE_SD) {
        const Legend legend = {{"\\\\?\\c:", ""},
                               {"read 512 ", ""},
                               {"Win API call ", ""},
                               {" returned", ""},
                               {"ERROR sidReplaceInPath", "! "}};
        return outcome(legend, [&] {
            return sidReplaceInPath(path.c_str(), flags, oldSid.data(), 24, newSid.data(), 24);
        });
    }
};

TEST_F(PathWalk, StartPaths) {
    drives.add(u"\\\\?\\c:");
    drives.add(u"\\\\?\\c:\\dir");
    drives.add(u"\\\\?\\c:\\" + std::u16string(3000, u'n'));
    const std::string failed = "! : GetFileAttributes ", on = " for \\dir, ";
    const struct {
        std::u16string given;
        std::string expected;
        LONG code = 0; /* of the attributes */
        uint32_t flags = 0;
    } rows[] = {
        {u"c:", ", 0"},
        {u"c:\\\\", ", 0"},
        {u"\\\\?\\c:\\", ", 0"},
        {u"\\\\?\\c:\\dir\\", "attributes \\dir, \\dir, 0"},
        {u"c:\\dir", "attributes \\dir, \\dir, 0"},
        {u"c:\\" + std::u16string(3000, u'n'),
         shortened({{"N", std::string(3000, 'n')}}, {"attributes \\N, \\N, 0"})},
        {u"c:\\dir\\", failed + "3" + on + "3", 3},
        {u"c:\\dir", "0", 3, SID_OPTIONAL},
        {u"c:\\dir", "0", 2, SID_OPTIONAL},
        {u"c:\\dir", failed + "5" + on + "5", 5, SID_OPTIONAL},
        {u"c:\\dir", failed + "1359" + on + "1359", silently, SID_OPTIONAL},
    };
    for (const auto& row : rows) {
        if (row.code != 0) faults = {{"GetFileAttributesW", "", row.code}};
        EXPECT_EQ(walk(row.given, SID_REPLACE_SD | row.flags), row.expected);
        faults.clear();
    }
    EXPECT_EQ(sidReplaceInPath(u"c:", SID_REPLACE_SD, oldSid.data(), 24, oldSid.data(), 16),
              DWORD{ERROR_INVALID_PARAMETER});
}

TEST_F(PathWalk, WholeTreeInOrder) {
    for (const char16_t* path : {u"", u"\\a", u"\\a\\empty", u"\\.x", u"\\link", u"\\shut"})
        drives.add(std::u16string(u"\\\\?\\c:") + path);
    for (const char16_t* path : {u"\\a\\2", u"\\...", u"\\.x\\y", u"\\link\\never", u"\\b"})
        drives.add(std::u16string(u"\\\\?\\c:") + path, plainFile);
    drives.files[u"\\\\?\\c:\\link"].attributes |= FILE_ATTRIBUTE_REPARSE_POINT;
    const Fault closed = {"FindFirstFileW", "\\\\?\\c:\\shut\\*.*", 5};
    const std::string shut = "WARN sidReplaceInPathImpl: FindFirstFile 5 for \\shut\\*.*, attr=0x10, ";
    faults = {closed};
    EXPECT_EQ(walk(u"c:"),
              ", \\a, \\a\\empty, \\a\\2, \\.x, \\.x\\y, \\link, \\shut, " + shut + "\\..., \\b, 0");
    EXPECT_EQ(walk(u"c:", SID_RECURSIVE), shut + "0");
    // A descriptor that can't be read neither stops the walk nor shows in its result.
    faults = {closed, {"GetFileSecurityW", "", 32}};
    EXPECT_TRUE(walk(u"c:").ends_with(" for \\b, 0"));
    EXPECT_EQ(callsMade["GetFileSecurityW"], 10);
    EXPECT_EQ(walk(u"c:", SID_REPLACE_SD), "ERROR sidReplaceInFileSD: GetFileSecurity 32 for , 32");
}

TEST_F(PathWalk, LongPathsKeepTheirParents) {
    std::u16string path = drives.chain(30, std::u16string(255, u'n'));
    Events expected;
    for (; path.size() > 6; path.resize(path.rfind(u'\\'))) {
        expected.insert(expected.begin(), "read 512 " + toUtf8(path));
        const std::u16string after = path.substr(0, path.rfind(u'\\')) + u"\\after";
        drives.add(after, plainFile);
        expected.push_back("read 512 " + toUtf8(after));
    }
    expected.insert(expected.begin(), "read 512 \\\\?\\c:");
    EXPECT_EQ(walk(u"c:").back(), '0');
    EXPECT_EQ(events, expected);
    for (const int steps : {0, 1, 5}) {  // the two buffers and three steps down
        allocationsLeft = steps;
        EXPECT_TRUE(walk(u"c:", SID_RECURSIVE).ends_with(" bytes, 8")) << steps;
    }
}

} /* namespace */
} /* namespace offline */
