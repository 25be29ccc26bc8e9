/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Text, handles, statuses and counted strings. */
#include <gtest/gtest.h>

#include <vector>

#include "platform/offline/base/guarded.h"
#include "platform/offline/base/handles.h"
#include "platform/offline/base/status.h"
#include "platform/offline/base/system_needed.h"
#include "platform/offline/base/unicode.h"

namespace {

using namespace offline;
using namespace std::string_literals;

TEST(Text, BothWays) {
    const std::pair<std::string, std::u16string> rows[] = {
        {"", u""},
        {"a\0b"s, u"a\0b"s},
        {"\x7F\xC2\x80\xDF\xBF", u"\u007F\u0080\u07FF"},
        {"\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF", u"\u0800\uD7FF\uE000\uFFFF"},
        {"\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", u"\U00010000\U0010FFFF"},
    };
    for (const auto& [utf8, utf16] : rows) {
        EXPECT_EQ(toUtf16(utf8), utf16);
        EXPECT_EQ(toUtf8(utf16), utf8);
    }
}

TEST(Text, BadBytesAreReplacedOneByOne) {
    const std::string rows[] = {
        "\x80",         "\xC0\x80",         "\xC1\xBF",         "\xE0\x9F\xBF", "\xF0\x8F\xBF\xBF",
        "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xE2\x82"};
    for (const std::string& bad : rows) {
        EXPECT_EQ(toUtf16("a" + bad + "z"), u"a" + std::u16string(bad.size(), 0xFFFD) + u"z");
        EXPECT_EQ(toUtf16(bad), std::u16string(bad.size(), 0xFFFD));
    }
    EXPECT_EQ(toUtf8(u"\xD800"s), "\uFFFD");
    EXPECT_EQ(toUtf8(std::u16string_view(u"\xD800\xDC00", 1)), "\uFFFD");
    EXPECT_EQ(toUtf8(u"x\xDC00y"s), "x\uFFFDy");
    EXPECT_EQ(toUtf8(u"\xD800\xD800\xDC00"s), "\uFFFD\xF0\x90\x80\x80");
}

TEST(Text, PrintableIsOneLineAndUnambiguous) {
    const std::pair<std::string, std::string> rows[] = {
        {"C:\\Gr\xC3\xB6\xC3\x9F"
         "e <a> \xF0\x9F\x98\x80",
         "C:\\Gr\xC3\xB6\xC3\x9F"
         "e <a> \xF0\x9F\x98\x80"},
        {"a\x1B[2J\n\0"s, "a<U+001B>[2J<U+000A><U+0000>"},
        {"\x7F\xC2\x80\xC2\x9F\xC2\xA0", "<U+007F><U+0080><U+009F>\xC2\xA0"},
        {"\xD8\x9C\xE2\x80\x8D\xE2\x80\x8E\xE2\x80\x8F", "<U+061C>\xE2\x80\x8D<U+200E><U+200F>"},
        {"\xE2\x80\xA8\xE2\x80\xAA\xE2\x80\xAE\xE2\x81\xA6\xE2\x81\xA9",
         "<U+2028><U+202A><U+202E><U+2066><U+2069>"},
        {"\x9B\xC3", "<0x9B><0xC3>"},
        {"<U+001B><0x9B>", "<U+003C>U+001B><U+003C>0x9B>"},
    };
    for (const auto& [text, shown] : rows) EXPECT_EQ(printable(text), shown);
}

TEST(Text, Folding) {
    const std::pair<std::u16string, std::u16string> same[] = {
        {u"System32", u"sYSTEM32"}, {u"\u00E4\u00FF", u"\u00C4\u0178"}, {u"\u03B1\u0451", u"\u0391\u0401"}};
    for (const auto& [left, right] : same) EXPECT_TRUE(equalFolded(left, right));
    EXPECT_FALSE(equalFolded(u"\u0131", u"I")) << "the dotless i stays";
    EXPECT_FALSE(equalFolded(u"\u00DF", u"SS"));
    const std::u16string ordered[] = {u"", u"a", u"A0", u"ab", u"B", u"b_", u"\u00D7", u"\xD800", u"\uFFFF"};
    for (size_t i = 0; i < std::size(ordered); i++) {
        for (size_t j = 0; j < std::size(ordered); j++) {
            const int order = compareFolded(ordered[i], ordered[j]);
            EXPECT_EQ((order > 0) - (order < 0), (i > j) - (i < j)) << i << " " << j;
        }
    }
}

int closed = 0;
void countClose(void* object) {
    closed += *static_cast<int*>(object);
}

TEST(Handles, TypesAndReuse) {
    const HandleType one = {countClose};
    const HandleType other = {countClose};
    int object = 1;
    std::vector<HANDLE> handles;
    handles.reserve(100);
    for (int i = 0; i < 100; i++) handles.push_back(handleCreate(one, &object));
    for (const HANDLE handle : handles) {
        EXPECT_EQ(handleObject(handle, one), &object);
        EXPECT_EQ(handleObject(handle, other), nullptr);
        EXPECT_EQ(reinterpret_cast<ULONG_PTR>(handle) % 4, 0u);
        EXPECT_EQ(handleObject(reinterpret_cast<HANDLE>(reinterpret_cast<ULONG_PTR>(handle) + 1), one),
                  nullptr);
    }
    EXPECT_EQ(ZwClose(handles[10]), STATUS_SUCCESS);
    EXPECT_EQ(CloseHandle(handles[20]), TRUE);
    EXPECT_EQ(closed, 2);
    EXPECT_EQ(ZwClose(handles[10]), STATUS_INVALID_HANDLE);
    EXPECT_EQ(handleObject(handles[20], one), nullptr);
    const HANDLE again = handleCreate(other, &object);
    EXPECT_EQ(again, handles[20]);
    EXPECT_EQ(handleObject(again, other), &object);
    EXPECT_EQ(handleCreate(one, &object), handles[10]);
    for (const HANDLE handle : handles) EXPECT_TRUE(handleClose(handle));
    EXPECT_EQ(closed, 102);
    for (const HANDLE bad : {HANDLE{}, INVALID_HANDLE_VALUE, reinterpret_cast<HANDLE>(0x80000002)}) {
        EXPECT_EQ(CloseHandle(bad), FALSE);
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    }
}

TEST(Status, Mapping) {
    /* Warnings, errors, two for one code, one that is unknown. */
    const std::pair<uint32_t, ULONG> rows[] = {
        {0x80000005, 234}, {0xC0000022, 5}, {0xC0000121, 5}, {0xC0000034, 2}, {0xCFFFFFFF, 317}};
    for (const auto& [status, code] : rows) {
        EXPECT_EQ(RtlNtStatusToDosError(static_cast<NTSTATUS>(status)), code) << std::hex << status;
    }
    SetLastError(77);
    EXPECT_EQ(booleanResult(STATUS_NOT_ALL_ASSIGNED), TRUE);
    EXPECT_EQ(GetLastError(), 77u);
    EXPECT_EQ(booleanResult(STATUS_NO_MORE_FILES), FALSE);
    EXPECT_EQ(GetLastError(), 18u);
}

TEST(CountedStrings, Limits) {
    UNICODE_STRING text = {1, 1, nullptr};
    RtlInitUnicodeString(&text, nullptr);
    EXPECT_TRUE(text.Length == 0 && text.MaximumLength == 0 && text.Buffer == nullptr);
    RtlInitUnicodeString(&text, u"abc");
    EXPECT_TRUE(text.Length == 6 && text.MaximumLength == 8);
    const std::u16string huge(40000, u'x');
    RtlInitUnicodeString(&text, huge.c_str());
    EXPECT_TRUE(text.Length == 65532 && text.MaximumLength == 65534);

    std::vector<WCHAR> buffer(4, u'#');
    UNICODE_STRING target = {0, 8, buffer.data()};
    UNICODE_STRING source = {6, 6, const_cast<PWSTR>(u"abc")};
    EXPECT_EQ(RtlAppendUnicodeStringToString(&target, &source), STATUS_SUCCESS);
    EXPECT_EQ(std::u16string(buffer.data()), u"abc") << "terminated while there is room";
    source.Length = 4;
    EXPECT_EQ(RtlAppendUnicodeStringToString(&target, &source), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(target.Length, 6);
    source.Length = 2;
    EXPECT_EQ(RtlAppendUnicodeStringToString(&target, &source), STATUS_SUCCESS);
    EXPECT_EQ(std::u16string(buffer.data(), 4), u"abca") << "and without an end when there is none";
    EXPECT_EQ(view(&target), u"abca");
    source.Length = 0;
    EXPECT_EQ(RtlAppendUnicodeStringToString(&target, &source), STATUS_SUCCESS);
}

TEST(Guarded, MemoryIsSaidOnceByWhoKnowsMost) {
    Problem problem;
    const auto named = [&] { return refuse(problem, STATUS_NO_MEMORY, "SYSTEM does not fit"); };
    EXPECT_EQ(guardedRefusing(problem, named), STATUS_NO_MEMORY);
    EXPECT_EQ(problem.text, "SYSTEM does not fit");
    EXPECT_FALSE(session().memoryRanOut);
    problem = {};
    EXPECT_EQ(guardedRefusing(problem, []() -> NTSTATUS { throw std::bad_alloc(); }), STATUS_NO_MEMORY);
    EXPECT_EQ(problem.text, "out of memory");
    EXPECT_TRUE(session().memoryRanOut);
}

int opened = 0;
NTSTATUS countOpening() {
    return ++opened == 1 ? STATUS_NOT_REGISTRY_FILE : STATUS_SUCCESS;
}

TEST(SystemNeeded, OpensOnce) {
    EXPECT_EQ(systemNeeded(), STATUS_SUCCESS);
    setSystemOpener(countOpening);
    EXPECT_EQ(systemNeeded(), STATUS_NOT_REGISTRY_FILE);
    EXPECT_EQ(systemNeeded(), STATUS_NOT_REGISTRY_FILE);
    systemForget();
    EXPECT_EQ(systemNeeded(), STATUS_SUCCESS);
    EXPECT_EQ(opened, 2);
    setSystemOpener(nullptr);
}

} /* namespace */
