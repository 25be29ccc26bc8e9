#include <gtest/gtest.h>

#include "tests/security/shapes.h"

namespace {

using namespace offline;

struct TokenTest : testing::Test {
    HANDLE token = nullptr;
    void SetUp() override {
        setAccessMode(AccessMode::checked);
        ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY | TOKEN_ADJUST_PRIVILEGES, &token));
    }
    void TearDown() override { CloseHandle(token); }

    DWORD adjust(HANDLE handle, const std::vector<std::pair<uint64_t, DWORD>>& changes) {
        Image state;
        put(state, changes.size(), 4);
        for (const auto& [luid, attributes] : changes) {
            put(state, luid, 8);
            put(state, attributes, 4);
        }
        const Exact exact(state);
        SetLastError(77);
        const BOOL done = AdjustTokenPrivileges(
            handle, FALSE, reinterpret_cast<PTOKEN_PRIVILEGES>(exact.bytes.get()), 16, nullptr, nullptr);
        const DWORD error = GetLastError();
        EXPECT_EQ(done == TRUE, error == 0 || error == ERROR_NOT_ALL_ASSIGNED);
        return error;
    }
};

TEST_F(TokenTest, RecordsPointBehindThemselves) {
    const struct {
        AccessMode mode;
        TOKEN_INFORMATION_CLASS infoClass;
        DWORD size;
        std::string sid;
    } rows[] = {{AccessMode::checked, TokenUser, 44, self},
                {AccessMode::checked, TokenOwner, 24, admins},
                {AccessMode::unrefused, TokenUser, 28, localSystem}};
    for (const auto& row : rows) {
        setAccessMode(row.mode);
        const Exact buffer(Image(row.size, 0xAA));
        DWORD length = 0;
        EXPECT_FALSE(GetTokenInformation(token, row.infoClass, buffer.bytes.get(), row.size - 1, &length));
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
        EXPECT_EQ(length, row.size);
        EXPECT_EQ(buffer.bytes[0], 0xAA);
        ASSERT_TRUE(GetTokenInformation(token, row.infoClass, buffer.bytes.get(), row.size, &length));
        uint8_t* sid = nullptr;
        memcpy(&sid, buffer.bytes.get(), sizeof sid);
        ASSERT_EQ(sid, buffer.bytes.get() + (row.infoClass == TokenUser ? 16 : 8));
        EXPECT_EQ(sidToText({sid, static_cast<size_t>(buffer.bytes.get() + row.size - sid)}), row.sid);
    }
}

TEST_F(TokenTest, PrivilegeNames) {
    const std::pair<const char16_t*, DWORD> rows[] = {{u"SeCreateTokenPrivilege", 2},
                                                      {u"SeSecurityPrivilege", 8},
                                                      {u"SeTakeOwnershipPrivilege", 9},
                                                      {u"sebackupprivilege", 17},
                                                      {u"SERESTOREPRIVILEGE", 18},
                                                      {u"SeShutdownPrivilege", 19},
                                                      {u"SeChangeNotifyPrivilege", 23},
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
    EXPECT_FALSE(privilegeEnabled(backupPrivilege));
    EXPECT_TRUE(privilegeEnabled(23));
    EXPECT_EQ(adjust(token, {{backupPrivilege, 2}, {restorePrivilege, 2}}), 0u);
    EXPECT_TRUE(privilegeEnabled(backupPrivilege) && privilegeEnabled(restorePrivilege));
    EXPECT_EQ(adjust(token, {{backupPrivilege, 0}}), 0u);
    EXPECT_FALSE(privilegeEnabled(backupPrivilege));
    EXPECT_EQ(adjust(token, {{backupPrivilege, 2}, {backupPrivilege, 0}}), 0u) << "the last one holds";
    EXPECT_FALSE(privilegeEnabled(backupPrivilege));

    removePrivilege(shutdownPrivilege);
    EXPECT_EQ(adjust(token, {{shutdownPrivilege, 2}, {securityPrivilege, 2}}), 1300u);
    EXPECT_FALSE(privilegeEnabled(shutdownPrivilege));
    EXPECT_TRUE(privilegeEnabled(securityPrivilege));
    for (const uint64_t none : {0ull, 1ull, 36ull, 0xFFFFFFFFull, 0x100000011ull})
        EXPECT_EQ(adjust(token, {{none, 2}}), 1300u);
    EXPECT_EQ(adjust(token, {{securityPrivilege, 4}}), 0u);
    EXPECT_EQ(adjust(token, {{securityPrivilege, 2}}), 1300u) << "removed for good";

    struct {
        DWORD count;
        LUID_AND_ATTRIBUTES entries[2];
    } before = {};
    auto* previous = reinterpret_cast<PTOKEN_PRIVILEGES>(&before);
    DWORD length = 0;
    EXPECT_FALSE(AdjustTokenPrivileges(token, TRUE, nullptr, 16, previous, &length));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
    EXPECT_EQ(length, 4 + 2 * 12u);
    EXPECT_TRUE(privilegeEnabled(restorePrivilege)) << "nothing changed";
    EXPECT_TRUE(AdjustTokenPrivileges(token, TRUE, nullptr, sizeof before, previous, &length));
    EXPECT_EQ(before.count, 2u);
    EXPECT_EQ(before.entries[0].Luid.LowPart, restorePrivilege);
    EXPECT_EQ(before.entries[0].Attributes, SE_PRIVILEGE_ENABLED);
    EXPECT_FALSE(privilegeEnabled(restorePrivilege) || privilegeEnabled(23));
}

TEST_F(TokenTest, Refuses) {
    HANDLE query = nullptr;
    HANDLE adjustOnly = nullptr;
    ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &query));
    ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES, &adjustOnly));
    EXPECT_EQ(adjust(query, {{backupPrivilege, 2}}), 5u);
    DWORD length = 0;
    EXPECT_FALSE(GetTokenInformation(adjustOnly, TokenUser, nullptr, 0, &length));
    EXPECT_EQ(GetLastError(), 5u);
    CloseHandle(query);
    CloseHandle(adjustOnly);
    EXPECT_EQ(adjust(query, {{backupPrivilege, 2}}), 6u) << "closed";
    EXPECT_EQ(adjust(GetCurrentProcess(), {{backupPrivilege, 2}}), 6u);
    EXPECT_FALSE(privilegeEnabled(backupPrivilege));
    EXPECT_FALSE(OpenProcessToken(nullptr, TOKEN_QUERY, &query));
    EXPECT_EQ(GetLastError(), 6u);
    DWORD tooMany = 61;
    EXPECT_FALSE(AdjustTokenPrivileges(token, FALSE, reinterpret_cast<PTOKEN_PRIVILEGES>(&tooMany), 16,
                                       nullptr, nullptr));
    EXPECT_EQ(GetLastError(), 87u);
    EXPECT_FALSE(AdjustTokenPrivileges(token, FALSE, nullptr, 16, nullptr, nullptr));
    EXPECT_EQ(GetLastError(), 87u);
}

} /* namespace */
