#include <algorithm>
#include <cstring>

#include "regtk/regtk.h"
#include "tests/engine/scripted.h"

namespace {

const std::u16string keyName = u"Some\\Key";
const std::u16string keyClass = u"Cls";

/* A key of the name, by what opening it for each access answers: one status a time, in order. */
struct Key {
    std::vector<NTSTATUS> first; /* for the access under test, KEY_READ; behind these: success */
    NTSTATUS readControl = 0;    /* opens of the recovery */
    NTSTATUS writeOwner = 0;
    NTSTATUS writeDac = 0;
    NTSTATUS writeBack = 0;
    LSTATUS getSecurity = 0;
    LSTATUS setSecurity[8] = {}; /* by the information */
    NTSTATUS machine = 0;        /* the real root */
    Bytes stored = image({administrators, administrators});
    Bytes written = {}; /* by the last whole write */
};

NTSTATUS openAnswer(Key* key, const OBJECT_ATTRIBUTES* attributes, ACCESS_MASK access) {
    if (attributes->RootDirectory == nullptr) return key->machine;
    if (access == READ_CONTROL) return key->readControl;
    if (access == WRITE_OWNER) return key->writeOwner;
    if (access == WRITE_DAC) return key->writeDac;
    if (access == (WRITE_DAC | WRITE_OWNER)) return key->writeBack;
    if (key->first.empty()) return STATUS_SUCCESS;
    const NTSTATUS status = key->first.front();
    key->first.erase(key->first.begin());
    return status;
}

void noteOpen(const char* call, const OBJECT_ATTRIBUTES* attributes, ACCESS_MASK access) {
    EXPECT_EQ(attributes->Length, sizeof *attributes);
    EXPECT_EQ(attributes->SecurityDescriptor, nullptr);
    EXPECT_EQ(attributes->SecurityQualityOfService, nullptr);
    note("%s %Ix %wZ %x %x", call, numberOf(attributes->RootDirectory), attributes->ObjectName, access,
         attributes->Attributes);
}

uintptr_t handlesGiven = 0;
int handlesOpen = 0;

NTSTATUS give(PHANDLE handle, NTSTATUS status) {
    if (status < 0) return status;
    *handle = fakeHandle(++handlesGiven);
    handlesOpen++;
    return status;
}

LONG take(const void* handle) {
    note("close %Ix", numberOf(handle));
    handlesOpen--;
    return 0;
}

/* Handles count from 1. */
void answerFor(Key* key) {
    handlesGiven = 0;
    handlesOpen = 0;
    answer.ZwOpenKey = [=](PHANDLE handle, ACCESS_MASK access, POBJECT_ATTRIBUTES attributes) {
        noteOpen("open", attributes, access);
        return give(handle, openAnswer(key, attributes, access));
    };
    answer.ZwCreateKey = [=](PHANDLE handle, ACCESS_MASK access, POBJECT_ATTRIBUTES attributes,
                             ULONG titleIndex, PUNICODE_STRING className, ULONG options, PULONG disposition) {
        noteOpen("create", attributes, access);
        note("as %d %wZ %d %p", titleIndex, className, options, disposition);
        return give(handle, openAnswer(key, attributes, access));
    };
    answer.ZwClose = take;
    answer.RegCloseKey = take;
    answer.GetTokenInformation = [](HANDLE, TOKEN_INFORMATION_CLASS infoClass, LPVOID buffer, DWORD size,
                                    LPDWORD length) {
        EXPECT_EQ(infoClass, TokenUser);
        EXPECT_EQ(size, 88u);
        EXPECT_EQ(*length, 88u);
        static_cast<TOKEN_USER*>(buffer)->User.Sid = const_cast<uint8_t*>(administrators.data());
        return TRUE;
    };
    answer.RegGetKeySecurity = [=](HKEY handle, SECURITY_INFORMATION information,
                                   PSECURITY_DESCRIPTOR descriptor, LPDWORD size) -> LSTATUS {
        note("get %Ix %d %d", numberOf(handle), information, *size);
        if (key->getSecurity != 0) return key->getSecurity;
        const DWORD room = *size;
        *size = static_cast<DWORD>(key->stored.size());
        if (room < *size) return ERROR_INSUFFICIENT_BUFFER;
        memcpy(descriptor, key->stored.data(), *size);
        return 0;
    };
    answer.RegSetKeySecurity = [=](HKEY handle, SECURITY_INFORMATION information,
                                   PSECURITY_DESCRIPTOR descriptor) {
        note("set %Ix %d", numberOf(handle), information);
        const uint8_t* const bytes = static_cast<const uint8_t*>(descriptor);
        if (information == REG_SEC_ALL) {
            key->written.assign(bytes, bytes + key->stored.size());
        } else {
            const SECURITY_DESCRIPTOR* const own = static_cast<SECURITY_DESCRIPTOR*>(descriptor);
            EXPECT_EQ(own->Revision, 1);
            EXPECT_EQ(own->Owner, administrators.data());
            EXPECT_EQ(own->Dacl, nullptr);
            EXPECT_EQ(own->Control, SE_DACL_PRESENT);
        }
        return key->setSecurity[information];
    };
}

const NTSTATUS denied = STATUS_ACCESS_DENIED;
const HANDLE root = reinterpret_cast<HANDLE>(0x99);

int openByName(uint32_t flags, DWORD* error, HANDLE from = root) {
    HANDLE opened = nullptr;
    const int result = regOpenKey(from, keyName.c_str(), KEY_READ, flags, &opened, error);
    EXPECT_EQ(result != 0, opened != nullptr);
    return result;
}

std::string attemptFailed(const char* level, NTSTATUS status, const char* call = "ZwOpenKey") {
    return text("%s _doOpenCreateKey: Native API call %s returned %#X for Some\\Key, access=0x20019", level,
                call, status);
}

} /* namespace */

