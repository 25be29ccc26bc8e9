/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The tool's whole run on a small system. */
#include <algorithm>
#include <sstream>

#include "tests/support/drives.h"
#include "tool/run.h"

namespace offline {
namespace {

const std::string machine = "\\Registry\\Machine\\", policy = machine + "SECURITY\\Policy",
                  server = machine + "SYSTEM\\CurrentControlSet\\Services\\lanmanserver\\Parameters",
                  profiles = machine + "SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList";
const ByteVector uuid = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
const ByteVector randomSid = sidFromText("S-1-5-21-50462976-117835012-185207048"); /* of that UUID */

/* What the loader gives; what is saved when it is unloaded lands in the file. */
Recording profile;

/* What one run left behind. */
struct Outcome {
    int status;
    std::string out, err, done;
};

struct Run : SmallSystem {
    Drives drives;

    void SetUp() override { restart(); }

    /* The system as it was installed: drive C: and what the registry's phases find. */
    void restart() {
        registryReset();
        SmallSystem::SetUp();
        for (const uint32_t luid : {takeOwnershipPrivilege, securityPrivilege, backupPrivilege,
                                    restorePrivilege, shutdownPrivilege})
            enable(luid, 0);
        for (const char16_t* name : {u"SAM", u"SECURITY", u"SOFTWARE", u"SYSTEM"}) mount(name);
        ByteVector account(72);
        account[16] = 24;
        std::copy(oldSid.begin(), oldSid.end(), account.begin() + 48);
        growWith(machine + "SAM\\SAM\\Domains\\Account");
        set(machine + "SAM\\SAM\\Domains\\Account", "V", REG_BINARY, account);
        for (const char* path : {"Microsoft\\Windows\\CurrentVersion", "Classes\\AppID"})
            growWith(machine + "SOFTWARE\\" + path);
        growWith(machine + "SECURITY\\SAM\\Domains");
        growWith(policy);
        set(policy, "old", REG_SZ, bytesOf(wide("OLD")));
        growWith(server);
        set(server, "Guid", REG_BINARY, {});
        growWith(profiles + "\\P");
        set(profiles + "\\P", "ProfileImagePath", REG_SZ, bytesOf(u"C:\\p"));
        growWith(profiles + "\\A"); /* of a user who is logged on */
        set(profiles + "\\A", "ProfileImagePath", REG_SZ, bytesOf(u"C:\\a"));
        registrySetLoader(loadProfile);
        profile = {};
        HivePtr user;
        ASSERT_EQ(hiveCreate(5, u"ROOT", u"", allOf(oldText), user), STATUS_SUCCESS);
        users = user.get();
        ASSERT_EQ(registryMount(u"\\Registry\\User\\S-1-5-19", std::move(user), nullptr), STATUS_SUCCESS);
        ASSERT_EQ(hiveSetKeyDescriptor(*hive, hiveRoot(*hive), allOf(oldText), 0), STATUS_SUCCESS);
        setCalls();
    }
    static NTSTATUS loadProfile(std::u16string_view file, HivePtr& made, std::unique_ptr<HiveStore>& into) {
        if (file.starts_with(u"C:\\a")) return STATUS_SHARING_VIOLATION;
        into = std::make_unique<RecordingStore>(profile);
        return hiveCreate(5, u"ROOT", u"ntuser.dat", allOf(oldText), made);
    }
    void setCalls() {
        drives = {};
        drives.answerCalls();
        drives.add(u"\\\\?\\c:").descriptor = allOf(oldText);
        for (const char16_t* home : {u"C:\\p", u"C:\\a"}) drives.files[home] = {};
        answer.UuidCreate = [](UUID* made) {
            memcpy(made, uuid.data(), sizeof *made);
            return RPC_STATUS{RPC_S_UUID_LOCAL_ONLY};
        };
        answer.RegQueryValueExW = [](HKEY key, LPCWSTR name, LPDWORD reserved, LPDWORD type, BYTE* data,
                                     LPDWORD size) {
            const DWORD room = *size;
            const LSTATUS error = platform.RegQueryValueExW(key, name, reserved, type, data, size);
            if (error == 0 && data != nullptr)
                memset(data + *size, 'z', room - *size); /* no terminator that is not stored */
            return error;
        };
        answer.InitiateSystemShutdownW = [](LPWSTR name, LPWSTR message, DWORD timeout, BOOL force,
                                            BOOL reboot) {
            EXPECT_TRUE(name == nullptr && timeout == 0 && force == 1);
            EXPECT_EQ(std::u16string(message), u"Machine ID changed");
            note(reboot ? "reboot" : "power off");
            return TRUE;
        };
        answer.Sleep = [](DWORD milliseconds) { note("sleep %d", milliseconds); };
        answer.ZwShutdownSystem = [](SHUTDOWN_ACTION action) {
            note("shutdown %d", action);
            return STATUS_SUCCESS;
        };
    }

