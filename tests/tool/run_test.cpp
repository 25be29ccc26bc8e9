/* The tool's whole run on a scripted machine. */
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "tests/engine/scripted.h"
#include "tool/run.h"

namespace {

/* A machine, by what its calls give; the defaults are those of a run without a fault. */
struct Machine {
    DWORD noToken = 0;           /* code of opening the token for the privileges */
    std::u16string notHeld = {}; /* a privilege */
    NTSTATUS sam = 0;            /* of opening "SAM\SAM" */
    LSTATUS account = 0;         /* of querying the account value */
    RPC_STATUS uuid = 0;
    int convertFails = 0; /* which of the two conversions, from 1 */
    DWORD convertCode = 1337;
    DWORD selected = 0, guid = 0, profiles = 0; /* what the phases give */
    std::u16string fixed = u"c";
    std::u16string tooDeep = {}, noMemory = {}; /* drives whose walk fails: 1359, 8 */
    std::u16string unopened = {}, unflushed = {};
    DWORD token = 0, name = 0, adjust = 0; /* codes of the restart's calls */
    DWORD restart = 0;
    NTSTATUS shutdown = 0;
};

// clang-format off
const Legend roadLegend = {
    {"SeTakeOwnershipPrivilege, SeSecurityPrivilege, SeBackupPrivilege, SeRestorePrivilege", "4"},
    {"SeShutdownPrivilege", "SeShutdown"}, {"\\\\?\\", ""}, {": Machine ID changed", ""},
    {"token 28", "token"},
    {"token, SeShutdown", "enable"}, {"walk c:, volume c:, flush", "c"}, {"selected 0x1004, guid", "fast"},
    {"subkeys HKEY_LOCAL_MACHINE 0x1004, subkeys HKEY_USERS 0x1004, profiles 0x1004", "rest"}};
const Legend outLegend = {
    {"S-old -> S-new", "SIDs"}, {"scanning selected registry paths ...", "selected"},
    {"changing lanman server GUID ...", "guid"}, {"SIDs, selected, guid", "fast"}, {"scanning ", ""},
    {" ...", ""},
    {"completed successfully", "done"}};
// clang-format on

Machine machine;

/* What one run left behind: standard output, the tool's own lines on standard error, the phases and calls. */
struct Outcome {
    int status;
    std::string out, err, road;
};

} /* namespace */

/* The registry's phases, each with tests of its own, are redirected as the platform's calls are. */
extern "C" {

DWORD __wrap__Z24sidReplaceInSelectedKeysP6HKEY__jPKhjS2_j(HKEY root, uint32_t flags, const uint8_t* sidOld,
                                                           uint32_t oldSize, const uint8_t* sidNew,
                                                           uint32_t newSize) {
    note("selected %#x", flags);
    EXPECT_TRUE(root == HKEY_LOCAL_MACHINE && oldSize == 24 && newSize == 24);
    EXPECT_EQ(ByteVector(sidOld, sidOld + 24), oldSid);
    EXPECT_EQ(ByteVector(sidNew, sidNew + 24), sid({21, 0x03020100, 0x07060504, 0x0B0A0908}));
    return machine.selected;
}

DWORD __wrap__Z23lanmanServerReplaceGuidP6HKEY__(HKEY root) {
    note(root == HKEY_LOCAL_MACHINE ? "guid" : "guid elsewhere");
    return machine.guid;
}

DWORD __wrap__Z13updateSubkeysPK8runStateP6HKEY__PKDs(const runState* run, HKEY root, const WCHAR* name) {
    note("subkeys %ws %#x", name, run->sidFlags);
    EXPECT_EQ(std::u16string(name), root == HKEY_USERS ? u"HKEY_USERS" : u"HKEY_LOCAL_MACHINE");
    return 0;
}

DWORD __wrap__Z14updateProfilesPK8runState(const runState* run) {
    note("profiles %#x", run->sidFlags);
    return machine.profiles;
}

} /* extern "C" */

class Run : public Scripted {
protected:
    int samOpen = 0;

    void SetUp() override {
        Scripted::SetUp();
        samOpen = 0;
        machine = {};
        answerForPrivileges();
        answerForSids();
        answerForDrives();
        answerForRestart();
    }
    void TearDown() override {
        Scripted::TearDown();
        verbosity = 0;
    }