using KeyOpen = Scripted;

TEST_F(KeyOpen, OpenIfIsDecidedByTheFlagsAlone) {
    Key key;
    answerFor(&key);
    UNICODE_STRING name = counted(keyName);
    const UNICODE_STRING className = counted(keyClass);
    for (const ULONG bits :
         {ULONG{OBJ_CASE_INSENSITIVE}, OBJ_CASE_INSENSITIVE | OBJ_OPENIF, ULONG{OBJ_OPENLINK}}) {
        const OBJECT_ATTRIBUTES attributes = {sizeof attributes, root, &name, bits, nullptr, nullptr};
        OBJECT_ATTRIBUTES same = attributes;
        HANDLE opened = nullptr;
        memBuf secBuf = {};
        void* saved = &secBuf;
        events.clear();
        EXPECT_EQ(regNtOpenKey(&opened, KEY_READ, &same, REG_CREATE), 0);
        EXPECT_EQ(regNtOpenKeySaveSec(&opened, KEY_READ, &same, REG_CREATE | REG_NO_OPENIF, &secBuf, &saved),
                  0);
        EXPECT_EQ(saved, nullptr);
        EXPECT_EQ(regNtCreateKey(&opened, KEY_READ, &same, 3, &className, REG_OPTION_CREATE_LINK, 0), 0);
        EXPECT_EQ(regNtCreateKey(&opened, KEY_READ, &same, 0, nullptr, 0, REG_NO_OPENIF), 0);
        const ULONG with = bits | OBJ_OPENIF;
        const ULONG without = bits & ~OBJ_OPENIF;
        const Events expected = {
            text("open 99 Some\\Key 20019 %x", with),      text("open 99 Some\\Key 20019 %x", without),
            text("create 99 Some\\Key 20019 %x", with),    "as 3 Cls 2 0x0",
            text("create 99 Some\\Key 20019 %x", without), "as 0 (null) 0 0x0"};
        EXPECT_EQ(events, expected);
        EXPECT_EQ(memcmp(&attributes, &same, sizeof same), 0);
    }
    events.clear();
    DWORD error = 77;
    EXPECT_EQ(openByName(REG_CREATE, &error), 1);
    EXPECT_EQ(error, 0u);
    const Events created = {"create 99 Some\\Key 20019 1c0", "as 0 (null) 0 0x0"};
    EXPECT_EQ(events, created);
}