    /* What of the system has been treated, and what happened to drives and machine. */
    std::string done() {
        const auto holdsNew = [](const auto& bytes) {
            return std::search(bytes.begin(), bytes.end(), randomSid.begin(), randomSid.end()) != bytes.end();
        };
        std::string all;
        if (get(policy, "old") == bytesOf(toUtf16(sidToText(randomSid)))) all += "selected ";
        ULONG type = 0;
        if (get(server, "Guid", &type) == uuid && type == REG_BINARY) all += "guid ";
        if (holdsNew(descriptorOf(""))) all += "machine ";
        if (holdsNew(hiveKeyDescriptor(*users, hiveRoot(*users)))) all += "users ";
        if (holdsNew(profile.file)) all += "profile ";
        if (holdsNew(drives.files[u"\\\\?\\c:"].descriptor)) all += "c: ";
        return all;
    }

    /* One run, with its options in one argument; what it opened must be closed again. */
    Outcome run(const std::u16string& options) {
        std::u16string name = u"quillet", option = options;
        WCHAR* argv[] = {name.data(), option.data(), nullptr};
        const size_t before = openHandles();
        events.clear();
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const int status = wmain(option.empty() ? 1 : 2, argv, nullptr);
        // clang-format off
        const Legend out = {
            {oldText + " -> " + sidToText(randomSid), "SIDs"}, {" ...", ""}, {"updating SIDs in ", ""},
            {"scanning selected registry paths", "selected"}, {"changing lanman server GUID", "guid"},
            {"scanning ", ""}, {"SIDs, selected, guid", "fast"},
            {"HKEY_LOCAL_MACHINE\\", "HKLM/"}, {"HKEY_USERS\\S-1-5-19", "users"},
            {"HKLM/SAM, HKLM/SECURITY, HKLM/SOFTWARE, HKLM/SYSTEM, HKLM/TEST, users", "hives"},
            {"hives, loaded profile hive User.P <- C:\\p\\ntuser.dat, User.P", "rest"},
            {"completed successfully", "done"}};
        const Legend err = {{"Software\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList", "LIST"},
                            {" failed with code", ""}, {"\\\\?\\", ""}, {"sidReplaceInPath", "walk"}};
        const Legend road = {{"\\\\?\\", ""}, {"read 512 c:, ", ""}, {"read 512 c:", ""}, {"write c:, ", ""},
                             {"attributes C:\\p, ", ""}, {"attributes C:\\a, ", ""}, {"volume c:, flush", "c"}};
        // clang-format on
        Outcome outcome = {status, shortened(out, lines(testing::internal::GetCapturedStdout())),
                           shortened(err, lines(testing::internal::GetCapturedStderr())), ""};
        EXPECT_EQ(openHandles(), before);
        outcome.done = shortened(road);
        beginWatching();
        outcome.done = done() + outcome.done;
        return outcome;
    }
    /* Of the log "! function" for each failure. */
    static Events lines(const std::string& text) {
        Events found;
        std::istringstream stream(text);
        for (std::string line; std::getline(stream, line);) {
            const size_t function = line.find("] ") + 2;
            if (line.find(" [") != 8)
                found.push_back(line);
            else if (line.starts_with("ERROR"))
                found.push_back("! " + line.substr(function, line.find(' ', function) - function));
        }
        return found;
    }

