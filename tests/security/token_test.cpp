/* SPDX-License-Identifier: GPL-2.0-or-later */
/* SIDs and the token. */
#include <gtest/gtest.h>

#include "tests/support/descriptors.h"

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
    LPWSTR wide = nullptr;
    ASSERT_TRUE(ConvertSidToStringSidW(Exact(longest).bytes.get(), &wide));
    const std::u16string text = wide;
    EXPECT_EQ(text.size(), 18 + 15 * 11u);
    EXPECT_TRUE(text.starts_with(u"S-1-0xfedcba987654-4294967295-"));
    EXPECT_EQ(LocalFree(wide), nullptr);

    longest[1] = 16;
    longest.resize(8 + 16 * 4);
    EXPECT_EQ(sidToText(longest), "");
    for (const Image& bad : {Image{2, 1, 0, 0, 0, 0, 0, 5, 1, 0, 0, 0}, Image{1, 16}, longest}) {
        LPSTR none = nullptr;
        EXPECT_FALSE(ConvertSidToStringSidA(Exact(bad).bytes.get(), &none));
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_SID));
    }
}

struct TokenTest : testing::Test {
    HANDLE token = openToken(TOKEN_QUERY | TOKEN_ADJUST_PRIVILEGES);
    TokenTest() { setAccessMode(AccessMode::checked); }
    ~TokenTest() override { CloseHandle(token); }
};

TEST_F(TokenTest, RecordsPointPastThemselves) {
    const std::tuple<AccessMode, TOKEN_INFORMATION_CLASS, DWORD, std::string> rows[] = {
        {AccessMode::checked, TokenUser, 44, self},
        {AccessMode::checked, TokenOwner, 24, admins},
        {AccessMode::unrefused, TokenUser, 28, localSystem}};
    for (const auto& [mode, infoClass, size, expected] : rows) {
        setAccessMode(mode);
        const Exact buffer(Image(size, 0xAA));
        DWORD length = 0;
        EXPECT_FALSE(GetTokenInformation(token, infoClass, buffer.bytes.get(), size - 1, &length));
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
        EXPECT_TRUE(length == size && buffer.bytes[0] == 0xAA);
        ASSERT_TRUE(GetTokenInformation(token, infoClass, buffer.bytes.get(), size, &length));
        const size_t head = infoClass == TokenUser ? 16 : 8;
        uint8_t* sid = nullptr;
        memcpy(&sid, buffer.bytes.get(), sizeof sid);
        EXPECT_EQ(sid, buffer.bytes.get() + head);
        EXPECT_EQ(sidToText(buffer.span().subspan(head)), expected);
    }
}

TEST_F(TokenTest, PrivilegeNames) {
    const std::pair<const char16_t*, DWORD> rows[] = {{u"SeCreateTokenPrivilege", 2},
                                                      {u"SERESTOREPRIVILEGE", 18},
                                                      {u"SeCreateSymbolicLinkPrivilege", 35},
                                                      {u"", 0},
                                                      {u"SeShutdown", 0},
                                                      {u"SeShutdownPrivilegeX", 0}};
    for (const auto& [name, number] : rows) {
        LUID luid = {0, 0};
        EXPECT_EQ(LookupPrivilegeValueW(nullptr, name, &luid), number != 0 ? TRUE : FALSE);
        EXPECT_EQ(luid.LowPart, number);
        EXPECT_TRUE(number != 0 || GetLastError() == static_cast<DWORD>(ERROR_NO_SUCH_PRIVILEGE));
    }
}