TEST_F(KeyOpen, PredefinedRoots) {
    const std::string machine = "open 0 \\Registry\\Machine f003f 40";
    const std::string opening = "open 1 Some\\Key 20019 1c0";
    const struct {
        uintptr_t root;
        NTSTATUS machine, key;
        DWORD error;
        Events expected;
    } rows[] = {
        {0xFFFFFFFF80000002, 0, 0, 0, {machine, opening, "close 1"}},
        {0xFFFFFFFF80000003, 0, 0, 0, {"open 0 \\Registry\\User f003f 40", opening, "close 1"}},
        {0xFFFFFFFF80000002,
         0,
         STATUS_OBJECT_NAME_NOT_FOUND,
         2,
         {machine, opening, attemptFailed("ERROR", STATUS_OBJECT_NAME_NOT_FOUND), "close 1"}},
        {0xFFFFFFFF80000002,
         denied,
         0,
         5,
         {machine,
          "ERROR _regOpenPredefinedKey: Native API call ZwOpenKey returned 0XC0000022 for "
          "\\Registry\\Machine"}},
        {0xFFFFFFFF80000001,
         0,
         0,
         6,
         {"ERROR _regOpenPredefinedKey: Unrecognized handle 0xffffffff80000001"}},
        {0xFFFFFFFF80000000,
         0,
         0,
         6,
         {"ERROR _regOpenPredefinedKey: Unrecognized handle 0xffffffff80000000"}},
        {0xFFFFFFFFFFFFFFFF,
         0,
         0,
         6,
         {"ERROR _regOpenPredefinedKey: Unrecognized handle 0xffffffffffffffff"}},
        {0x80000002, 0, 0, 0, {"open 80000002 Some\\Key 20019 1c0"}},
        {0xFFFFFFFF7FFFFFFF, 0, 0, 0, {"open ffffffff7fffffff Some\\Key 20019 1c0"}},
    };
    for (const auto& row : rows) {
        SetUp();
        Key key;
        key.machine = row.machine;
        key.first = {row.key};
        answerFor(&key);
        DWORD error = 77;
        EXPECT_EQ(openByName(0, &error, fakeHandle(row.root)), row.error == 0 ? 1 : 0);
        EXPECT_EQ(error, row.error);
        EXPECT_EQ(events, row.expected);
    }
}

TEST_F(KeyOpen, LevelsAndCodesOfFailures) {
    constexpr NTSTATUS nameMissing = STATUS_OBJECT_NAME_NOT_FOUND;
    constexpr NTSTATUS pathMissing = STATUS_OBJECT_PATH_NOT_FOUND;
    const struct {
        NTSTATUS status;
        uint32_t flags;
        const char* level;
        DWORD error; /* 77: as the caller left it */
    } rows[] = {
        {nameMissing, 0, "ERROR", 2},
        {pathMissing, 0, "ERROR", 3},
        {nameMissing, REG_IGNORE_MISSING, "DEBUG", 77},
        {pathMissing, REG_IGNORE_MISSING, "DEBUG", 77},
        {denied, REG_IGNORE_MISSING, "ERROR", 5},
        {STATUS_KEY_DELETED, REG_IGNORE_MISSING, "ERROR", 1018},
        {nameMissing, REG_QUIET, "DEBUG", 2},
        {denied, REG_QUIET, "DEBUG", 5},
        {nameMissing, REG_TAKE_OWNERSHIP, "ERROR", 2},
        {denied, 0, "ERROR", 5},
        {STATUS_KEY_DELETED, REG_QUIET | REG_TAKE_OWNERSHIP, "DEBUG", 1018},
    };
    for (const auto& row : rows) {
        for (const uint32_t create : {uint32_t{0}, uint32_t{REG_CREATE}}) {
            SetUp();
            Key key;
            key.first = {row.status, row.status};
            answerFor(&key);
            DWORD error = 77;
            EXPECT_EQ(openByName(row.flags | create, &error), 0);
            EXPECT_EQ(error, row.error);
            EXPECT_EQ(logLines(),
                      Events{attemptFailed(row.level, row.status, create ? "ZwCreateKey" : "ZwOpenKey")});
            EXPECT_EQ(openByName(row.flags | create, nullptr), 0);
        }
    }
    Key key;
    key.first = {STATUS_OBJECT_NAME_EXISTS};
    answerFor(&key);
    UNICODE_STRING name = counted(keyName);
    const OBJECT_ATTRIBUTES attributes = {sizeof attributes, root, &name, 0, nullptr, nullptr};
    HANDLE opened = nullptr;
    EXPECT_EQ(regNtOpenKey(&opened, KEY_READ, &attributes, 0), STATUS_OBJECT_NAME_EXISTS);
    key.first = {denied};  // without a buffer a refusal stands
    EXPECT_EQ(regNtOpenKeySaveSec(&opened, KEY_READ, &attributes, REG_TAKE_OWNERSHIP, nullptr, nullptr),
              denied);
}

