/* Tables of paths, and the file server's GUID. */
#include "tests/keys/keys.h"

namespace offline {
namespace {

struct Paths : Keys {};

TEST_F(Paths, Tables) {
    const WCHAR* const only[] = {u"w", nullptr};
    const uint32_t values = SID_REPLACE_VALUES;
    const struct {
        std::vector<sidKeyPath> table;
        uint32_t flags;
        DWORD result;
        const char* written;
    } rows[] = {
        {{{u"TEST\\a", 0, nullptr}}, values, 0, ""},
        {{{u"TEST\\a", values, nullptr}, {nullptr, 0, nullptr}, {u"TEST\\b", values, nullptr}},
         0,
         0,
         "av aw "},
        {{{u"TEST\\a", values, only}, {u"TEST\\b", values, nullptr}}, 0, 0, "aw bv bw "},
        {{{u"TEST\\a", SID_OPTIONAL, nullptr}, {u"TEST\\b", SID_OPTIONAL, only}}, values, 0, "av aw bw "},
        {{{u"TEST\\no", values, nullptr}, {u"TEST\\b", values, nullptr}}, 0, ERROR_FILE_NOT_FOUND, ""},
        {{{u"TEST\\no", values, nullptr}, {u"TEST\\b", values, nullptr}}, SID_OPTIONAL, 0, "bv bw "},
    };
    grow("a b");
    for (const auto& row : rows) {
        for (const char* key : {"a", "b"}) {
            for (const char* name : {"v", "w"}) set(key, name, REG_BINARY, oldSid);
        }
        std::vector<sidKeyPath> table = row.table;
        table.push_back({nullptr, 0, nullptr});
        EXPECT_EQ(sidReplaceInKeyPaths(HKEY_LOCAL_MACHINE, row.flags, table.data(), oldSid.data(), 24,
                                       newSid.data(), 24),
                  row.result);
        std::string written;
        for (const char* key : {"a", "b"}) {
            for (const char* name : {"v", "w"})
                written += get(key, name) == newSid ? text("%s%s ", key, name) : "";
        }
        EXPECT_EQ(written, row.written);
    }
    const sidKeyPath two[] = {
        {u"TEST\\a", values, only}, {u"TEST\\b", values, nullptr}, {nullptr, 0, nullptr}};
    const auto replaceInTwo = [&](uint32_t newSize) {
        return sidReplaceInKeyPaths(HKEY_LOCAL_MACHINE, SID_OPTIONAL, two, oldSid.data(), 24, newSid.data(),
                                    newSize);
    };
    EXPECT_EQ(replaceInTwo(20), DWORD{ERROR_INVALID_PARAMETER});
    set("b", "v", REG_BINARY, oldSid);
    set("a", "w", REG_BINARY, oldSid);
    refuse({"ZwSetValueKey", "a", STATUS_ACCESS_DENIED});
    EXPECT_EQ(replaceInTwo(24), DWORD{ERROR_ACCESS_DENIED});
    EXPECT_EQ(get("b", "v"), oldSid);
    refuse({"ZwOpenKey", "a", STATUS_OBJECT_PATH_NOT_FOUND});
    EXPECT_EQ(replaceInTwo(24), 0u);
    EXPECT_EQ(get("b", "v"), newSid);
    EXPECT_EQ(sidReplaceInKeyPath(HKEY_LOCAL_MACHINE, values, u"TEST\\a", nullptr, oldSid.data(), 24,
                                  newSid.data(), 24),
              DWORD{ERROR_PATH_NOT_FOUND});
}

/* The built-in table: its places below a machine that has them all, and its first missing one. */
TEST_F(Paths, Selected) {
    const struct {
        const char16_t* mount;
        const char* path;
        const char* name;
        bool values, names;
    } places[] = {
        {u"SECURITY", "Policy", "any", true, true},
        {u"SECURITY", "SAM\\Domains", "any", true, true},
        {u"SOFTWARE", "Microsoft\\Windows NT\\CurrentVersion", "any", false, true},
        {u"SOFTWARE", "Microsoft\\Windows NT\\CurrentVersion", "Sid", true, true},
        {u"SOFTWARE", "Microsoft\\Windows NT\\CurrentVersion", "Security", true, true},
        {u"SOFTWARE", "Microsoft\\Windows\\CurrentVersion", "any", true, true},
        {u"SYSTEM", "CurrentControlSet\\Services", "any", true, false},
        {u"SOFTWARE", "Classes\\AppID", "any", false, false},
        {u"SOFTWARE", "Classes\\AppID", "AccessPermission", true, false},
        {u"SOFTWARE", "Classes\\AppID", "LaunchPermission", true, false},
    };
    const auto pathOf = [](const auto& place) {
        return u"\\Registry\\Machine\\" + std::u16string(place.mount) + u"\\" + wide(place.path);
    };
    for (const char16_t* name : {u"SECURITY", u"SOFTWARE", u"SYSTEM"}) {
        HivePtr made;
        ASSERT_EQ(hiveCreate(5, u"ROOT", name, openToAll(), made), STATUS_SUCCESS);
        ASSERT_EQ(registryMount(u"\\Registry\\Machine\\" + std::u16string(name), std::move(made), nullptr),
                  STATUS_SUCCESS);
    }
    for (const auto& place : places) {
        const std::u16string path = pathOf(place) + u"\\sub\\" + wide(oldText);
        for (size_t end = 0; end != path.npos;) {
            end = path.find(u'\\', std::max<size_t>(end + 1, 18));
            HANDLE key = nullptr;
            if (end == path.npos ||
                std::count(path.begin(), path.begin() + static_cast<ptrdiff_t>(end), u'\\') > 3) {
                ASSERT_EQ(createKey(key, path.substr(0, end), {}), STATUS_SUCCESS);
                if (end == path.npos) {
                    EXPECT_GE(setText(key, wide(place.name), REG_SZ, wide(oldText)), 0);
                }
                ZwClose(key);
            }
        }
    }
    EXPECT_EQ(sidReplaceInSelectedKeys(HKEY_LOCAL_MACHINE, 0, oldSid.data(), 24, newSid.data(), 24), 0u);
    for (const auto& place : places) {
        const std::u16string path = pathOf(place) + u"\\sub\\" + wide(place.names ? newText : oldText);
        const HANDLE key = open(path);
        WCHAR data[64] = {};
        DWORD size = sizeof data;
        EXPECT_EQ(RegQueryValueExW(asHkey(key), wide(place.name).c_str(), nullptr, nullptr,
                                   reinterpret_cast<BYTE*>(data), &size),
                  0);
        EXPECT_EQ(std::u16string(data), wide(place.values ? newText : oldText)) << toUtf8(path) << place.name;
    }
}

TEST_F(Paths, ServerGuid) {
    const std::string path = "SYSTEM\\CurrentControlSet\\Services\\lanmanserver\\Parameters";
    const std::string error = "ERROR lanmanServerReplaceGuid: Win API call ";
    const HKEY root = asHkey(at(""));
    events.clear();
    EXPECT_EQ(lanmanServerReplaceGuid(root), 2u);
    EXPECT_EQ(events, Events({error + "RegOpenKeyEx returned 2 for " + path}));
    grow(
        "SYSTEM SYSTEM\\CurrentControlSet SYSTEM\\CurrentControlSet\\Services "
        "SYSTEM\\CurrentControlSet\\Services\\lanmanserver " +
        path);
    const struct {
        RPC_STATUS uuid;
        LSTATUS write;
        DWORD result;
        Events lines;
        bool written;
    } rows[] = {
        {0, 0, 0, {}, true},
        {RPC_S_UUID_LOCAL_ONLY, 0, 0, {}, true},
        {14, 0, 14, {error + "UuidCreate returned 14"}, false},
        {0, 5, 5, {error + "RegSetValueEx returned 5 for " + path + "\\Guid"}, false},
    };
    for (const auto& row : rows) {
        set(path, "Guid", REG_SZ, {1, 2});
        answer.UuidCreate = [&](UUID* uuid) {
            memset(uuid, 0x5A, sizeof *uuid);
            return row.uuid;
        };
        if (row.write != 0) refuse({"RegSetValueExW", "", row.write});
        events.clear();
        EXPECT_EQ(lanmanServerReplaceGuid(root), row.result);
        EXPECT_EQ(events, row.lines);
        ULONG type = 0;
        EXPECT_EQ(get(path, "Guid", &type), row.written ? Bytes(16, 0x5A) : Bytes({1, 2}));
        EXPECT_EQ(type, row.written ? 0u + REG_BINARY : 0u + REG_SZ);
    }
}

} /* namespace */
} /* namespace offline */
