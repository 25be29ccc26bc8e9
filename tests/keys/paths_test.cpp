/* Tables of paths, and the file server's GUID. */
#include "tests/support/small_system.h"

namespace offline {
namespace {

struct Paths : PrivilegedSystem {};

/* What a row asks for is added to what the caller does; the first that fails is the last, unless it is
 * optional and missing. */
TEST_F(Paths, Tables) {
    const WCHAR* const only[] = {u"w", nullptr};
    const sidKeyPath missing = {u"TEST\\no", SID_REPLACE_VALUES, nullptr},
                     a = {u"TEST\\a", SID_REPLACE_VALUES, only}, end = {nullptr, 0, nullptr};
    const sidKeyPath table[] = {missing, a, end};
    grow("a");
    for (const char* name : {"v", "w"}) set("a", name, REG_BINARY, oldSid);
    for (const uint32_t flags : {0u, 0u + SID_OPTIONAL}) {
        EXPECT_EQ(
            sidReplaceInKeyPaths(HKEY_LOCAL_MACHINE, flags, table, oldSid.data(), 24, newSid.data(), 24),
            flags != 0 ? 0u : DWORD{ERROR_FILE_NOT_FOUND});
        EXPECT_EQ(get("a", "w"), flags != 0 ? newSid : oldSid);
    }
    EXPECT_EQ(get("a", "v"), oldSid);
}

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
