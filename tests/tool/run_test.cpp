/* The tool's whole run on a scripted machine. */
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "common/log.h"
#include "tests/engine/scripted.h"
#include "tool/run.h"

namespace {

/* A machine, by what its calls give; the defaults are those of a run without a fault. */
struct Machine {
    std::u16string notHeld = {}; /* a privilege */
    NTSTATUS sam = 0;            /* of opening "SAM\SAM" */
    LSTATUS account = 0;         /* of querying the account value */
    RPC_STATUS uuid = 0;
    int convertFails = 0; /* which of the two conversions, from 1 */
    DWORD selected = 0, guid = 0, machineKeys = 0, users = 0, profiles = 0; /* what the phases give */
    std::u16string fixed = u"c";
    std::u16string tooDeep = {}, noMemory = {}; /* drives whose walk fails: 1359, 8 */
    std::u16string unopened = {}, unflushed = {};
    Bytes owner = administrators;          /* of every file */
    DWORD token = 0, name = 0, adjust = 0; /* codes of the restart's calls */
    DWORD restart = 0;
    NTSTATUS shutdown = 0;
};

const Legend roadLegend = {
    {"SeTakeOwnershipPrivilege, SeSecurityPrivilege, SeBackupPrivilege, SeRestorePrivilege", "4"},
    {"SeShutdownPrivilege", "SeShutdown"},
    {"\\\\?\\", ""},
    {": Machine ID changed", ""},
    {"token 28", "token"},
    {"token, SeShutdown", "enable"},
    {"walk c:, volume c:, flush", "c"},
    {"subkeys HKEY_LOCAL_MACHINE 0x1004, subkeys HKEY_USERS 0x1004, profiles 0x1004", "rest"},
    {"selected 0x1004, guid", "fast"}};

const Legend outLegend = {{"S-old -> S-new", "SIDs"},
                          {"scanning selected registry paths ...", "selected"},
                          {"changing lanman server GUID ...", "guid"},
                          {"SIDs, selected, guid", "fast"},
                          {"scanning ", ""},
                          {" ...", ""},
                          {"completed successfully", "done"}};

Machine machine;

/* What one run left behind. */
struct Outcome {
    int status;
    std::string out;
    std::string err;  /* lines of the tool itself */
    std::string log;  /* the other lines of standard error */
    std::string road; /* the phases, and the platform's calls */
};

} /* namespace */

/* The registry's phases, each with tests of its own, are redirected as the platform's calls are. */
DWORD replaceInSelected(HKEY root, uint32_t flags, const uint8_t* sidOld, uint32_t oldSize,
                        const uint8_t* sidNew,
                        uint32_t newSize) asm("__wrap__Z24sidReplaceInSelectedKeysP6HKEY__jPKhjS2_j");
DWORD replaceGuid(HKEY root) asm("__wrap__Z23lanmanServerReplaceGuidP6HKEY__");
DWORD sweepSubkeys(const runState* run, HKEY root,
                   const WCHAR* rootName) asm("__wrap__Z13updateSubkeysPK8runStateP6HKEY__PKDs");
DWORD sweepProfiles(const runState* run) asm("__wrap__Z14updateProfilesPK8runState");

DWORD replaceInSelected(HKEY root, uint32_t flags, const uint8_t* sidOld, uint32_t oldSize,
                        const uint8_t* sidNew, uint32_t newSize) {
    note("selected %#x", flags);
    EXPECT_TRUE(root == HKEY_LOCAL_MACHINE && oldSize == 24 && newSize == 24);
    EXPECT_EQ(Bytes(sidOld, sidOld + 24), oldSid);
    EXPECT_EQ(Bytes(sidNew, sidNew + 24), sid({21, 0x01010101, 0x01010101, 0x01010101}));
    return machine.selected;
}

DWORD replaceGuid(HKEY root) {
    note("guid");
    EXPECT_EQ(root, HKEY_LOCAL_MACHINE);
    return machine.guid;
}

DWORD sweepSubkeys(const runState* run, HKEY root, const WCHAR* rootName) {
    note("subkeys %ws %#x", rootName, run->sidFlags);
    const bool users = root == HKEY_USERS;
    EXPECT_EQ(std::u16string(rootName), users ? u"HKEY_USERS" : u"HKEY_LOCAL_MACHINE");
    return users ? machine.users : machine.machineKeys;
}

DWORD sweepProfiles(const runState* run) {
    note("profiles %#x", run->sidFlags);
    return machine.profiles;
}

class Run : public Scripted {
protected:
    int textsOpen = 0, textsMade = 0, samOpen = 0, samOpened = 0;

