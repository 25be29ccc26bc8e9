#include "common/privilege.h"

#include "common/log.h"
#include "tests/engine/scripted.h"

using Privilege = Scripted;

TEST_F(Privilege, OutcomesOfEachCall) {
    const struct {
        DWORD open, lookup; /* what the calls fail with, or 0 */
        BOOL adjusted;      /* what the last call gives, and the last error that it leaves */
        DWORD outcome, result;
        std::string road;
    } rows[] = {
        {0, 0, TRUE, 0, 0, "look up, adjust, CloseHandle 70"},
        {0, 0, TRUE, 1300, 1300,
         "look up, adjust, ! AdjustTokenPrivileges 1300 for SeBackup, CloseHandle 70"},
        {0, 0, FALSE, 6, 6, "look up, adjust, ! AdjustTokenPrivileges 6 for SeBackup, CloseHandle 70"},
        {0, 1313, TRUE, 0, 1313, "look up, ! LookupPrivilegeValue 1313 for SeBackup, CloseHandle 70"},
        {5, 0, TRUE, 0, 5, "! OpenProcessToken 5"},
    };
    for (const auto& row : rows) {
        SetUp();
        DWORD attributes = SE_PRIVILEGE_ENABLED;
        answerForToken(nullptr, TokenUser, row.open);
        answer.LookupPrivilegeValueW = [&](LPCWSTR system, LPCWSTR name, PLUID luid) {
            note("look up");
            EXPECT_EQ(system, nullptr);
            EXPECT_EQ(std::u16string(name), u"SeBackup");
            *luid = {17, 0};
            return row.lookup != 0 ? failWith(row.lookup) : TRUE;
        };
        answer.AdjustTokenPrivileges = [&](HANDLE token, BOOL all, PTOKEN_PRIVILEGES state, DWORD size,
                                           PTOKEN_PRIVILEGES, LPDWORD) {
            note("adjust");
            EXPECT_TRUE(token == fakeHandle(0x70) && all == FALSE && size == 16 &&
                        state->PrivilegeCount == 1);
            EXPECT_EQ(state->Privileges[0].Luid.LowPart, 17u);
            EXPECT_EQ(state->Privileges[0].Attributes, attributes);
            SetLastError(row.outcome);
            return row.adjusted;
        };
        EXPECT_EQ(ombraEnablePrivilege(u"SeBackup"), row.result);
        EXPECT_EQ(shortened({{"ERROR ombraModifyPrivilege: Win API call", "!"}, {" returned", ""}}),
                  row.road);
        ombraSetLogger(nullptr);
        attributes = 0;
        EXPECT_EQ(ombraModifyPrivilege(u"SeBackup", 0), row.result);
    }
}
