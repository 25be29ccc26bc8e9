/* The tool's sweeps over a root's children and over the profiles' hives. */
#include "tests/keys/keys.h"
#include "tool/run.h"

namespace offline {
namespace {

using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

const std::u16string listPath = u"\\Registry\\Machine\\SOFTWARE";
const std::string listName = "Software\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList";

struct Sweep : Keys {
    runState state = {};
    Bytes described = image({oldSid, administrators, {}, {}});

    void SetUp() override {
        Keys::SetUp();
        state.sidFlags = SID_RECURSIVE | SID_REPLACE_SD;
        state.sidOldSize = state.sidNewSize = 24;
        memcpy(state.sidOld, oldSid.data(), 24);
        memcpy(state.sidNew, newSid.data(), 24);
    }
    void TearDown() override {
        verbosity = 0;
        Keys::TearDown();
    }
    /* "output|errors|result", without the log. */
    template <typename Operation>
    std::string run(Operation operation) {
        events.clear();
        CaptureStdout();
        CaptureStderr();
        const DWORD result = operation();
        const std::string out = GetCapturedStdout();
        return out + "|" + GetCapturedStderr() + "|" + std::to_string(result);
    }
};

TEST_F(Sweep, Subkeys) {
    const auto sweep = [&] {
        const HKEY root = asHkey(at(""));
        return run([&] { return updateSubkeys(&state, root, u"ROOT"); });
    };
    EXPECT_EQ(sweep(), "||0");
    grow("a a\\x b c");
    const std::string a = "updating SIDs in ROOT\\a ...\n", b = "updating SIDs in ROOT\\b ...\n",
                      c = "updating SIDs in ROOT\\c ...\n";
    const struct {
        Fault fault;
        int32_t level;
        uint32_t flags;
        std::string expected;
        const char* treated;
    } rows[] = {
        {{"none"}, 0, 0, a + b + c + "||0", "a a\\x b c "},
        {{"none"}, -1, 0, "||0", "a a\\x b c "},
        {{"none"}, 0, SID_SIMULATE, a + b + c + "||0", ""},
        {{"ZwOpenKey", "b", STATUS_ACCESS_DENIED}, 0, 0, a + c + "||0", "a a\\x c "},
        {{"RegEnumKeyExW", "", ERROR_MORE_DATA, 1},
         -1,
         0,
         "|RegEnumKeyEx(ROOT, 1) failed with code 234\n|0",
         "a a\\x "},
        {{"RegGetKeySecurity", "a", ERROR_ACCESS_DENIED}, 0, 0, a + b + c + "||0", "a\\x b c "},
        {{"ZwEnumerateKey", "a", STATUS_UNSUCCESSFUL}, 0, 0, a + b + c + "||0", "a b c "},
    };
    const std::vector<std::string> paths = {"a", "a\\x", "b", "c"};
    for (const auto& row : rows) {
        for (const std::string& path : paths) describe(path, described);
        refuse(row.fault);
        verbosity = row.level;
        state.sidFlags = SID_RECURSIVE | SID_REPLACE_SD | row.flags;
        EXPECT_EQ(sweep(), row.expected);
        forgetFaults();
        std::string treated;
        for (const std::string& path : paths) treated += holds(path, oldSid) == 0 ? path + " " : "";
        EXPECT_EQ(treated, row.treated);
    }
    EXPECT_EQ(run([&] { return updateKey(&state, u"none"); }), "|regOpenKey(none) failed with code 2\n|2");
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
    HANDLE list = nullptr;

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
        EXPECT_EQ(profiles(), "|RegOpenKeyExW(" + listName + ") failed with code 2\n|2");
        HivePtr made;
        ASSERT_EQ(hiveCreate(5, u"ROOT", u"SOFTWARE", openToAll(), made), STATUS_SUCCESS);
        ASSERT_EQ(registryMount(listPath, std::move(made), nullptr), STATUS_SUCCESS);
        std::u16string path = listPath;
        for (const char16_t* name : {u"Microsoft", u"Windows NT", u"CurrentVersion", u"ProfileList"})
            list = make(path += std::u16string(u"\\") + name);
    }
    HANDLE make(const std::u16string& path) {
        HANDLE key = nullptr;
        EXPECT_EQ(createKey(key, path, {}), STATUS_SUCCESS);
        return handles.emplace_back(key);
    }
    void profile(const std::u16string& name, ULONG type, const std::u16string& path) {
        const HANDLE key = make(listPath + u"\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList\\" + name);
        ASSERT_GE(setText(key, u"ProfileImagePath", type, path), 0);
    }
    std::string profiles() {
        return run([&] { return updateProfiles(&state); });
    }
};

/* One profile, by its stored path and by what fails; a second one behind it is treated in every case. */
TEST_F(Profiles, Each) {
    const std::u16string nul(1, u'\0'), longest = u"C:\\" + std::u16string(255, 'y');
    const std::string key = listName + "\\P", done = "done P";
    const struct {
        ULONG type;
        std::u16string path;
        Fault fault;
        NTSTATUS load;
        std::string expected; /* on standard error */
        std::u16string file;  /* what was asked of the loader */
    } rows[] = {
        {REG_SZ, u"C:\\Users\\p" + nul, {"none"}, 0, "", u"C:\\Users\\p\\ntuser.dat"},
        {REG_EXPAND_SZ, u"C:\\Users\\p", {"none"}, 0, "", u"C:\\Users\\p\\ntuser.dat"},
        {REG_EXPAND_SZ, u"C:\\Users\\p.man" + nul, {"none"}, 0, "", u"C:\\Users\\p.man"},
        {REG_SZ,
         u"C:\\no" + nul,
         {"none"},
         STATUS_OBJECT_NAME_NOT_FOUND,
         "RegLoadKey(User.P, C:\\no\\ntuser.dat) failed with code 2\n",
         u"C:\\no\\ntuser.dat"},
        {REG_SZ, u"C:\\Users\\p" + nul, {"none"}, STATUS_SHARING_VIOLATION, "", u"C:\\Users\\p\\ntuser.dat"},
        {REG_SZ,
         longest + nul,
         {"none"},
         STATUS_OBJECT_NAME_NOT_FOUND,
         "RegLoadKey(User.P, " + toUtf8(longest) + "\\) failed with code 2\n",
         longest + u"\\"},
        {REG_SZ,
         longest + u"yy" + nul,
         {"none"},
         0,
         "RegQueryValueEx(" + key + ") failed with code 234\n",
         u""},
        {REG_BINARY, u"C:\\Users\\p", {"none"}, 0, "Unexpected type of image path (3) for P\n", u""},
        {REG_SZ,
         u"C:\\Users\\p",
         {"RegOpenKeyExW", "", 5, 1, 1},
         0,
         "RegOpenKeyExW(" + key + ") failed with code 5\n",
         u""},
        {REG_SZ,
         u"C:\\Users\\p",
         {"RegUnLoadKeyW", "", 5, 0, 1},
         0,
         "RegUnloadKey(User.P) failed with code 5\n",
         u"C:\\Users\\p\\ntuser.dat"},
        {REG_SZ,
         u"C:\\Users\\p",
         {"RegOpenKeyExW", "", 5, 2, 1},
         0,
         "RegOpenKeyExW(User.P) failed with code 5\n",
         u"C:\\Users\\p\\ntuser.dat"},
    };
    for (const auto& row : rows) {
        for (const int32_t level : {0, -1}) {
            profile(u"P", row.type, row.path);
            refuse(row.fault);
            loadStatus = row.load;
            verbosity = level;
            saved = {};
            loaded.clear();
            const std::string all = profiles();
            forgetFaults();
            const bool mounted = !row.file.empty() && row.load >= 0;
            const bool treated = mounted && row.fault.call != "RegOpenKeyExW";
            const std::string out =
                treated && level == 0
                    ? "loaded profile hive User.P <- " + toUtf8(row.file) + "\nupdating SIDs in User.P ...\n"
                    : "";
            EXPECT_EQ(all, out + "|" + row.expected + "|0");
            EXPECT_EQ(toUtf8(loaded), toUtf8(row.file));
            const bool stays = mounted && row.fault.call != "none";
            EXPECT_EQ(RegUnLoadKeyW(HKEY_LOCAL_MACHINE, u"User.P") == 0, stays);
            EXPECT_EQ(std::search(saved.file.begin(), saved.file.end(), newSid.begin(), newSid.end()) !=
                          saved.file.end(),
                      treated);
        }
    }
}

/* What fails at one profile does not keep the next from being treated; a failed enumeration does. */
TEST_F(Profiles, List) {
    EXPECT_EQ(profiles(), "||0");
    make(listPath + u"\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList\\A");
    profile(u"B", REG_SZ, u"C:\\b");
    profile(u"C", REG_DWORD, u"12");
    profile(u"D", REG_SZ, u"C:\\d");
    const auto updated = [](const std::string& name, const std::string& path) {
        return "loaded profile hive User." + name + " <- C:\\" + path +
               "\\ntuser.dat\nupdating SIDs in User." + name + " ...\n";
    };
    const std::string missing = "RegQueryValueEx(" + listName + "\\A) failed with code 2\n";
    EXPECT_EQ(profiles(), updated("B", "b") + updated("D", "d") + "|" + missing +
                              "Unexpected type of image path (4) for C\n|0");
    refuse({"RegEnumKeyExW", "", ERROR_ACCESS_DENIED, 2});
    EXPECT_EQ(profiles(),
              updated("B", "b") + "|" + missing + "RegEnumKeyEx(" + listName + ", 2) failed with code 5\n|0");
}

} /* namespace */
} /* namespace offline */
