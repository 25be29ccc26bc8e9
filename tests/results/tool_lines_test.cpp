/* SPDX-License-Identifier: GPL-2.0-or-later */
/* What the tool's lines on standard error tell of the objects that it passed over. */
#include "companion/results/tool_lines.h"

#include <gtest/gtest.h>

namespace {

using companion::PassedOver;
using companion::PassedOverAs;
using companion::readToolLine;

struct Row {
    const char* line;
    PassedOverAs as;
    const char* object;
    uint32_t code; /* 0: none is told */
};

const Row rows[] = {
    {"ERROR    [sidchng/sid:362] sidReplaceInFileSD Win API call GetFileSecurity returned 5 for C:\\a for b",
     PassedOverAs::object, "C:\\a for b", 5},
    {"ERROR    [regtk/regtk_native:250] regScan Native API call ZwEnumerateKey returned 0XC000014C for Key",
     PassedOverAs::tree, "Key", 1009},
    {"ERROR    [regtk/regtk_open:48] f Native API call ZwOpenKey returned 0XC0000022 for a b, access=0x40000",
     PassedOverAs::tree, "a b", 5},
    {"WARN     [sidchng/sidchng:137] f Win API call FindFirstFile returned 1392 for C:\\a, attr=b, attr=0x10",
     PassedOverAs::tree, "C:\\a, attr=b", 1392},
    {"WARN     [regtk/regtk_open:144] _regOpenCreateKey Original security attributes lost for Secrets",
     PassedOverAs::openToAll, "Secrets", 0},
    {"WARN     [sidchng/reg:200] f Too long a string with the old SID (70000 bytes), left alone in value  "
     "A\\B: "
     "S-1...",
     PassedOverAs::object, "A\\B", 0},
    {"ERROR    [sidchng/reg:390] f Failed to rename key   A\\B", PassedOverAs::object, "A\\B", 0},
    {"ERROR    [sidchng/sidchng:126] f Too deep recursion in C:\\a", PassedOverAs::tree, "C:\\a", 0},
    {"ERROR    [common/memory:10] ombraMalloc failed to allocate 12 bytes", PassedOverAs::notNamed, "", 0},
    {"ERROR    [regtk/regtk_native:434] f Native API call ZwClose returned 0XC0000008",
     PassedOverAs::notNamed, "", 6},
    {"ERROR    [x:1] f words that nobody knows", PassedOverAs::notNamed, "", 0},
    {"RegLoadKey(User.S-1-5-21-1-2-3-1001, C:\\Users\\a, (b)\\ntuser.dat) failed with code 1009",
     PassedOverAs::profile, "C:\\Users\\a, (b)\\ntuser.dat", 1009},
    {"sidReplaceInPath(c:) failed with code 5", PassedOverAs::tree, "c:", 5},
    {"Unexpected type of image path (3) for S-1-6", PassedOverAs::profile, "S-1-6", 0},
};

TEST(ToolLines, NameWhatWasPassedOver) {
    for (const Row& row : rows) {
        const auto read = readToolLine(std::string(row.line) + "\n");
        ASSERT_TRUE(read.passedOver && !read.explained && !read.problem) << row.line;
        const PassedOver& one = *read.passedOver;
        EXPECT_EQ(one.as, row.as) << row.line;
        EXPECT_EQ(one.object, row.object);
        EXPECT_EQ(one.code.value_or(0), row.code) << row.line;
        EXPECT_EQ(one.line, row.line);
        EXPECT_FALSE(one.reason.empty()) << row.line;
    }
}

TEST(ToolLines, LeaveTheRestAlone) {
    for (const char* harmless :
         {"INFO     [sidchng/sid:1] f Found old SID in file SD C:\\a (simulation mode)",
          "WARN     [regtk/regtk_open:80] f Native API call ZwOpenKey returned 0XC0000022 for 21",
          "DEBUG    [sidchng/sid:1] f Win API call X returned 5 for Y"}) {
        const auto read = readToolLine(harmless);
        EXPECT_FALSE(read.passedOver || read.explained || read.problem) << harmless;
    }
    EXPECT_TRUE(readToolLine("RegLoadKey(User.S-1-5-18, C:\\x) failed with code 2\n").explained);
    const auto empty = readToolLine(
        "WARN     [a/b:1] f Win API call FindFirstFile returned 2 for \\\\?\\d:\\*.*, attr=0x10\n");
    EXPECT_TRUE(empty.explained && !empty.passedOver);
    EXPECT_TRUE(
        readToolLine(
            "WARN     [a/b:1] f Win API call FindFirstFile returned 2 for \\\\?\\d:\\a\\*.*, attr=0x10\n")
            .passedOver);
    EXPECT_TRUE(readToolLine("RegLoadKey(User.S-1-2-3, C:\\x) failed with code 3\n").explained);
    for (const char* problem : {"invalid option: -z", "OpenProcessToken() failed with code 5"}) {
        EXPECT_EQ(readToolLine(problem).problem.value_or(""), problem);
    }
}

} /* namespace */