    Hive* users = nullptr;
};

const Fault restartRefused = {"InitiateSystemShutdownW", "", 1314}, unopened = {"CreateFileW", "", 32};

/* The token lacks it. */
Fault notHeld(const char* privilege) {
    return {"LookupPrivilegeValueW", privilege, 1313};
}
Fault failing(const char* call, LONG code, int after = 0) {
    return {call, "", code, after};
}

TEST_F(Run, EveryWayARunCanEnd) {
    const std::string fast = "selected guid c: ", all = "selected guid machine users profile c: c",
                      most = fast + "c";
    const std::string texts = "ConvertSidToStringSid() ", others = "selected guid machine users c: c";
    const std::string loadsProfile = "loaded profile hive User.P <- C:\\p\\ntuser.dat, User.P";
    const std::string listing = "RegEnumKeyEx(";
    constexpr NTSTATUS missing = STATUS_OBJECT_NAME_NOT_FOUND;
    // clang-format off
    const struct {
        std::u16string options; int status; std::string out, err, done;
        std::vector<Fault> faults = {};
    } rows[] = {
        {u"", 0, "fast, rest, c:, done", "", all},
        {u"-f", 0, "fast, c:, done", "", most},
        {u"-q", 0, "", "", all},
        {u"-s", 0, "fast, rest, c:, done", "", "guid c"},
        {u"", -1, "", "! ombraModifyPrivilege", "", {failing("OpenProcessToken", silently)}},
        {u"", -1, "", "! ombraModifyPrivilege", "", {notHeld("SeBackupPrivilege")}},
        {u"-b", -1, "", "! ombraModifyPrivilege", "", {notHeld("SeShutdownPrivilege")}},
        {u"", 2, "", "! _doOpenCreateKey", "", {{"ZwOpenKey", "SAM", missing}}},
        {u"", 2, "", "! sidGetMachineSID", "", {failing("RegQueryValueExW", 2)}},
        {u"", 14, "", "! sidCreateRandom", "", {failing("UuidCreate", 14)}},
        {u"-q", 1337, "", texts + "1337", "", {failing("ConvertSidToStringSidA", 1337)}},
        {u"", 1359, "", texts + "1359", "", {failing("ConvertSidToStringSidA", silently, 1)}},
        {u"-f", 2, "SIDs, selected", "! _doOpenCreateKey", "", {{"ZwOpenKey", "Policy", missing}}},
        {u"-f", 0, "fast, c:, done", "! regReplaceSIDInValues", "guid c: c",
         {{"ZwSetValueKey", "Policy", STATUS_ACCESS_DENIED}}},
        /* what fails at one key or profile does not keep the others from being treated */
        {u"", 0, "fast, rest, c:, done", "! sidQueryKeySD", "selected guid users profile c: c",
         {{"RegGetKeySecurity", "TEST", 5}}},
        {u"", 0, "fast, HKLM/SAM, users, " + loadsProfile + ", c:, done", listing + "HKEY_LOCAL_MACHINE, 1) 234",
         "selected guid users profile c: c", {{"RegEnumKeyExW", "", 234, 1, 1}}},
        {u"", 5, "fast, hives", "RegOpenKeyExW(LIST) 5", "selected guid machine users ", {{"RegOpenKeyExW", "", 5, 1, 1}}},
        {u"", 0, "fast, hives, c:, done", listing + "LIST, 0) 5", others, {{"RegEnumKeyExW", "ProfileList", 5, 0, 1}}},
        {u"", 0, "fast, hives, c:, done", "RegOpenKeyExW(LIST\\A) 5, RegOpenKeyExW(LIST\\P) 5", others,
         {{"RegOpenKeyExW", "ProfileList", 5, 0, 2}}},
        {u"", 0, "fast, rest, c:, done", "RegOpenKeyExW(LIST\\A) 5", all, {{"RegOpenKeyExW", "ProfileList", 5, 0, 1}}},
        {u"", 0, "fast, hives, c:, done", "RegOpenKeyExW(User.P) 5", others, {{"RegOpenKeyExW", "", 5, 4, 1}}},
        {u"", 0, "fast, rest, c:, done", "RegUnloadKey(User.P) 5", others, {{"RegUnLoadKeyW", "", 5, 0, 1}}},
        {u"-r", 2, "fast", "! lanmanServerReplaceGuid", "selected ", {failing("RegOpenKeyExW", 2)}},
        {u"-r", 5, "fast", "! lanmanServerReplaceGuid", "selected ", {failing("RegSetValueExW", 5)}},
        {u"-r", 14, "fast", "! lanmanServerReplaceGuid", "selected ", {failing("UuidCreate", 14, 1)}},
        {u"-f", 0, "fast, c:, done", "CreateFileW(c:) 32", fast, {unopened}},
        {u"-fq", 0, "", "FlushFileBuffers(c:) 1117", fast + "volume c:", {failing("FlushFileBuffers", 1117)}},
        /* restart */
        {u"-fsb", 0, "fast, c:, done", "", "guid c"},
        {u"-frb", 0, "fast, c:, done", "", most + ", reboot"},
        {u"-fqr", 0, "", "", most + ", power off"},
        {u"-fqr", 1359, "", "OpenProcessToken() 1359", most, {failing("OpenProcessToken", silently, 4)}},
        {u"-fqr", 1313, "", "LookupPrivilegeValue() 1313", most, {notHeld("SeShutdownPrivilege")}},
        {u"-fqr", 6, "", "AdjustTokenPrivileges() 6", most, {failing("AdjustTokenPrivileges", 6, 4)}},
        {u"-fqr", 0, "", "InitiateSystemShutdown() 1314", most + ", sleep 5000, shutdown 2",
         {restartRefused}},
        {u"-fqb", STATUS_PRIVILEGE_NOT_HELD, "", "InitiateSystemShutdown() 1314, ZwShutdownSystem() C0000061",
         most + ", sleep 5000", {restartRefused, failing("ZwShutdownSystem", STATUS_PRIVILEGE_NOT_HELD)}},
    };
    // clang-format on
    for (const auto& row : rows) {
        SCOPED_TRACE(text("row %d, %ws", static_cast<int>(&row - rows), row.options.c_str()));
        restart();
        faults = row.faults;
        const Outcome outcome = run(row.options);
        EXPECT_EQ(outcome.status, row.status);
        EXPECT_EQ(outcome.out, row.out);
        EXPECT_EQ(outcome.err, row.err);
        EXPECT_EQ(outcome.done, row.done);
    }
}

/* The adjusting call succeeds also where it assigns nothing; only its last error says so. */
TEST_F(Run, EndsWhereAPrivilegeIsNotAssigned) {
    answer.AdjustTokenPrivileges = [](HANDLE token, BOOL none, PTOKEN_PRIVILEGES state, auto... rest) {
        const bool backup = state->Privileges[0].Luid.LowPart == backupPrivilege;
        platform.AdjustTokenPrivileges(token, none, state, rest...);
        if (backup) SetLastError(ERROR_NOT_ALL_ASSIGNED);
        return TRUE;
    };
    EXPECT_EQ(run(u"").status, -1);
}

/* Only fixed drives are swept, each of them; the first that fails gives the status. */
TEST_F(Run, Drives) {
    std::u16string deep = drives.chain(257, u"d");
    drives.add(u"\\\\?\\a:");
    drives.add(u"\\\\?\\e:");
    drives.add(u"\\\\?\\z:");
    answer.GetDriveTypeW = [types = answer.GetDriveTypeW](LPCWSTR drive) {
        if (drive[0] == 'e') allocationsLeft = 0;
        return types(drive);
    };
    answer.CreateFileW = [open = answer.CreateFileW](LPCWSTR path, auto... rest) {
        allocationsLeft = -1;
        return open(path, rest...);
    };
    const Outcome outcome = run(u"-fr");
    EXPECT_EQ(outcome.status, 1359);
    EXPECT_EQ(outcome.out, "fast, a:, c:, e:, z:");
    EXPECT_EQ(outcome.err, "! walkImpl, walk(c:) 1359, ! ombraRealloc, walk(e:) 8");
    EXPECT_NE(outcome.done.find("volume e:, flush, read 512 z:, volume z:, flush, power off"),
              std::string::npos);
}

} /* namespace */
} /* namespace offline */
