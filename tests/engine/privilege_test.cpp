#include "common/privilege.h"

#include <algorithm>

#include "common/log.h"
#include "tests/engine/scripted.h"

namespace {

struct Row {
    const char* name;
    DWORD open, lookup; /* what the calls fail with, or 0 */
    BOOL adjusted;      /* what the last call gives, and the last error that it leaves */
    DWORD outcome;
    DWORD result;
    Events expected;
};

const char opened[] = "OpenProcessToken 20";
const char lookedUp[] = "LookupPrivilegeValueW SeBackupPrivilege";
const char adjusted[] = "AdjustTokenPrivileges 70 0: 1 privilege 17 is 2, 16 bytes";
const char closed[] = "CloseHandle 70";
const char adjustFailed[] =
    "ERROR ombraModifyPrivilege: Win API call AdjustTokenPrivileges returned %d for SeBackupPrivilege";

const Row rows[] = {
    {"enabled", 0, 0, TRUE, 0, 0, {opened, lookedUp, adjusted, closed}},
    {"not held", 0, 0, TRUE, 1300, 1300, {opened, lookedUp, adjusted, text(adjustFailed, 1300), closed}},
    {"adjusting fails", 0, 0, FALSE, 6, 6, {opened, lookedUp, adjusted, text(adjustFailed, 6), closed}},
    {"unknown name",
     0,
     1313,
     TRUE,
     0,
     1313,
     {opened, lookedUp,
      "ERROR ombraModifyPrivilege: Win API call LookupPrivilegeValue returned 1313 for SeBackupPrivilege",
      closed}},
    {"no token",
     5,
     0,
     TRUE,
     0,
     5,
     {opened, "ERROR ombraModifyPrivilege: Win API call OpenProcessToken returned 5"}},
};

} /* namespace */

using Privilege = Scripted;

TEST_F(Privilege, OutcomesOfEachCall) {
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        SetUp();
        answer.OpenProcessToken = [&](HANDLE, DWORD access, PHANDLE token) {
            note("OpenProcessToken %x", access);
            if (row.open != 0) return failWith(row.open);
            *token = fakeHandle(0x70);
            return TRUE;
        };
        answer.LookupPrivilegeValueW = [&](LPCWSTR system, LPCWSTR name, PLUID luid) {
            note("LookupPrivilegeValueW %ws", name);
            EXPECT_EQ(system, nullptr);
            *luid = {17, 0};
            return row.lookup != 0 ? failWith(row.lookup) : TRUE;
        };
        answer.AdjustTokenPrivileges = [&](HANDLE token, BOOL all, PTOKEN_PRIVILEGES state, DWORD size,
                                           PTOKEN_PRIVILEGES, LPDWORD) {
            const LUID_AND_ATTRIBUTES& first = state->Privileges[0];
            note("AdjustTokenPrivileges %Ix %d: %d privilege %d is %d, %d bytes", numberOf(token), all,
                 state->PrivilegeCount, first.Luid.LowPart, first.Attributes, size);
            SetLastError(row.outcome);
            return row.adjusted;
        };
        EXPECT_EQ(ombraEnablePrivilege(u"SeBackupPrivilege"), row.result);
        EXPECT_EQ(events, row.expected);
        ombraSetLogger(nullptr);
        EXPECT_EQ(ombraModifyPrivilege(u"SeBackupPrivilege", 0), row.result);
        const std::string disabled = "AdjustTokenPrivileges 70 0: 1 privilege 17 is 0, 16 bytes";
        const bool reached = row.open == 0 && row.lookup == 0;
        EXPECT_EQ(std::count(events.begin(), events.end(), disabled), reached ? 1 : 0);
    }
}