/* The whole road of a refused open below a predefined root. */
TEST_F(KeyOpen, RecoveryStepByStep) {
    Key key;
    key.first = {denied};
    answerFor(&key);
    DWORD error = 77;
    EXPECT_EQ(openByName(REG_TAKE_OWNERSHIP | REG_IGNORE_MISSING, &error, HKEY_LOCAL_MACHINE), 1);
    EXPECT_EQ(error, 0u);
    EXPECT_EQ(key.written, key.stored);
    const Events expected = {
        "open 0 \\Registry\\Machine f003f 40",
        "open 1 Some\\Key 20019 1c0",
        attemptFailed("DEBUG", denied),
        "open 1 Some\\Key 20000 140",
        "get 2 7 0",
        text("get 2 7 %d", key.stored.size()),
        "close 2",
        "INFO _regOpenCreateKey: Taking ownership of Some\\Key",
        "open 1 Some\\Key 80000 1c0",
        "set 3 1",
        "close 3",
        "open 1 Some\\Key 40000 1c0",
        "set 4 4",
        "close 4",
        "CloseHandle 70",
        "open 1 Some\\Key 20019 1c0",
        "DEBUG _regOpenCreateKey: Finally open Some\\Key, access=0x20019",
        "open 1 Some\\Key c0000 140",
        "set 6 7",
        "close 6",
        "close 1",
    };
    EXPECT_EQ(events, expected);
}