TEST_F(TokenTest, AdjustsPrivileges) {
    EXPECT_TRUE(privilegeEnabled(23));
    removePrivilege(shutdownPrivilege);
    constexpr DWORD on = SE_PRIVILEGE_ENABLED, removed = 4;
    struct {
        std::vector<std::pair<uint64_t, DWORD>> changes;
        DWORD error = 0;
        uint32_t enabled = 23, disabled; /* one that is afterwards, and one that is not */
    } const rows[] = {
        {.changes = {}, .disabled = backupPrivilege},
        {.changes = {{backupPrivilege, on}, {restorePrivilege, on}},
         .enabled = backupPrivilege,
         .disabled = securityPrivilege},
        {.changes = {{backupPrivilege, 0}}, .enabled = restorePrivilege, .disabled = backupPrivilege},
        {.changes = {{backupPrivilege, on}, {backupPrivilege, 0}}, .disabled = backupPrivilege},
        {.changes = {{shutdownPrivilege, on}, {securityPrivilege, on}},
         .error = ERROR_NOT_ALL_ASSIGNED,
         .enabled = securityPrivilege,
         .disabled = shutdownPrivilege},
        {.changes = {{1, on}}, .error = ERROR_NOT_ALL_ASSIGNED, .disabled = 1},
        {.changes = {{36, on}}, .error = ERROR_NOT_ALL_ASSIGNED, .disabled = 36},
        {.changes = {{0x100000011, on}}, .error = ERROR_NOT_ALL_ASSIGNED, .disabled = backupPrivilege},
        {.changes = {{securityPrivilege, on | removed}}, .disabled = securityPrivilege},
        {.changes = {{securityPrivilege, on}},
         .error = ERROR_NOT_ALL_ASSIGNED,
         .disabled = securityPrivilege},
    };
    for (const auto& [changes, error, enabled, disabled] : rows) {
        EXPECT_EQ(adjust(token, changes), error);
        EXPECT_TRUE(privilegeEnabled(enabled) && !privilegeEnabled(disabled)) << enabled << " " << disabled;
    }

    struct {
        DWORD count;
        LUID_AND_ATTRIBUTES entries[2];
    } before = {};
    auto* previous = reinterpret_cast<PTOKEN_PRIVILEGES>(&before);
    DWORD length = 0;
    EXPECT_FALSE(AdjustTokenPrivileges(token, TRUE, nullptr, 16, previous, &length));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
    EXPECT_TRUE(length == 4 + 2 * 12 && privilegeEnabled(restorePrivilege)) << "nothing changed";
    EXPECT_TRUE(AdjustTokenPrivileges(token, TRUE, nullptr, sizeof before, previous, &length));
    EXPECT_TRUE(before.count == 2 && before.entries[0].Luid.LowPart == restorePrivilege);
    EXPECT_EQ(before.entries[0].Attributes, SE_PRIVILEGE_ENABLED);
    EXPECT_FALSE(privilegeEnabled(restorePrivilege) || privilegeEnabled(23));
}

TEST_F(TokenTest, Refuses) {
    HANDLE query = openToken(TOKEN_QUERY), adjustOnly = openToken(TOKEN_ADJUST_PRIVILEGES);
    DWORD length = 0, tooMany = 61;
    EXPECT_FALSE(GetTokenInformation(adjustOnly, TokenUser, nullptr, 0, &length));
    EXPECT_EQ(GetLastError(), 5u);
    EXPECT_EQ(adjust(query, {{backupPrivilege, 2}}), 5u);
    TOKEN_PRIVILEGES previous = {};
    EXPECT_FALSE(AdjustTokenPrivileges(adjustOnly, TRUE, nullptr, sizeof previous, &previous, &length));
    EXPECT_EQ(GetLastError(), 5u);
    CloseHandle(query);
    CloseHandle(adjustOnly);
    EXPECT_EQ(adjust(query, {{backupPrivilege, 2}}), 6u) << "closed";
    EXPECT_EQ(adjust(GetCurrentProcess(), {{backupPrivilege, 2}}), 6u);
    EXPECT_FALSE(privilegeEnabled(backupPrivilege));
    for (DWORD* state : {&tooMany, static_cast<DWORD*>(nullptr)}) {
        auto* const privileges = reinterpret_cast<PTOKEN_PRIVILEGES>(state);
        EXPECT_FALSE(AdjustTokenPrivileges(token, FALSE, privileges, 16, nullptr, nullptr));
        EXPECT_EQ(GetLastError(), 87u);
    }
}

} /* namespace */
