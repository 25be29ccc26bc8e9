#include <gtest/gtest.h>

#include "tests/security/shapes.h"

namespace {

using namespace offline;

TEST(Sid, TextBothWays) {
    const std::pair<const char*, Image> rows[] = {
        {"S-1-0", {1, 0, 0, 0, 0, 0, 0, 0}},
        {"S-1-5-18", {1, 1, 0, 0, 0, 0, 0, 5, 18, 0, 0, 0}},
        {"S-1-5-32-4294967295", {1, 2, 0, 0, 0, 0, 0, 5, 32, 0, 0, 0, 255, 255, 255, 255}},
        {"S-1-4294967295-1", {1, 1, 0, 0, 255, 255, 255, 255, 1, 0, 0, 0}},
        {"S-1-0x000100000000-1", {1, 1, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0}},
        {"S-1-0xffffffffffff", {1, 0, 255, 255, 255, 255, 255, 255}},
    };
    for (const auto& [text, bytes] : rows) {
        EXPECT_EQ(sidToText(bytes), text);
        EXPECT_EQ(sidFromText(text), bytes) << text;
    }
    for (const char* text :
         {"", "S", "S-", "S-1", "S-1-", "S-2-5", "T-1-5", "S-1-5-", "S-1-5--3", "S-1-5- 3", "S-1-5-+3",
          "S-1-5-4294967296", "S-1-0x1000000000000", "S-1-5-0x", "S-1-5-1x", "S-1-5-1 ",
          "S-1-5-99999999999999999999", "S-1-5-1-2-3-4-5-6-7-8-9-10-11-12-13-14-15-16"}) {
        EXPECT_TRUE(sidFromText(text).empty()) << text;
    }
}

TEST(Sid, CallsTakeExactlyTheSidsOwnBytes) {
    Image longest = sidFromText("S-1-0xfedcba987654");
    longest[1] = 15;
    longest.resize(8 + 15 * 4, 0xFF);
    const Exact sid(longest);
    LPWSTR wide = nullptr;
    ASSERT_TRUE(ConvertSidToStringSidW(sid.bytes.get(), &wide));
    const std::u16string text = wide;
    EXPECT_EQ(text.size(), 18 + 15 * 11u);
    EXPECT_TRUE(text.starts_with(u"S-1-0xfedcba987654-4294967295-"));
    EXPECT_EQ(LocalFree(wide), nullptr);

    longest[1] = 16;
    longest.resize(8 + 16 * 4);
    EXPECT_EQ(sidLength(longest), 0u);
    for (const Image& bad : {Image{2, 1, 0, 0, 0, 0, 0, 5, 1, 0, 0, 0}, Image{1, 16}}) {
        LPSTR none = nullptr;
        const Exact exact(bad);
        EXPECT_FALSE(ConvertSidToStringSidA(exact.bytes.get(), &none));
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_SID));
        EXPECT_EQ(none, nullptr);
    }
}

} /* namespace */