    void SetUp() override {
        Scripted::SetUp();
        ombraSetLogger(nullptr);
        textsOpen = textsMade = samOpen = samOpened = 0;
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
            if (access == TOKEN_ADJUST_PRIVILEGES) return TRUE;
            note("token %x", access);
            return machine.token != 0 ? failWith(machine.token) : TRUE;
        };
        answer.LookupPrivilegeValueW = [](LPCWSTR, LPCWSTR name, PLUID luid) {
            note("%ws", name);
            *luid = {machine.notHeld == name ? 1u : 0u, 0};
            const bool fails = machine.name != 0 && std::u16string(name) == u"SeShutdownPrivilege";
            return fails ? failWith(machine.name) : TRUE;
        };
        answer.AdjustTokenPrivileges = [](HANDLE, BOOL, PTOKEN_PRIVILEGES state, DWORD, PTOKEN_PRIVILEGES,
                                          LPDWORD) {
            const bool restarting = events.back() == "SeShutdownPrivilege";
            SetLastError(state->Privileges[0].Luid.LowPart == 1 ? ERROR_NOT_ALL_ASSIGNED : 0);
            return machine.adjust != 0 && restarting ? failWith(machine.adjust) : TRUE;
        };
    }

    void answerForSids() {
        answer.ZwOpenKey = [this](PHANDLE key, ACCESS_MASK access,
                                  POBJECT_ATTRIBUTES attributes) -> NTSTATUS {
            const std::string name = text("%wZ", attributes->ObjectName);
            const bool sam = name == "SAM\\SAM";
            if (sam && machine.sam < 0) return machine.sam;
            *key = fakeHandle(sam ? 0x5A : 1);
            if (sam) {
                EXPECT_EQ(access, KEY_READ);
                samOpen++;
                samOpened++;
            }
            return STATUS_SUCCESS;
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
            memset(uuid, 1, sizeof *uuid);
            return machine.uuid;
        };
        answer.ConvertSidToStringSidA = [this](PSID given, LPSTR* made) {
            const bool old = memcmp(given, oldSid.data(), 24) == 0;
            if (machine.convertFails == (old ? 1 : 2)) return failWith(1337);
            *made = strdup(old ? "S-old" : "S-new");
            textsOpen++;
            textsMade++;
            return TRUE;
        };
        answer.LocalFree = [this](HLOCAL block) -> HLOCAL {
            textsOpen--;
            free(block);
            return nullptr;
        };
    }

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
            const Bytes descriptor = image({machine.owner, administrators});
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
            return machine.restart != 0 ? failWith(machine.restart) : TRUE;
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
        Outcome outcome = {wmain(option.empty() ? 1 : 2, argv, nullptr), "", "", "", ""};
        Events err, log;
        for (const std::string& line : lines(testing::internal::GetCapturedStderr()))
            (line.find(" [") == 8 ? log : err).push_back(line);
        outcome.out = shortened(outLegend, lines(testing::internal::GetCapturedStdout()));
        outcome.err =
            shortened({{" failed with code", ""}, {"\\\\?\\", ""}, {"sidReplaceInPath", "walk"}}, err);
        outcome.log = shortened({}, log);
        outcome.road = shortened(roadLegend);
        EXPECT_EQ(samOpen, 0);
        EXPECT_EQ(textsOpen, 0);
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
    const NTSTATUS notHeld = STATUS_PRIVILEGE_NOT_HELD;
    const struct {
        std::u16string options;
        Machine machine;
        int status;
        std::string out, err, road;
    } rows[] = {
        {u"", {}, 0, "fast, c:, done", "", "4, fast, rest, c"},
        {u"-h", {}, 0, "usage", "", ""},
        {u"-bx", {}, -1, "usage", "invalid option: -bx", ""},
        {u"", {.notHeld = u"SeTakeOwnershipPrivilege"}, -1, "", "", "SeTakeOwnershipPrivilege"},
        {u"", {.notHeld = u"SeRestorePrivilege"}, -1, "", "", "4"},
        {u"-b", {.notHeld = u"SeShutdownPrivilege"}, -1, "", "", "4, SeShutdown"},
        {u"", {.sam = STATUS_OBJECT_NAME_NOT_FOUND}, 2, "", "", "4"},
        {u"", {.account = 2}, 2, "", "", "4"},
        {u"", {.uuid = 14}, 14, "", "", "4"},
        {u"-q", {.convertFails = 1}, 1337, "", "ConvertSidToStringSid() 1337", "4"},
        {u"-b", {.convertFails = 2}, 1337, "", "ConvertSidToStringSid() 1337", "4, SeShutdown"},
        /* the registry */
        {u"-f", {}, 0, "fast, c:, done", "", "4, fast, c"},
        {u"-fr", {.selected = 5}, 5, "SIDs, selected", "", "4, selected 0x1004"},
        {u"-r", {.guid = 2}, 2, "fast", "", "4, fast"},
        {u"-q", {.profiles = 3}, 3, "", "", "4, fast, rest"},
        {u"-q", {.machineKeys = 9}, 9, "", "", "4, fast, subkeys HKEY_LOCAL_MACHINE 0x1004"},
        {u"-f", {.profiles = 3}, 0, "fast, c:, done", "", "4, fast, c"},
        {u"-fs", {}, 0, "fast, c:, done", "", "4, selected 0x11004, guid, c"},
        /* drives */
        {u"-f", {.fixed = u""}, 0, "fast, done", "", "4, fast"},
        {u"-f",
         {.fixed = u"az"},
         0,
         "fast, a:, z:, done",
         "",
         "4, fast, walk a:, volume a:, flush, walk z:, volume z:, flush"},
        {u"-fq", {}, 0, "", "", "4, fast, c"},
        {u"-f", twoFail, 1359, "fast, c:, e:", "walk(c:) 1359, walk(e:) 8", "4, fast, c, volume e:, flush"},
        {u"-fq", twoFail, 1359, "", "walk(c:) 1359, walk(e:) 8", "4, fast, c, volume e:, flush"},
        {u"-fq",
         {.fixed = u"bc", .tooDeep = u"c", .noMemory = u"b"},
         8,
         "",
         "walk(b:) 8, walk(c:) 1359",
         "4, fast, volume b:, flush, c"},
        {u"-f", {.unopened = u"c"}, 0, "fast, c:, done", "CreateFileW(c:) 32", "4, fast, walk c:, volume c:"},
        {u"-fq", {.unflushed = u"c"}, 0, "", "FlushFileBuffers(c:) 1117", "4, fast, c"},
        /* restart */
        {u"-fsb", {}, 0, "fast, c:, done", "", "4, SeShutdown, selected 0x11004, guid, c"},
        {u"-fsr", {}, 0, "fast, c:, done", "", "4, selected 0x11004, guid, c"},
        {u"-fb", {}, 0, "fast, c:, done", "", "4, SeShutdown, fast, c, enable, restart 1"},
        {u"-frb", {}, 0, "fast, c:, done", "", "4, SeShutdown, fast, c, enable, restart 1"},
        {u"-fqr", {}, 0, "", "", "4, fast, c, enable, restart 0"},
        {u"-fqr", {.notHeld = u"SeShutdownPrivilege"}, 0, "", "", "4, fast, c, enable, restart 0"},
        {u"-fr", {.tooDeep = u"c"}, 1359, "fast, c:", "walk(c:) 1359", "4, fast, c, enable, restart 0"},
        {u"-fr",
         {.tooDeep = u"c", .token = 5},
         5,
         "fast, c:",
         "walk(c:) 1359, OpenProcessToken() 5",
         "4, fast, c, token"},
        {u"-fqr", {.name = 1313}, 1313, "", "LookupPrivilegeValue() 1313", "4, fast, c, enable"},
        {u"-fqr", {.adjust = 6}, 6, "", "AdjustTokenPrivileges() 6", "4, fast, c, enable"},
        {u"-fqr",
         {.tooDeep = u"c", .restart = 1314},
         0,
         "",
         "walk(c:) 1359, InitiateSystemShutdown() 1314",
         "4, fast, c, enable, restart 0, sleep 5000, shutdown 2"},
        {u"-fqb",
         {.restart = 1314, .shutdown = notHeld},
         notHeld,
         "",
         "InitiateSystemShutdown() 1314, ZwShutdownSystem() C0000061",
         "4, SeShutdown, fast, c, enable, restart 1, sleep 5000, shutdown 1"},
    };
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

TEST_F(Run, WhatIsOpenedIsReleasedAndLogged) {
    run(u"");
    EXPECT_EQ(samOpened, 1);
    EXPECT_EQ(textsMade, 2);
    machine.sam = STATUS_OBJECT_NAME_NOT_FOUND;
    const Outcome failed = run(u"-q");
    EXPECT_TRUE(failed.log.starts_with("ERROR    [regtk/regtk_open:")) << failed.log;
    EXPECT_TRUE(failed.log.ends_with("returned 0XC0000034 for SAM\\SAM, access=0x20019")) << failed.log;
}

TEST_F(Run, SimulationWritesNothing) {
    machine.owner = oldSid;  // a write has no answer
    const Outcome outcome = run(u"-sv");
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, "fast, c:, done");
    EXPECT_TRUE(outcome.log.ends_with("Found old SID in file SD \\\\?\\c: (simulation mode)")) << outcome.log;
}
