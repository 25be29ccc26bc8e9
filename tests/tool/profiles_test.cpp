/* The tool's sweeps over a root's children and over the profiles' hives. */
#include <algorithm>

#include "tests/support/small_system.h"
#include "tool/run.h"

namespace offline {
namespace {

struct Sweep : PrivilegedSystem {
    runState state = {};

    void SetUp() override {
        PrivilegedSystem::SetUp();
        state.sidOldSize = state.sidNewSize = 24;
        memcpy(state.sidOld, oldSid.data(), 24);
        memcpy(state.sidNew, newSid.data(), 24);
        state.sidFlags = SID_RECURSIVE | SID_REPLACE_SD;
    }
    /* "output|errors|result", without the log. */
    static std::string run(const std::function<DWORD()>& operation) {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const size_t before = openHandles();
        const DWORD result = operation();
        EXPECT_EQ(openHandles(), before);
        const std::string out = testing::internal::GetCapturedStdout();
        const std::string err = testing::internal::GetCapturedStderr();
        // clang-format off
        return shortened({{"updating SIDs in ", "in "}, {" ...\n", " "}, {" failed with code", ""},
                          {"\n", " "},
                          {"loaded profile hive ", "loaded "}, {"\\ntuser.dat", "/n"},
                          {"Software\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList", "LIST"}},
                         {out + "|" + err + "|" + std::to_string(result)});
        // clang-format on
    }
};

/* What fails at one child does not keep the others from being treated; a failed enumeration does. */
TEST_F(Sweep, Subkeys) {
    const std::string all = "in ROOT\\a in ROOT\\b in ROOT\\c ||0";
    const struct {
        Fault fault;
        std::string expected;
        const char* treated;
    } rows[] = {
        {{"none"}, all, "a a\\x a\\x\\y b c "},
        {{"ZwOpenKey", "x", STATUS_UNSUCCESSFUL, 1, 1}, all, "a a\\x\\y b c "},
        {{"ZwOpenKey", "b", STATUS_ACCESS_DENIED}, "in ROOT\\a in ROOT\\c ||0", "a a\\x a\\x\\y c "},
        {{"RegEnumKeyExW", "", ERROR_MORE_DATA, 1},
         "in ROOT\\a |RegEnumKeyEx(ROOT, 1) 234 |0",
         "a a\\x a\\x\\y "},
        {{"RegGetKeySecurity", "a", ERROR_ACCESS_DENIED}, all, "a\\x a\\x\\y b c "},
        {{"ZwEnumerateKey", "a", STATUS_UNSUCCESSFUL}, all, "a b c "},
    };
    const std::vector<std::string> paths = {"a", "a\\x", "a\\x\\y", "b", "c"};
    const HKEY root = asHkey(at(""));
    grow("a a\\x a\\x\\y b c");
    for (const auto& row : rows) {
        for (const std::string& path : paths) describe(path, allOf(oldText));
        faults = {row.fault};
        EXPECT_EQ(run([&] { return updateSubkeys(&state, root, u"ROOT"); }), row.expected);
        faults.clear();
        std::string treated;
        for (const std::string& path : paths) treated += holds(path, oldSid) == 0 ? path + " " : "";
        EXPECT_EQ(treated, row.treated);
    }
    EXPECT_EQ(run([&] { return updateKey(&state, u"none"); }), "|regOpenKey(none) 2 |2");
}

/* What the loader is asked for and gives; the hive saved by an unmount is in the recording. */
std::u16string loaded;
NTSTATUS loadStatus;
Recording saved;
NTSTATUS loadHive(std::u16string_view file, HivePtr& made, std::unique_ptr<HiveStore>& into) {
    loaded = file;
    if (loadStatus < 0) return loadStatus;
    into = std::make_unique<RecordingStore>(saved);
    return hiveCreate(5, u"ROOT", u"ntuser.dat", allOf(oldText), made);
}

struct Profiles : Sweep {
    const std::string list =
        "\\Registry\\Machine\\SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList";

