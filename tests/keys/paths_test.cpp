/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Tables of paths, and the file server's GUID. */
#include "tests/support/small_system.h"

namespace offline {
namespace {

struct Paths : PrivilegedSystem {};

/* The built-in table: its keys below a machine that has them all. */
TEST_F(Paths, Selected) {
    const struct {
        const char* path; /* from the hive's name on */
        const char* name;
        bool values, names;
    } rows[] = {
        {"SECURITY\\Policy", "any", true, true},
        {"SECURITY\\SAM\\Domains", "any", true, true},
        {"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion", "any", false, true},
        {"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion", "Sid", true, true},
        {"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion", "Security", true, true},
        {"SOFTWARE\\Microsoft\\Windows\\CurrentVersion", "any", true, true},
        {"SYSTEM\\CurrentControlSet\\Services", "any", true, false},
        {"SOFTWARE\\Classes\\AppID", "any", false, false},
        {"SOFTWARE\\Classes\\AppID", "AccessPermission", true, false},
        {"SOFTWARE\\Classes\\AppID", "LaunchPermission", true, false},
    };
    const std::string machine = "\\Registry\\Machine\\";
    for (const char16_t* name : {u"SECURITY", u"SOFTWARE", u"SYSTEM"}) mount(name);
    for (const auto& row : rows) {
        growWith(machine + row.path + "\\sub\\OLD");
        set(machine + row.path + "\\sub\\OLD", row.name, REG_SZ, bytesOf(wide("OLD")));
    }
    EXPECT_EQ(outcome({},
                      [] {
                          return sidReplaceInSelectedKeys(HKEY_LOCAL_MACHINE, 0, oldSid.data(), 24,
                                                          newSid.data(), 24);
                      })
                  .back(),
              '0');
    for (const auto& row : rows) {
        const ByteVector value =
            get(machine + row.path + (row.names ? "\\sub\\NEW" : "\\sub\\OLD"), row.name);
        EXPECT_EQ(value, bytesOf(wide(row.values ? "NEW" : "OLD"))) << row.path << " " << row.name;
    }
}

} /* namespace */
} /* namespace offline */
