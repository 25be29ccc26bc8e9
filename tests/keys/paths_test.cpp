/* Tables of paths, and the file server's GUID. */
#include "tests/keys/keys_fixture.h"

namespace offline {
namespace {

struct Paths : Keys {};

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
        refuse(row.faults);
        EXPECT_EQ(sidReplaceInKeyPaths(HKEY_LOCAL_MACHINE, row.flags, table.data(), oldSid.data(), 24,
                                       newSid.data(), row.newSize),
                  row.result);
        refuse({});
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
        const char16_t* path; /* from the hive's name on */
        const char* name;
        bool values, names;
    } rows[] = {
        {u"SECURITY\\Policy", "any", true, true},
        {u"SECURITY\\SAM\\Domains", "any", true, true},
        {u"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion", "any", false, true},
        {u"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion", "Sid", true, true},
        {u"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion", "Security", true, true},
        {u"SOFTWARE\\Microsoft\\Windows\\CurrentVersion", "any", true, true},
        {u"SYSTEM\\CurrentControlSet\\Services", "any", true, false},
        {u"SOFTWARE\\Classes\\AppID", "any", false, false},
        {u"SOFTWARE\\Classes\\AppID", "AccessPermission", true, false},
        {u"SOFTWARE\\Classes\\AppID", "LaunchPermission", true, false},
    };
    const std::u16string machine = u"\\Registry\\Machine\\", oldWide = wide(oldText);
    for (const char16_t* name : {u"SECURITY", u"SOFTWARE", u"SYSTEM"}) mount(name);
    for (const auto& row : rows) {
        const HANDLE key = make(machine + row.path + u"\\sub\\" + oldWide);
        EXPECT_GE(setText(key, wide(row.name), REG_SZ, oldWide), 0);
    }
    EXPECT_EQ(sidReplaceInSelectedKeys(HKEY_LOCAL_MACHINE, 0, oldSid.data(), 24, newSid.data(), 24), 0u);
    for (const auto& row : rows) {
        const HANDLE key = open(machine + row.path + u"\\sub\\" + wide(row.names ? newText : oldText));
        WCHAR data[64] = {};
        DWORD size = sizeof data;
        RegQueryValueExW(asHkey(key), wide(row.name).c_str(), nullptr, nullptr, reinterpret_cast<BYTE*>(data),
                         &size);
        EXPECT_EQ(data, wide(row.values ? newText : oldText)) << toUtf8(row.path) << " " << row.name;
    }
}

TEST_F(Paths, ServerGuid) {
    const std::string path = "SYSTEM\\CurrentControlSet\\Services\\lanmanserver\\Parameters";
    const Legend legend = {{"ERROR lanmanServerReplaceGuid: Win API call", "!"}, {path, "PATH"}};
    const struct {
        RPC_STATUS uuid;
        std::vector<Fault> faults;
        std::string expected;
    } rows[] = {
        {0, {}, "0"},
        {RPC_S_UUID_LOCAL_ONLY, {}, "0"},
        {14, {}, "! UuidCreate returned 14, 14"},
        {0, {{"RegOpenKeyExW", "", 2}}, "! RegOpenKeyEx returned 2 for PATH, 2"},
        {0, {{"RegSetValueExW", "", 5}}, "! RegSetValueEx returned 5 for PATH\\Guid, 5"},
    };
    make(full(wide(path)));
    const HKEY root = asHkey(at(""));
    for (const auto& row : rows) {
        set(path, "Guid", REG_SZ, {1, 2});
        answer.UuidCreate = [&](UUID* uuid) {
            memset(uuid, 0x5A, sizeof *uuid);
            return row.uuid;
        };
        refuse(row.faults);
        EXPECT_EQ(outcome(legend, [&] { return lanmanServerReplaceGuid(root); }), row.expected);
        ULONG type = 0;
        const ByteVector guid = get(path, "Guid", &type);
        const bool written = guid == ByteVector(16, 0x5A) && type == REG_BINARY;
        EXPECT_TRUE(row.expected == "0" ? written : guid == ByteVector({1, 2})) << row.expected;
    }
}

} /* namespace */
} /* namespace offline */