    void SetUp() override {
        Sweep::SetUp();
        registrySetLoader(loadHive);
        answer.GetFileAttributesW = [](LPCWSTR path) {
            const std::u16string_view text = path;
            if (text.starts_with(u"C:\\no")) return INVALID_FILE_ATTRIBUTES;
            return text.ends_with(u".man") ? DWORD{0x20} : DWORD{FILE_ATTRIBUTE_DIRECTORY};
        };
        answer.RegQueryValueExW = [](HKEY key, LPCWSTR name, LPDWORD reserved, LPDWORD type, BYTE* data,
                                     LPDWORD size) {
            const DWORD room = *size;
            const LSTATUS error = platform.RegQueryValueExW(key, name, reserved, type, data, size);
            if (error == 0) memset(data + *size, 'z', room - *size);  // no terminator that is not stored
            return error;
        };
        EXPECT_EQ(profiles(), "|RegOpenKeyExW(LIST) 2 |2");
        mount(u"SOFTWARE");
        growWith(list);
    }
    std::string profiles(NTSTATUS status = 0) {
        loadStatus = status;
        loaded.clear();
        saved = {};
        return run([&] { return updateProfiles(&state); });
    }
    void profile(const std::string& name, ULONG type, const std::u16string& path) {
        growWith(list + "\\" + name);
        set(list + "\\" + name, "ProfileImagePath", type, bytesOf(path));
    }
};

/* One profile, by its stored path and by what fails. */
TEST_F(Profiles, Each) {
    const std::u16string nul(1, u'\0'), room = u"C:\\" + std::u16string(257, 'y');  // 260
    const std::u16string file = u"C:\\p\\ntuser.dat", most = room.substr(0, 249), cut = room.substr(0, 250);
    const std::string done = "loaded User.P <- C:\\p/n in User.P |";
    constexpr NTSTATUS missing = STATUS_OBJECT_NAME_NOT_FOUND;
    // clang-format off
    const struct {
        std::u16string path; ULONG type;
        std::string expected;
        std::u16string file; /* what was asked of the loader */
        NTSTATUS load = 0;
        Fault fault = {"none"};
    } rows[] = {
        {u"C:\\p" + nul, REG_SZ, done + "|0", file},
        {u"C:\\p", REG_EXPAND_SZ, done + "|0", file},
        {u"C:\\p.man" + nul, REG_SZ, "loaded User.P <- C:\\p.man in User.P ||0", u"C:\\p.man"},
        {u"C:\\no" + nul, REG_SZ, "|RegLoadKey(User.P, C:\\no/n) 2 |0", u"C:\\no\\ntuser.dat", missing},
        {u"C:\\p" + nul, REG_SZ, "||0", file, STATUS_SHARING_VIOLATION},
        {most + nul, REG_SZ, "loaded User.P <- " + toUtf8(most) + "/n in User.P ||0", most + u"\\ntuser.dat"},
        {cut + nul, REG_SZ, "|RegLoadKey(User.P, " + toUtf8(cut) + "\\ntuser.da) 2 |0",
         cut + u"\\ntuser.da", missing},
        {room, REG_SZ, "|RegLoadKey(User.P, " + toUtf8(room) + ") 2 |0", room, missing},
        {room + nul, REG_SZ, "|RegQueryValueEx(LIST\\P) 234 |0", u""},
        {u"C:\\p", REG_BINARY, "|Unexpected type of image path (3) for P |0", u""},
        {u"C:\\p", REG_SZ, "|RegOpenKeyExW(LIST\\P) 5 |0", u"", 0, {"RegOpenKeyExW", "", 5, 1, 1}},
        {u"C:\\p", REG_SZ, done + "RegUnloadKey(User.P) 5 |0", file, 0, {"RegUnLoadKeyW", "", 5, 0, 1}},
        {u"C:\\p", REG_SZ, "|RegOpenKeyExW(User.P) 5 |0", file, 0, {"RegOpenKeyExW", "", 5, 2, 1}},
    };
    // clang-format on
    for (const auto& row : rows) {
        profile("P", row.type, row.path);
        faults = {row.fault};
        EXPECT_EQ(profiles(row.load), row.expected);
        faults.clear();
        EXPECT_EQ(toUtf8(loaded), toUtf8(row.file));
        const bool stays = !row.file.empty() && row.fault.code != 0;
        EXPECT_EQ(RegUnLoadKeyW(HKEY_LOCAL_MACHINE, u"User.P") == 0, stays);
        const auto found = std::search(saved.file.begin(), saved.file.end(), newSid.begin(), newSid.end());
        EXPECT_EQ(found != saved.file.end(), row.expected.starts_with("loaded"));
    }
}

/* What fails at one profile does not keep the next from being treated; a failed enumeration does. */
TEST_F(Profiles, List) {
    growWith(list + "\\A");
    profile("B", REG_SZ, u"C:\\b");
    profile("C", REG_DWORD, u"12");
    profile("D", REG_SZ, u"C:\\d");
    const std::string b = "loaded User.B <- C:\\b/n in User.B ", missing = "RegQueryValueEx(LIST\\A) 2 ";
    EXPECT_EQ(profiles(), b + "loaded User.D <- C:\\d/n in User.D |" + missing +
                              "Unexpected type of image path (4) for C |0");
    faults = {{"RegOpenKeyExW", "", 5, 1, 1}, {"RegEnumKeyExW", "", ERROR_ACCESS_DENIED, 2}};
    EXPECT_EQ(profiles(), b + "|RegOpenKeyExW(LIST\\A) 5 RegEnumKeyEx(LIST, 2) 5 |0");
}

} /* namespace */
} /* namespace offline */
