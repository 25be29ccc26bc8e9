/* SPDX-License-Identifier: GPL-2.0-or-later */
#include <gtest/gtest.h>

#include "tests/support/descriptors.h"

namespace {

using namespace offline;

struct Row {
    const char* name;
    std::string owner;
    Image dacl; /* empty: absent */
    ACCESS_MASK desired;
    ACCESS_MASK granted; /* 0: refused */
};

void check(const Row& row, uint16_t control = 0, NTSTATUS refusal = STATUS_ACCESS_DENIED) {
    ACCESS_MASK granted = 0xDEAD;
    const Image image = descriptor(row.owner, users, {}, row.dacl, control);
    EXPECT_EQ(accessCheck(image, row.desired, keyMapping, granted), row.granted != 0 ? 0 : refusal)
        << row.name;
    EXPECT_EQ(granted, row.granted) << row.name;
}

Image allow(ACCESS_MASK mask, const std::string& who, uint8_t flags = 0) {
    return ace(0, flags, mask, who);
}
Image deny(ACCESS_MASK mask, const std::string& who, uint8_t flags = 0) {
    return ace(1, flags, mask, who);
}

TEST(Access, WhatADescriptorGives) {
    setAccessMode(AccessMode::checked);
    const std::string rights = "S-1-3-4"; /* those of the owner */
    const Image typed = {1, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}, untyped(4),
                all3 = allow(3, admins);
    const Row rows[] = {
        // clang-format off
        {"allowed to a group", stranger, acl({allow(0x20019, users)}), KEY_READ, KEY_READ},
        {"in two steps", stranger, acl({allow(1, users), allow(2, self)}), 3, 3},
        {"not all of it", stranger, acl({allow(1, users), allow(3, stranger), allow(3, localSystem)}), 3, 0},
        {"denied first", stranger, acl({deny(1, everyone), all3}), 1, 0},
        {"another right denied", stranger, acl({deny(1, everyone), all3}), 2, 2},
        {"denied too late", stranger, acl({allow(1, admins), deny(1, everyone)}), 1, 1},
        {"denied to others", stranger, acl({deny(1, stranger), allow(1, admins)}), 1, 1},
        {"inherit-only", stranger, acl({allow(3, admins, 0x0B)}), 1, 0},
        {"denied inherit-only", stranger, acl({deny(1, admins, 0x0B), all3}), 1, 1},
        {"generic in both", stranger, acl({allow(GENERIC_ALL, admins)}), GENERIC_WRITE, KEY_WRITE},
        {"absent list", stranger, {}, 3, 3},
        {"absent list, maximum", stranger, {}, MAXIMUM_ALLOWED, KEY_ALL_ACCESS},
        {"empty list", stranger, acl({}), 1, 0},
        {"empty list, maximum", stranger, acl({}), MAXIMUM_ALLOWED, 0},
        {"nothing asked", stranger, {}, 0, 0},
        {"maximum", stranger, acl({deny(1, users), allow(7, admins), deny(2, users)}), MAXIMUM_ALLOWED, 6},
        {"maximum and more", stranger, acl({allow(4, admins)}), MAXIMUM_ALLOWED | 8, 0},
        {"no audit by a list", stranger, acl({allow(0xFFFFFFFF, admins)}), MAXIMUM_ALLOWED, 0x1FFFFF},
        {"audit entry", stranger, acl({ace(2, 0xC0, 3, admins)}), 1, 0},
        {"typed objects, any", stranger, acl({ace(5, 0, 3, admins, untyped)}), 1, 1},
        {"typed objects, one type", stranger, acl({ace(5, 0, 3, admins, typed)}), 1, 0},
        {"denied for one type", stranger, acl({ace(6, 0, 3, admins, typed), all3}), 1, 0},
        {"condition", stranger, acl({ace(9, 0, 3, admins)}), 1, 0},
        {"denied on a condition", stranger, acl({ace(10, 0, 3, admins), all3}), 1, 0},
        {"denied, SID cut off", stranger, acl({Image{10, 0, 4, 0}, all3}), 1, 0},
        {"owner", admins, acl({}), MAXIMUM_ALLOWED, READ_CONTROL | WRITE_DAC},
        {"owner, denied", self, acl({deny(WRITE_DAC, everyone)}), WRITE_DAC, WRITE_DAC},
        {"owner, more", admins, acl({}), WRITE_DAC | 1, 0},
        {"stranger", stranger, acl({}), READ_CONTROL, 0},
        {"no owner", "", acl({}), READ_CONTROL, 0},
        {"owner rights", admins, acl({allow(READ_CONTROL, rights)}), MAXIMUM_ALLOWED, READ_CONTROL},
        {"owner rights of a stranger", stranger, acl({allow(READ_CONTROL, rights)}), READ_CONTROL, 0},
        {"owner rights below", admins, acl({allow(READ_CONTROL, rights, 0x0A)}), WRITE_DAC, WRITE_DAC},
        {"no privilege to own", admins, acl({}), WRITE_OWNER, 0},
        // clang-format on
    };
    for (const Row& row : rows) check(row);
    check({"null list", stranger, {}, 3, 3}, SE_DACL_PRESENT);
    check({"no privilege to audit", admins, {}, ACCESS_SYSTEM_SECURITY | 1, 0}, 0, STATUS_PRIVILEGE_NOT_HELD);

    EXPECT_EQ(enable(takeOwnershipPrivilege) + enable(securityPrivilege), 0u);
    check({"may own", stranger, acl({}), WRITE_OWNER, WRITE_OWNER});
    check({"may own, not more", stranger, acl({}), WRITE_OWNER | WRITE_DAC, 0});
    check({"may audit", stranger, acl({}), ACCESS_SYSTEM_SECURITY, ACCESS_SYSTEM_SECURITY});
    check(rows[17]); /* no audit by a list */
    ACCESS_MASK granted = 0;
    EXPECT_EQ(accessCheck({}, KEY_READ, keyMapping, granted), STATUS_INVALID_SECURITY_DESCR);

    setAccessMode(AccessMode::unrefused);
    const Image none = acl({deny(0x1FFFFF, everyone)});
    check({"denied", stranger, none, KEY_ALL_ACCESS, KEY_ALL_ACCESS});
    check({"maximum", stranger, none, MAXIMUM_ALLOWED, KEY_ALL_ACCESS});
    check({"audit", stranger, none, ACCESS_SYSTEM_SECURITY, 0}, 0, STATUS_PRIVILEGE_NOT_HELD);
    EXPECT_EQ(accessCheck({}, KEY_READ, keyMapping, granted), STATUS_SUCCESS);
}

} /* namespace */