    void answerForPrivileges() {
        answer.CloseHandle = [](HANDLE) { return TRUE; };
        answer.OpenProcessToken = [](HANDLE, DWORD access, PHANDLE token) {
            *token = fakeHandle(0x70);
            if (access == TOKEN_ADJUST_PRIVILEGES) return fineOr(machine.noToken);
            note("token %x", access);
            return fineOr(machine.token);
        };
        answer.LookupPrivilegeValueW = [](LPCWSTR, LPCWSTR name, PLUID luid) {
            note("%ws", name);
            *luid = {machine.notHeld == name ? 1u : 0u, 0};
            return fineOr(std::u16string(name) == u"SeShutdownPrivilege" ? machine.name : 0);
        };
        answer.AdjustTokenPrivileges = [](HANDLE, BOOL, PTOKEN_PRIVILEGES state, DWORD, PTOKEN_PRIVILEGES,
                                          LPDWORD) {
            const LUID_AND_ATTRIBUTES& only = state->Privileges[0];
            EXPECT_TRUE(state->PrivilegeCount == 1 && only.Attributes == SE_PRIVILEGE_ENABLED);
            SetLastError(only.Luid.LowPart == 1 ? ERROR_NOT_ALL_ASSIGNED : 0);
            return events.back() == "SeShutdownPrivilege" && machine.adjust != 0 ? failWith(machine.adjust)
                                                                                 : TRUE;
        };
    }

    void answerForSids() {
        answer.ZwOpenKey = [this](PHANDLE key, ACCESS_MASK access, POBJECT_ATTRIBUTES attributes) {
            const bool sam = text("%wZ", attributes->ObjectName) == "SAM\\SAM";
            if (sam && machine.sam < 0) return machine.sam;
            *key = fakeHandle(sam ? 0x5A : 1);
            samOpen += sam && access == KEY_READ ? 1 : 0;
            return NTSTATUS{STATUS_SUCCESS};
        };
        answer.ZwClose = [](HANDLE) { return STATUS_SUCCESS; };
        answer.RegCloseKey = [this](HKEY key) {
            if (numberOf(key) == 0x5A) samOpen--;
            return ERROR_SUCCESS;
        };
        answer.RegQueryValueExW = [](HKEY, LPCWSTR, LPDWORD, LPDWORD type, BYTE* data, LPDWORD size) {
            *type = REG_BINARY;
            *size = 72;
            if (data != nullptr) {
                memset(data, 0, 72);
                data[16] = 24;
                std::copy(oldSid.begin(), oldSid.end(), data + 48);
            }
            return machine.account;
        };
        answer.UuidCreate = [](UUID* uuid) {
            for (uint8_t i = 0; i < 16; i++) reinterpret_cast<uint8_t*>(uuid)[i] = i;
            return machine.uuid;
        };
        answer.ConvertSidToStringSidA = [](PSID given, LPSTR* made) {
            const bool old = memcmp(given, oldSid.data(), 24) == 0;
            if (machine.convertFails == (old ? 1 : 2)) return failWith(machine.convertCode);
            *made = strdup(old ? "S-old" : "S-new");
            return TRUE;
        };
        answer.LocalFree = [](HLOCAL block) -> HLOCAL {
            free(block);  // one that is missing the leak checker sees
            return nullptr;
        };
    }

    static BOOL fineOr(DWORD code) { return code != 0 ? failWith(code) : TRUE; }
    static bool among(const std::u16string& letters, WCHAR letter) {
        return letters.find(letter) != std::u16string::npos;
    }

