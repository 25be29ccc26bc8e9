#include <gtest/gtest.h>

#include "tests/security/shapes.h"

namespace {

using namespace offline;

constexpr NTSTATUS denied = STATUS_ACCESS_DENIED;

struct Row {
    const char* name;
    std::string owner;
    Image dacl; /* empty: absent */
    ACCESS_MASK desired;
    NTSTATUS status;
    ACCESS_MASK granted;
};

void check(const Row& row, uint16_t control = 0) {
    ACCESS_MASK granted = 0xDEAD;
    const Image image = descriptor(row.owner, users, {}, row.dacl, control);
    EXPECT_EQ(accessCheck(image, row.desired, keyMapping, granted), row.status) << row.name;
    EXPECT_EQ(granted, row.granted) << row.name;
}

TEST(Access, EntriesInOrder) {
    setAccessMode(AccessMode::checked);
    const Image typed = {1, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    const Image untyped = {0, 0, 0, 0};
    const Row rows[] = {
        {"allowed to a group", stranger, acl({ace(0, 0, 0x20019, users)}), KEY_READ, 0, KEY_READ},
        {"allowed in two steps", stranger, acl({ace(0, 0, 1, users), ace(0, 0, 2, self)}), 3, 0, 3},
        {"not all of it", stranger, acl({ace(0, 0, 1, users)}), 3, denied, 0},
        {"to others only", stranger, acl({ace(0, 0, 3, stranger), ace(0, 0, 3, localSystem)}), 1, denied, 0},
        {"denied first", stranger, acl({ace(1, 0, 1, everyone), ace(0, 0, 3, admins)}), 1, denied, 0},
        {"denied first, another right", stranger, acl({ace(1, 0, 1, everyone), ace(0, 0, 3, admins)}), 2, 0,
         2},
        {"denied too late", stranger, acl({ace(0, 0, 1, admins), ace(1, 0, 1, everyone)}), 1, 0, 1},
        {"denied to others", stranger, acl({ace(1, 0, 1, stranger), ace(0, 0, 1, admins)}), 1, 0, 1},
        {"inherit-only", stranger, acl({ace(0, 0x0B, 3, admins)}), 1, denied, 0},
        {"denied inherit-only", stranger, acl({ace(1, 0x0B, 3, admins), ace(0, 0, 3, admins)}), 1, 0, 1},
        {"generic in both", stranger, acl({ace(0, 0, GENERIC_ALL, admins)}), GENERIC_WRITE, 0, KEY_WRITE},
        {"absent list", stranger, {}, 3, 0, 3},
        {"absent list, maximum", stranger, {}, MAXIMUM_ALLOWED, 0, KEY_ALL_ACCESS},
        {"empty list", stranger, acl({}), 1, denied, 0},
        {"empty list, maximum", stranger, acl({}), MAXIMUM_ALLOWED, denied, 0},
        {"nothing asked", stranger, {}, 0, denied, 0},
        {"maximum", stranger, acl({ace(1, 0, 1, users), ace(0, 0, 0x7, admins), ace(1, 0, 2, users)}),
         MAXIMUM_ALLOWED, 0, 6},
        {"maximum and more", stranger, acl({ace(0, 0, 4, admins)}), MAXIMUM_ALLOWED | 8, denied, 0},
        {"audit entry", stranger, acl({ace(2, 0xC0, 3, admins)}), 1, denied, 0},
        {"typed objects, any", stranger, acl({ace(5, 0, 3, admins, untyped)}), 1, 0, 1},
        {"typed objects, one type", stranger, acl({ace(5, 0, 3, admins, typed)}), 1, denied, 0},
        {"denied for one type", stranger, acl({ace(6, 0, 3, admins, typed), ace(0, 0, 3, admins)}), 1, denied,
         0},
        {"condition", stranger, acl({ace(9, 0, 3, admins)}), 1, denied, 0},
        {"denied on a condition", stranger, acl({ace(10, 0, 3, admins), ace(0, 0, 3, admins)}), 1, denied, 0},
        {"denied, SID cut off", stranger, acl({Image{10, 0, 4, 0}, ace(0, 0, 3, admins)}), 1, denied, 0},
    };
    for (const Row& row : rows) check(row);
    check({"null list", stranger, {}, 3, 0, 3}, SE_DACL_PRESENT);
}

TEST(Access, OwnersAndPrivileges) {
    setAccessMode(AccessMode::checked);
    const Image none = acl({});
    const Image deny = acl({ace(1, 0, WRITE_DAC, everyone)});
    const Image ownerRights = acl({ace(0, 0, READ_CONTROL, "S-1-3-4")});
    const Image below = acl({ace(0, 0x0A, READ_CONTROL, "S-1-3-4")});
    const Row rows[] = {
        {"owner", admins, none, READ_CONTROL | WRITE_DAC, 0, READ_CONTROL | WRITE_DAC},
        {"owner, denied", self, deny, WRITE_DAC, 0, WRITE_DAC},
        {"owner, more", admins, none, WRITE_DAC | 1, denied, 0},
        {"owner, maximum", admins, none, MAXIMUM_ALLOWED, 0, READ_CONTROL | WRITE_DAC},
        {"stranger", stranger, none, READ_CONTROL, denied, 0},
        {"no owner", "", none, READ_CONTROL, denied, 0},
        {"owner rights", admins, ownerRights, MAXIMUM_ALLOWED, 0, READ_CONTROL},
        {"owner rights, more", admins, ownerRights, WRITE_DAC, denied, 0},
        {"owner rights of a stranger", stranger, ownerRights, READ_CONTROL, denied, 0},
        {"owner rights below", admins, below, WRITE_DAC, 0, WRITE_DAC},
        {"no privilege to own", admins, none, WRITE_OWNER, denied, 0},
        {"no privilege to audit", admins, {}, ACCESS_SYSTEM_SECURITY | 1, STATUS_PRIVILEGE_NOT_HELD, 0},
    };
    for (const Row& row : rows) check(row);

    HANDLE token = nullptr;
    ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES, &token));
    for (const DWORD luid : {takeOwnershipPrivilege, securityPrivilege}) {
        TOKEN_PRIVILEGES state = {1, {{{luid, 0}, SE_PRIVILEGE_ENABLED}}};
        ASSERT_TRUE(AdjustTokenPrivileges(token, FALSE, &state, sizeof state, nullptr, nullptr));
    }
    CloseHandle(token);
    check({"may own", stranger, none, WRITE_OWNER, 0, WRITE_OWNER});
    check({"may own, not more", stranger, none, WRITE_OWNER | WRITE_DAC, denied, 0});
    check({"may audit", stranger, none, ACCESS_SYSTEM_SECURITY, 0, ACCESS_SYSTEM_SECURITY});
    check({"a list can't let audit", stranger, acl({ace(0, 0, 0xFFFFFFFF, admins)}), MAXIMUM_ALLOWED, 0,
           0x1FFFFF});
}

TEST(Access, Unrefused) {
    setAccessMode(AccessMode::unrefused);
    const Image deny = acl({ace(1, 0, 0x1FFFFF, everyone)});
    check({"denied", stranger, deny, KEY_ALL_ACCESS, 0, KEY_ALL_ACCESS});
    check({"maximum", stranger, deny, MAXIMUM_ALLOWED, 0, KEY_ALL_ACCESS});
    check({"audit", stranger, deny, ACCESS_SYSTEM_SECURITY, STATUS_PRIVILEGE_NOT_HELD, 0});
    ACCESS_MASK granted = 0;
    EXPECT_EQ(accessCheck({}, KEY_READ, keyMapping, granted), STATUS_SUCCESS);
    setAccessMode(AccessMode::checked);
    EXPECT_EQ(accessCheck({}, KEY_READ, keyMapping, granted), STATUS_INVALID_SECURITY_DESCR);
    EXPECT_EQ(granted, 0u);
}

} /* namespace */
