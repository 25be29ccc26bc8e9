/* The tool's sweeps over a root's children and over the profiles' hives. */
#include "tests/keys/keys_fixture.h"
#include "tool/run.h"

namespace offline {
namespace {

const std::u16string listPath =
    u"\\Registry\\Machine\\SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList";
const std::string listName = "Software\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList";

struct Sweep : Keys {
    runState state = {};

    void SetUp() override {
        Keys::SetUp();
        state.sidOldSize = state.sidNewSize = 24;
        memcpy(state.sidOld, oldSid.data(), 24);
        memcpy(state.sidNew, newSid.data(), 24);
        state.sidFlags = SID_RECURSIVE | SID_REPLACE_SD;
    }
    void TearDown() override {
        verbosity = 0;
        Keys::TearDown();
    }
    /* "output|errors|result", without the log. */
    std::string run(const std::function<DWORD()>& operation) {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        std::string line = std::to_string(operation());
        line = testing::internal::GetCapturedStdout() + "|" + testing::internal::GetCapturedStderr() + "|" +
               line;
        // clang-format off
        return shortened({{"updating SIDs in ", "in "}, {" ...\n", " "}, {" failed with code", ""},
         {"\n", " "},
                          {"loaded profile hive ", "loaded "}, {listName, "LIST"}, {"\\ntuser.dat", "/n"}},
                          {line});
        // clang-format on
    }
};

TEST_F(Sweep, Subkeys) {
    const std::string all = "in ROOT\\a in ROOT\\b in ROOT\\c ||0";
    // clang-format off
    const struct {
        std::vector<Fault> faults; int32_t level; uint32_t flags; std::string expected; const char* treated;
    } rows[] = {
        {{}, 0, 0, all, "a a\\x b c "},
        {{}, -1, 0, "||0", "a a\\x b c "},
        {{}, 0, SID_SIMULATE, all, ""},
        {{{"ZwOpenKey", "b", STATUS_ACCESS_DENIED}}, 0, 0, "in ROOT\\a in ROOT\\c ||0", "a a\\x c "},
        {{{"RegEnumKeyExW", "", ERROR_MORE_DATA, 1}}, -1, 0, "|RegEnumKeyEx(ROOT, 1) 234 |0", "a a\\x "},
        {{{"RegGetKeySecurity", "a", ERROR_ACCESS_DENIED}}, 0, 0, all, "a\\x b c "},
        {{{"ZwEnumerateKey", "a", STATUS_UNSUCCESSFUL}}, 0, 0, all, "a b c "},
    };
    // clang-format on
    const std::vector<std::string> paths = {"a", "a\\x", "b", "c"};
    const HKEY root = asHkey(at(""));
    grow("a a\\x b c");
    for (const auto& row : rows) {
        for (const std::string& path : paths) describe(path, image({oldSid, administrators, {}, {}}));
        refuse(row.faults);
        verbosity = row.level;
        state.sidFlags = SID_RECURSIVE | SID_REPLACE_SD | row.flags;
        EXPECT_EQ(run([&] { return updateSubkeys(&state, root, u"ROOT"); }), row.expected);
        refuse({});
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
NTSTATUS loadHive(std::u16string_view file, HivePtr& made, std::unique_ptr<HiveStore>& store) {
    loaded = file;
    if (loadStatus < 0) return loadStatus;
    store = std::make_unique<RecordingStore>(saved);
    return hiveCreate(5, u"ROOT", u"ntuser.dat", image({oldSid, administrators, {}, {}}), made);
}

struct Profiles : Sweep {
    void SetUp() override {
        Sweep::SetUp();
        loaded.clear();
        saved = {};
        loadStatus = 0;
        registrySetLoader(loadHive);
        answer.GetFileAttributesW = [](LPCWSTR path) {
            const std::u16string_view text = path;
            if (text.starts_with(u"C:\\no")) return INVALID_FILE_ATTRIBUTES;
            return text.ends_with(u".man") ? DWORD{0x20} : DWORD{FILE_ATTRIBUTE_DIRECTORY};
        };
        const auto query = answer.RegQueryValueExW;
        answer.RegQueryValueExW = [=](HKEY key, LPCWSTR name, LPDWORD reserved, LPDWORD type, BYTE* data,
                                      LPDWORD size) {
            const DWORD room = *size;
            const LSTATUS error = query(key, name, reserved, type, data, size);
            if (error == 0) memset(data + *size, 'z', room - *size);  // no terminator that is not stored
            return error;
        };
        EXPECT_EQ(profiles(), "|RegOpenKeyExW(LIST) 2 |2");
        mount(u"SOFTWARE");
        make(listPath);
    }
    void profile(const std::u16string& name, ULONG type, const std::u16string& path) {
        const HANDLE key = make(listPath + u"\\" + name);
        ASSERT_GE(setText(key, u"ProfileImagePath", type, path), 0);
    }
    std::string profiles() {
        return run([&] { return updateProfiles(&state); });
    }
};

/* One profile, by its stored path and by what fails. */
TEST_F(Profiles, Each) {
    const std::u16string nul(1, u'\0'), room = u"C:\\" + std::u16string(257, 'y');  // 260
    const std::u16string file = u"C:\\Users\\p\\ntuser.dat";
    const std::string done = "loaded User.P <- C:\\Users\\p/n in User.P |";
    constexpr NTSTATUS missing = STATUS_OBJECT_NAME_NOT_FOUND;
    // clang-format off
    const struct {
        ULONG type;
        std::u16string path;
        std::string expected;
        std::u16string file; /* what was asked of the loader */
        NTSTATUS load = 0;
        std::vector<Fault> faults = {};
    } rows[] = {
        {REG_SZ, u"C:\\Users\\p" + nul, done + "|0", file},
        {REG_EXPAND_SZ, u"C:\\Users\\p", done + "|0", file},
        {REG_EXPAND_SZ, u"C:\\p.man" + nul, "loaded User.P <- C:\\p.man in User.P ||0", u"C:\\p.man"},
        {REG_SZ, u"C:\\no" + nul, "|RegLoadKey(User.P, C:\\no/n) 2 |0", u"C:\\no\\ntuser.dat", missing},
        {REG_SZ, u"C:\\Users\\p" + nul, "||0", file, STATUS_SHARING_VIOLATION},
        {REG_SZ, room.substr(0, 249) + nul,
         "loaded User.P <- " + toUtf8(room.substr(0, 249)) + "/n in User.P ||0",
         room.substr(0, 249) + u"\\ntuser.dat"},
        {REG_SZ, room.substr(0, 250) + nul,
         "|RegLoadKey(User.P, " + toUtf8(room.substr(0, 250)) + "\\ntuser.da) 2 |0",
         room.substr(0, 250) + u"\\ntuser.da", missing},
        {REG_SZ, room, "|RegLoadKey(User.P, " + toUtf8(room) + ") 2 |0", room, missing},
        {REG_SZ, room + nul, "|RegQueryValueEx(LIST\\P) 234 |0", u""},
        {REG_BINARY, u"C:\\Users\\p", "|Unexpected type of image path (3) for P |0", u""},
        {REG_SZ, u"C:\\Users\\p", "|RegOpenKeyExW(LIST\\P) 5 |0", u"", 0, {{"RegOpenKeyExW", "", 5, 1, 1}}},
        {REG_SZ, u"C:\\Users\\p", done + "RegUnloadKey(User.P) 5 |0", file, 0,
         {{"RegUnLoadKeyW", "", 5, 0, 1}}},
        {REG_SZ, u"C:\\Users\\p", "|RegOpenKeyExW(User.P) 5 |0", file, 0, {{"RegOpenKeyExW", "", 5, 2, 1}}},
    };
    // clang-format on
    for (const auto& row : rows) {
        profile(u"P", row.type, row.path);
        refuse(row.faults);
        loadStatus = row.load;
        saved = {};
        loaded.clear();
        EXPECT_EQ(profiles(), row.expected);
        refuse({});
        EXPECT_EQ(toUtf8(loaded), toUtf8(row.file));
        const bool stays = !row.file.empty() && !row.faults.empty();
        EXPECT_EQ(RegUnLoadKeyW(HKEY_LOCAL_MACHINE, u"User.P") == 0, stays);
        const auto found = std::search(saved.file.begin(), saved.file.end(), newSid.begin(), newSid.end());
        EXPECT_EQ(found != saved.file.end(), row.expected.starts_with("loaded"));
    }
}

/* What fails at one profile does not keep the next from being treated; a failed enumeration does. */
TEST_F(Profiles, List) {
    EXPECT_EQ(profiles(), "||0");
    make(listPath + u"\\A");
    profile(u"B", REG_SZ, u"C:\\b");
    profile(u"C", REG_DWORD, u"12");
    profile(u"D", REG_SZ, u"C:\\d");
    const std::string b = "loaded User.B <- C:\\b/n in User.B ", missing = "RegQueryValueEx(LIST\\A) 2 ";
    EXPECT_EQ(profiles(), b + "loaded User.D <- C:\\d/n in User.D |" + missing +
                              "Unexpected type of image path (4) for C |0");
    refuse({{"RegOpenKeyExW", "", 5, 1, 1}, {"RegEnumKeyExW", "", ERROR_ACCESS_DENIED, 2}});
    EXPECT_EQ(profiles(), b + "|RegOpenKeyExW(LIST\\A) 5 RegEnumKeyEx(LIST, 2) 5 |0");
}

} /* namespace */
} /* namespace offline */