TEST_F(KeyOpen, OutcomesOfTheRecovery) {
    const std::string taking = "INFO _regOpenCreateKey: Taking ownership of Some\\Key";
    const std::string atLast = "DEBUG _regOpenCreateKey: Finally open Some\\Key, access=0x20019";
    const std::string lost = "WARN _regOpenCreateKey: Original security attributes lost for Some\\Key";
    const std::string shut =
        "WARN _regOpenCreateKey: Native API call ZwOpenKey returned 0XC0000022 for Some\\Key";
    const std::string unread = "ERROR regGetKeySec: Win API call RegGetKeySecurity returned 13";
    const std::string unset = "ERROR regSetKeySec: Win API call RegSetKeySecurity returned 5";
    const std::string untaken = "ERROR regTakesOwnershipU: Win API call RegSetKeySecurity returned 1307";
    const auto refused = [](const char* access) {
        return std::string(
                   "ERROR _doOpenCreateKey: Native API call ZwOpenKey returned 0XC0000022 for Some\\Key, ") +
               "access=" + access;
    };
    const std::string again = refused("0x20019");
    constexpr bool givesBack = false, saves = true;
    const struct {
        const char* name;
        std::function<void(Key*)> spoil;
        NTSTATUS second; /* of the second attempt */
        bool saves;      /* the caller takes the descriptor over */
        bool handedOver, putBack;
        Events lines; /* behind the first attempt's */
        uint32_t flags = 0;
    } rows[] = {
        {"put back", [](Key*) {}, 0, givesBack, false, true, {taking, atLast}},
        {"handed over", [](Key*) {}, 0, saves, true, false, {taking, atLast}},
        {"not readable",
         [](Key* key) { key->readControl = denied; },
         0,
         givesBack,
         false,
         false,
         {shut, taking, atLast, lost}},
        {"not readable, to be handed over",
         [](Key* key) { key->readControl = denied; },
         0,
         saves,
         false,
         false,
         {shut, taking, atLast, lost}},
        {"not read",
         [](Key* key) { key->getSecurity = 13; },
         0,
         givesBack,
         false,
         false,
         {unread, taking, atLast, lost}},
        {"refused again", [](Key*) {}, denied, givesBack, false, true, {taking, again}},
        {"refused again, to be handed over", [](Key*) {}, denied, saves, false, true, {taking, again}},
        {"refused again, not readable",
         [](Key* key) { key->readControl = denied; },
         denied,
         saves,
         false,
         false,
         {shut, taking, again, lost}},
        {"no way back",
         [](Key* key) { key->writeBack = denied; },
         0,
         givesBack,
         false,
         false,
         {taking, atLast, shut, lost}},
        {"not put back",
         [](Key* key) { key->setSecurity[REG_SEC_ALL] = 5; },
         0,
         givesBack,
         false,
         true,
         {taking, atLast, unset, lost}},
        {"not taken: no owner's handle",
         [](Key* key) { key->writeOwner = denied; },
         0,
         givesBack,
         false,
         false,
         {taking, refused("0x80000"), atLast}},
        {"not taken: no owner",
         [](Key* key) { key->setSecurity[OWNER_SECURITY_INFORMATION] = 1307; },
         denied,
         saves,
         false,
         false,
         {taking, untaken, again}},
        {"half taken: no list's handle",
         [](Key* key) { key->writeDac = denied; },
         0,
         saves,
         false,
         false,
         {taking, refused("0x40000"), atLast}},
        {"half taken: no list",
         [](Key* key) { key->setSecurity[DACL_SECURITY_INFORMATION] = 1307; },
         0,
         givesBack,
         false,
         false,
         {taking, untaken, atLast}},
        {"quiet",
         [](Key* key) { key->writeBack = denied; },
         0,
         givesBack,
         false,
         false,
         {atLast, shut, lost},
         REG_QUIET},
        {"quiet, refused again", [](Key*) {}, denied, givesBack, false, true, {again}, REG_QUIET},
        {"gone since",
         [](Key*) {},
         STATUS_OBJECT_NAME_NOT_FOUND,
         givesBack,
         false,
         true,
         {taking, attemptFailed("ERROR", STATUS_OBJECT_NAME_NOT_FOUND)},
         REG_IGNORE_MISSING},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        SetUp();
        Key key;
        key.first = {denied, row.second};
        row.spoil(&key);
        answerFor(&key);
        UNICODE_STRING name = counted(keyName);
        const OBJECT_ATTRIBUTES attributes = {sizeof attributes,    root,    &name,
                                              OBJ_CASE_INSENSITIVE, nullptr, nullptr};
        HANDLE opened = nullptr;
        memBuf secBuf = {};
        void* saved = &secBuf;
        const NTSTATUS status =
            regNtOpenKeySaveSec(&opened, KEY_READ, &attributes, REG_TAKE_OWNERSHIP | row.flags, &secBuf,
                                row.saves ? &saved : nullptr);
        EXPECT_EQ(status, row.second);
        if (row.saves) {
            EXPECT_EQ(saved, row.handedOver ? secBuf.data : nullptr);
        }
        if (row.handedOver) {
            EXPECT_EQ(memcmp(saved, key.stored.data(), key.stored.size()), 0);
        }
        EXPECT_EQ(key.written, row.putBack ? key.stored : Bytes{});
        Events lines = {attemptFailed("DEBUG", denied)};
        lines.insert(lines.end(), row.lines.begin(), row.lines.end());
        EXPECT_EQ(logLines(), lines);
        EXPECT_EQ(handlesOpen, status >= 0 ? 1 : 0);
        memBufFree(&secBuf);
    }
}