    void answerForDrives() {
        answer.GetDriveTypeW = [](LPCWSTR drive) -> UINT {
            EXPECT_EQ(drive[2], u'\0');
            static const UINT otherTypes[] = {0, 1, 2, 4, 5, 6};
            if (!among(machine.fixed, drive[0])) return otherTypes[drive[0] % 6];
            if (among(machine.noMemory, drive[0])) allocationsLeft = 0;
            return DRIVE_FIXED;
        };
        answer.GetFileSecurityW = [](LPCWSTR path, SECURITY_INFORMATION, PSECURITY_DESCRIPTOR target, DWORD,
                                     LPDWORD) {
            if (path[6] == 0) note("walk %ws", path);
            const ByteVector descriptor = image({administrators, administrators});
            memcpy(target, descriptor.data(), descriptor.size());
            return TRUE;
        };
        answer.FindFirstFileW = [](LPCWSTR pattern, LPWIN32_FIND_DATAW record) {
            memset(record, 0, sizeof *record);
            record->cFileName[0] = among(machine.tooDeep, pattern[4]) ? 'd' : '.';
            record->dwFileAttributes = FILE_ATTRIBUTE_DIRECTORY;
            return fakeHandle(1);
        };
        answer.FindNextFileW = [](HANDLE, LPWIN32_FIND_DATAW) { return failWith(ERROR_NO_MORE_FILES); };
        answer.FindClose = [](HANDLE) { return TRUE; };
        answer.CreateFileW = [](LPCWSTR path, DWORD access, DWORD sharing, LPSECURITY_ATTRIBUTES,
                                DWORD disposition, DWORD flags, HANDLE) {
            allocationsLeft = -1;
            note("volume %ws", path);
            EXPECT_TRUE(access == 0x40000000 && sharing == 7 && disposition == 3 && flags == 0);
            if (!among(machine.unopened, path[4])) return fakeHandle(path[4]);
            SetLastError(32);
            return INVALID_HANDLE_VALUE;
        };
        answer.FlushFileBuffers = [](HANDLE volume) {
            note("flush");
            return among(machine.unflushed, static_cast<WCHAR>(numberOf(volume))) ? failWith(1117) : TRUE;
        };
    }

    void answerForRestart() {
        answer.InitiateSystemShutdownW = [](LPWSTR name, LPWSTR message, DWORD timeout, BOOL force,
                                            BOOL reboot) {
            EXPECT_TRUE(name == nullptr && timeout == 0 && force == 1);
            note("restart %d: %ws", reboot, message);
            return fineOr(machine.restart);
        };
        answer.Sleep = [](DWORD milliseconds) { note("sleep %d", milliseconds); };
        answer.ZwShutdownSystem = [](SHUTDOWN_ACTION action) {
            note("shutdown %d", action);
            return machine.shutdown;
        };
    }

    /* One run, with its options in one argument; what it opened must be closed again. */
    Outcome run(const std::u16string& options) {
        verbosity = 0;
        events.clear();
        std::u16string name = u"quillet", option = options;
        WCHAR* argv[] = {name.data(), option.data(), nullptr};
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        Outcome outcome = {wmain(option.empty() ? 1 : 2, argv, nullptr), "", "", ""};
        Events err;
        for (const std::string& line : lines(testing::internal::GetCapturedStderr()))
            if (line.find(" [") != 8) err.push_back(line);  // no line of the log
        outcome.out = shortened(outLegend, lines(testing::internal::GetCapturedStdout()));
        outcome.err =
            shortened({{" failed with code", ""}, {"\\\\?\\", ""}, {"sidReplaceInPath", "walk"}}, err);
        outcome.road = shortened(roadLegend);
        EXPECT_EQ(samOpen, 0);
        return outcome;
    }

    static Events lines(const std::string& text) {
        Events found;
        std::istringstream stream(text);
        for (std::string line; std::getline(stream, line);) found.push_back(line);
        return found;
    }
};

