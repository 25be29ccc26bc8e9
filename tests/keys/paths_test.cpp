/* Tables of paths, and the file server's GUID. */
#include "tests/support/small_system.h"

namespace offline {
namespace {

struct Paths : PrivilegedSystem {};

TEST_F(Paths, Tables) {
    const WCHAR* const only[] = {u"w", nullptr};
    constexpr uint32_t values = SID_REPLACE_VALUES;
    const sidKeyPath a = {u"TEST\\a", values, nullptr}, b = {u"TEST\\b", values, nullptr};
    const sidKeyPath no = {u"TEST\\no", values, nullptr}, inA = {u"TEST\\a", values, only},
                     end = {nullptr, 0, nullptr};
    const std::vector<Fault> gone = {{"ZwOpenKey", "a", STATUS_OBJECT_PATH_NOT_FOUND}};
    // clang-format off
    const struct {
        std::vector<sidKeyPath> table; uint32_t flags; DWORD result; const char* written;
        std::vector<Fault> faults = {}; uint32_t newSize = 24;
    } rows[] = {
        {{{u"TEST\\a", 0, nullptr}}, values, 0, ""},
        {{a, end, b}, 0, 0, "av aw "},
        {{inA, b}, 0, 0, "aw bv bw "},
        {{{u"TEST\\a", SID_OPTIONAL, nullptr}, {u"TEST\\b", SID_OPTIONAL, only}}, values, 0, "av aw bw "},
        {{no, b}, 0, ERROR_FILE_NOT_FOUND, ""},
        {{no, b}, SID_OPTIONAL, 0, "bv bw "},
        {{a, b}, SID_OPTIONAL, ERROR_ACCESS_DENIED, "", {{"ZwSetValueKey", "a", STATUS_ACCESS_DENIED}}},
        {{a, b}, 0, ERROR_PATH_NOT_FOUND, "", gone},
        {{a, b}, SID_OPTIONAL, 0, "bv bw ", gone},
        {{inA, b}, 0, ERROR_INVALID_PARAMETER, "", {}, 20},
    };
    // clang-format on
    grow("a b");
    for (const auto& row : rows) {
        for (const char* key : {"a", "b"}) {
            for (const char* name : {"v", "w"}) set(key, name, REG_BINARY, oldSid);
        }
        std::vector<sidKeyPath> table = row.table;
        table.push_back(end);
        faults = row.faults;
        const std::string told = outcome({}, [&] {
            return sidReplaceInKeyPaths(HKEY_LOCAL_MACHINE, row.flags, table.data(), oldSid.data(), 24,
                                        newSid.data(), row.newSize);
        });
        EXPECT_TRUE((", " + told).ends_with(", " + std::to_string(row.result))) << told;
        faults.clear();
        std::string written;
        for (const std::string key : {"a", "b"}) {
            for (const char* name : {"v", "w"}) written += get(key, name) == newSid ? key + name + " " : "";
        }
        EXPECT_EQ(written, row.written);
    }
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

TEST_F(Paths, ServerGuid) {
    const std::string path = "SYSTEM\\CurrentControlSet\\Services\\lanmanserver\\Parameters";
    const Legend legend = {{"ERROR lanmanServerReplaceGuid: Win API call", "!"}, {path, "PATH"}};
    const struct {
        Fault fault;
        std::string expected;
    } rows[] = {
        {{"none"}, "0"},
        {{"UuidCreate", "", 14}, "! UuidCreate returned 14, 14"},
        {{"RegOpenKeyExW", "", 2}, "! RegOpenKeyEx returned 2 for PATH, 2"},
        {{"RegSetValueExW", "", 5}, "! RegSetValueEx returned 5 for PATH\\Guid, 5"},
    };
    growWith(path);
    const HKEY root = asHkey(at(""));
    for (const auto& row : rows) {
        set(path, "Guid", REG_SZ, {1, 2});
        answer.UuidCreate = [&](UUID* uuid) {
            memset(uuid, 0x5A, sizeof *uuid);
            return RPC_STATUS{RPC_S_UUID_LOCAL_ONLY};
        };
        faults = {row.fault};
        EXPECT_EQ(outcome(legend, [&] { return lanmanServerReplaceGuid(root); }), row.expected);
        ULONG type = 0;
        const ByteVector guid = get(path, "Guid", &type);
        const bool written = guid == ByteVector(16, 0x5A) && type == REG_BINARY;
        EXPECT_TRUE(row.expected == "0" ? written : guid == ByteVector({1, 2})) << row.expected;
    }
}

} /* namespace */
} /* namespace offline */
