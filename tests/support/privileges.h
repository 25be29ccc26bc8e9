/* The running account's privileges, as a test wants them. */
#ifndef QUILLET_TESTS_SUPPORT_PRIVILEGES_H
#define QUILLET_TESTS_SUPPORT_PRIVILEGES_H

#include <gtest/gtest.h>

#include "platform/nt.h"

namespace offline {

/* attributes: SE_PRIVILEGE_ENABLED, or 0 to disable it. */
inline void enablePrivilege(DWORD privilege, DWORD attributes = SE_PRIVILEGE_ENABLED) {
    HANDLE token = nullptr;
    TOKEN_PRIVILEGES privileges = {1, {{{privilege, 0}, attributes}}};
    ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES, &token));
    EXPECT_TRUE(AdjustTokenPrivileges(token, FALSE, &privileges, sizeof privileges, nullptr, nullptr));
    CloseHandle(token);
}

} /* namespace offline */

#endif