TEST_F(Run, EveryWayARunCanEnd) {
    const Machine twoFail = {.fixed = u"ce", .tooDeep = u"c", .noMemory = u"e"};
    // clang-format off
    const struct {
        std::u16string options; Machine machine; int status; std::string out, err, road;
    } rows[] = {
        {u"", {}, 0, "fast, c:, done", "", "4, fast, rest, c"},
        {u"-h", {}, 0, "usage", "", ""},
        {u"-bx", {}, -1, "usage", "invalid option: -bx", ""},
        {u"", {.noToken = 5}, -1, "", "", ""},
        {u"", {.notHeld = u"SeRestorePrivilege"}, -1, "", "", "4"},
        {u"-b", {.notHeld = u"SeShutdownPrivilege"}, -1, "", "", "4, SeShutdown"},
        {u"-b", {.name = 1313}, -1, "", "", "4, SeShutdown"},
        {u"", {.sam = STATUS_OBJECT_NAME_NOT_FOUND}, 2, "", "", "4"},
        {u"", {.account = 2}, 2, "", "", "4"},
        {u"", {.uuid = 14}, 14, "", "", "4"},
        {u"-f", {.uuid = RPC_S_UUID_LOCAL_ONLY}, 0, "fast, c:, done", "", "4, fast, c"},
        {u"-q", {.convertFails = 1}, 1337, "", "ConvertSidToStringSid() 1337", "4"},
        {u"-b", {.convertFails = 2}, 1337, "", "ConvertSidToStringSid() 1337", "4, SeShutdown"},
        /* calls that fail and leave no last error */
        {u"", {.noToken = silently}, -1, "", "", ""},
        {u"-b", {.name = silently}, -1, "", "", "4, SeShutdown"},
        {u"", {.convertFails = 2, .convertCode = silently}, 1359, "", "ConvertSidToStringSid() 1359", "4"},
        {u"-fqr", {.token = silently}, 1359, "", "OpenProcessToken() 1359", "4, fast, c, token"},
        {u"-fqr", {.name = silently}, 1359, "", "LookupPrivilegeValue() 1359", "4, fast, c, enable"},
        {u"-fqr", {.adjust = silently}, 1359, "", "AdjustTokenPrivileges() 1359", "4, fast, c, enable"},
        /* the registry */
        {u"-fr", {.selected = 5}, 5, "SIDs, selected", "", "4, selected 0x1004"},
        {u"-r", {.guid = 2}, 2, "fast", "", "4, fast"},
        {u"-q", {.profiles = 3}, 3, "", "", "4, fast, rest"},
        {u"-f", {.profiles = 3}, 0, "fast, c:, done", "", "4, fast, c"},
        {u"-fs", {}, 0, "fast, c:, done", "", "4, selected 0x11004, guid, c"},
        /* drives */
        {u"-fqv", {.fixed = u""}, 0, "fast, done", "", "4, fast"},
        {u"-fq", {.fixed = u"az"}, 0, "", "",
         "4, fast, walk a:, volume a:, flush, walk z:, volume z:, flush"},
        {u"-f", twoFail, 1359, "fast, c:, e:", "walk(c:) 1359, walk(e:) 8", "4, fast, c, volume e:, flush"},
        {u"-f", {.unopened = u"c"}, 0, "fast, c:, done", "CreateFileW(c:) 32", "4, fast, walk c:, volume c:"},
        {u"-fq", {.unflushed = u"c"}, 0, "", "FlushFileBuffers(c:) 1117", "4, fast, c"},
        /* restart */
        {u"-fsb", {}, 0, "fast, c:, done", "", "4, SeShutdown, selected 0x11004, guid, c"},
        {u"-frb", {}, 0, "fast, c:, done", "", "4, SeShutdown, fast, c, enable, restart 1"},
        {u"-fqr", {}, 0, "", "", "4, fast, c, enable, restart 0"},
        {u"-fqr", {.notHeld = u"SeShutdownPrivilege"}, 0, "", "", "4, fast, c, enable, restart 0"},
        {u"-fr", {.tooDeep = u"c"}, 1359, "fast, c:", "walk(c:) 1359", "4, fast, c, enable, restart 0"},
        {u"-fqr", {.tooDeep = u"c", .token = 5}, 5, "", "walk(c:) 1359, OpenProcessToken() 5",
         "4, fast, c, token"},
        {u"-fqr", {.name = 1313}, 1313, "", "LookupPrivilegeValue() 1313", "4, fast, c, enable"},
        {u"-fqr", {.adjust = 6}, 6, "", "AdjustTokenPrivileges() 6", "4, fast, c, enable"},
        {u"-fqr", {.restart = 1314}, 0, "", "InitiateSystemShutdown() 1314",
         "4, fast, c, enable, restart 0, sleep 5000, shutdown 2"},
        {u"-fqb", {.restart = 1314, .shutdown = STATUS_PRIVILEGE_NOT_HELD}, STATUS_PRIVILEGE_NOT_HELD, "",
         "InitiateSystemShutdown() 1314, ZwShutdownSystem() C0000061",
         "4, SeShutdown, fast, c, enable, restart 1, sleep 5000, shutdown 1"},
    };
    // clang-format on
    for (const auto& row : rows) {
        SCOPED_TRACE(text("row %d, %ws", static_cast<int>(&row - rows), row.options.c_str()));
        SetUp();
        machine = row.machine;
        const Outcome outcome = run(row.options);
        EXPECT_EQ(outcome.status, row.status);
        EXPECT_EQ(outcome.out.starts_with("Tarvane") ? "usage" : outcome.out, row.out);
        EXPECT_EQ(outcome.err, row.err);
        EXPECT_EQ(outcome.road, row.road);
    }
}