TEST_F(KeyOpen, TakingOwnershipReportsEachCall) {
    const auto failed = [](const char* call) {
        return Events{text("ERROR regTakesOwnershipU: Win API call %s returned 998", call)};
    };
    const struct {
        Refusal refusal;
        DWORD open, query, length;
        DWORD result;
        Events lines;
    } rows[] = {
        {{}, 0, 0, 88, 0, {}},
        {{"InitializeSecurityDescriptor", 0, 998}, 0, 0, 88, 998, failed("InitializeSecurityDescriptor")},
        {{}, 998, 0, 88, 998, failed("OpenProcessToken")},
        {{}, 0, 998, 89, 998, failed("GetTokenInformation")},
        {{},
         0,
         0,
         89,
         1359,
         {"ERROR regTakesOwnershipU: GetTokenInformation requested 89 bytes of buffer (88 allocated)"}},
        {{"SetSecurityDescriptorOwner", 0, 998}, 0, 0, 88, 998, failed("SetSecurityDescriptorOwner")},
        {{"SetSecurityDescriptorDacl", 0, 998}, 0, 0, 88, 998, failed("SetSecurityDescriptorDacl")},
    };
    for (const auto& row : rows) {
        SetUp();
        Key key;
        answerFor(&key);
        refusal = row.refusal;
        answer.OpenProcessToken = [&](HANDLE, DWORD access, PHANDLE token) {
            EXPECT_EQ(access, TOKEN_QUERY);
            *token = fakeHandle(0x70);
            if (row.open == 0) return TRUE;
            *token = nullptr;
            return failWith(row.open);
        };
        const auto inner = answer.GetTokenInformation;
        answer.GetTokenInformation = [&](HANDLE token, TOKEN_INFORMATION_CLASS infoClass, LPVOID buffer,
                                         DWORD size, LPDWORD length) {
            inner(token, infoClass, buffer, size, length);
            *length = row.length;
            return row.query != 0 ? failWith(row.query) : TRUE;
        };
        const UNICODE_STRING name = counted(keyName);
        EXPECT_EQ(regTakesOwnershipU(root, &name), row.result);
        EXPECT_EQ(logLines(), row.lines);
        EXPECT_EQ(handlesOpen, 0);
        const bool tokenOpened = row.open == 0 && row.refusal.call != "InitializeSecurityDescriptor";
        EXPECT_EQ(std::count(events.begin(), events.end(), "CloseHandle 70"), tokenOpened ? 1 : 0);
        EXPECT_EQ(std::count(events.begin(), events.end(), "set 1 1"), row.result == 0 ? 1 : 0);
    }
}

TEST_F(KeyOpen, DescriptorsOfOpenKeys) {
    Key key;
    answerFor(&key);
    memBuf secBuf = {};
    const auto controlAfter = [&](unsigned control) {
        key.stored[2] = static_cast<uint8_t>(control);
        key.stored[3] = static_cast<uint8_t>(control >> 8);
        EXPECT_EQ(regCopyKeySec(fakeHandle(1), fakeHandle(2), &secBuf), 0u);
        EXPECT_EQ(memcmp(secBuf.data, key.written.data(), key.stored.size()), 0)
            << "the caller's image shows it too";
        return key.written[2] | key.written[3] << 8;
    };
    EXPECT_EQ(controlAfter(0x8004), 0x8004);
    EXPECT_EQ(controlAfter(0x8404), 0x8504);
    EXPECT_EQ(controlAfter(0x8804), 0x8A04);
    EXPECT_EQ(controlAfter(0x8C04), 0x8F04);
    EXPECT_EQ(controlAfter(0x8304), 0x8304);
    EXPECT_EQ(secBuf.size, key.stored.size());
    EXPECT_EQ(logLines(), Events{});

    memBufFree(&secBuf);
    allocationsLeft = 0;
    EXPECT_EQ(regCopyKeySec(fakeHandle(1), fakeHandle(2), &secBuf), DWORD{ERROR_NOT_ENOUGH_MEMORY});
    EXPECT_EQ(logLines().size(), 1u);  // that of the memory layer
    allocationsLeft = -1;
    key.setSecurity[REG_SEC_ALL] = 19;
    EXPECT_EQ(regCopyKeySec(fakeHandle(1), fakeHandle(2), &secBuf), 19u);
    EXPECT_EQ(events.back(), "ERROR regSetKeySec: Win API call RegSetKeySecurity returned 19");
    key.getSecurity = 6;
    EXPECT_EQ(regCopyKeySec(fakeHandle(1), fakeHandle(2), &secBuf), 6u);
    EXPECT_EQ(events.back(), "ERROR regGetKeySec: Win API call RegGetKeySecurity returned 6");
    memBufFree(&secBuf);
}
