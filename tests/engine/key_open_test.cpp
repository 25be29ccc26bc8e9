#include <algorithm>
#include <cstring>

#include "regtk/regtk.h"
#include "tests/engine/scripted.h"

namespace {

constexpr NTSTATUS denied = STATUS_ACCESS_DENIED;
constexpr NTSTATUS nameMissing = STATUS_OBJECT_NAME_NOT_FOUND;
constexpr NTSTATUS pathMissing = STATUS_OBJECT_PATH_NOT_FOUND;
const HANDLE root = fakeHandle(0x99);
const std::u16string keyName = u"Some\\Key";
const std::u16string keyClass = u"Cls";
const Bytes stored = image({administrators, administrators});

/* What a key answers: statuses of its opens, by their access, and codes of its descriptor's calls. */
struct Key {
    std::vector<NTSTATUS> opens = {}; /* for KEY_READ, one an open; behind these success */
    NTSTATUS readControl = 0;
    NTSTATUS writeOwner = 0;
    NTSTATUS writeDac = 0;
    NTSTATUS writeBoth = 0;
    NTSTATUS machine = 0; /* of the real root */
    LSTATUS get = 0;      /* once the buffer is large enough */
    LSTATUS set[8] = {};  /* by the information */
    Bytes descriptor = stored;
    Bytes written = {}; /* by the last write of the whole */
};

NTSTATUS statusOf(Key* key, const OBJECT_ATTRIBUTES* attributes, ACCESS_MASK access) {
    if (attributes->RootDirectory == nullptr) return key->machine;
    if (access == READ_CONTROL) return key->readControl;
    if (access == WRITE_OWNER) return key->writeOwner;
    if (access == WRITE_DAC) return key->writeDac;
    if (access == (WRITE_DAC | WRITE_OWNER)) return key->writeBoth;
    if (key->opens.empty()) return STATUS_SUCCESS;
    const NTSTATUS status = key->opens.front();
    key->opens.erase(key->opens.begin());
    return status;
}

uintptr_t handlesGiven = 0; /* handles count from 1 */
int handlesOpen = 0;

NTSTATUS open(Key* key, const char* call, PHANDLE handle, ACCESS_MASK access,
              const OBJECT_ATTRIBUTES* attributes) {
    EXPECT_TRUE(attributes->Length == 48 && attributes->SecurityDescriptor == nullptr);
    note("%s %Ix %wZ %x %x", call, numberOf(attributes->RootDirectory), attributes->ObjectName, access,
         attributes->Attributes);
    const NTSTATUS status = statusOf(key, attributes, access);
    if (status < 0) return status;
    *handle = fakeHandle(++handlesGiven);
    handlesOpen++;
    return status;
}

LONG closeHandle(const void* handle) {
    note("close %Ix", numberOf(handle));
    handlesOpen--;
    return 0;
}

void answerForDescriptor(Key* key) {
    answerForToken(const_cast<uint8_t*>(administrators.data()));
    answer.RegGetKeySecurity = [=](HKEY handle, SECURITY_INFORMATION information, PSECURITY_DESCRIPTOR target,
                                   LPDWORD size) -> LSTATUS {
        note("get %Ix %d %d", numberOf(handle), information, *size);
        const DWORD room = *size;
        *size = static_cast<DWORD>(key->descriptor.size());
        if (room < *size) return ERROR_INSUFFICIENT_BUFFER;
        if (key->get == 0) memcpy(target, key->descriptor.data(), *size);
        return key->get;
    };
    answer.RegSetKeySecurity = [=](HKEY handle, SECURITY_INFORMATION information,
                                   PSECURITY_DESCRIPTOR given) {
        note("set %Ix %d", numberOf(handle), information);
        const uint8_t* const bytes = static_cast<const uint8_t*>(given);
        if (information == REG_SEC_ALL) {
            key->written.assign(bytes, bytes + key->descriptor.size());
        } else {
            const SECURITY_DESCRIPTOR* const own = static_cast<SECURITY_DESCRIPTOR*>(given);
            EXPECT_TRUE(own->Revision == 1 && own->Control == SE_DACL_PRESENT && own->Dacl == nullptr);
            EXPECT_EQ(own->Owner, administrators.data());
        }
        return key->set[information];
    };
}

void answerFor(Key* key) {
    handlesGiven = 0;
    handlesOpen = 0;
    answer.ZwOpenKey = [=](PHANDLE handle, ACCESS_MASK access, POBJECT_ATTRIBUTES attributes) {
        return open(key, "open", handle, access, attributes);
    };
    answer.ZwCreateKey = [=](PHANDLE handle, ACCESS_MASK access, POBJECT_ATTRIBUTES attributes,
                             ULONG titleIndex, PUNICODE_STRING className, ULONG options, PULONG disposition) {
        EXPECT_EQ(disposition, nullptr);
        note("title %d class %wZ options %d", titleIndex, className, options);
        return open(key, "create", handle, access, attributes);
    };
    answer.ZwClose = closeHandle;
    answer.RegCloseKey = closeHandle;
    answerForDescriptor(key);
}

int openByName(uint32_t flags, DWORD* error, HANDLE from = root) {
    HANDLE opened = nullptr;
    const int result = regOpenKey(from, keyName.c_str(), KEY_READ, flags, &opened, error);
    EXPECT_EQ(result != 0, opened != nullptr);
    return result;
}

OBJECT_ATTRIBUTES attributesOf(UNICODE_STRING* name, ULONG bits) {
    return {sizeof(OBJECT_ATTRIBUTES), root, name, bits, nullptr, nullptr};
}

/* "!" stands before a failure that is reported at ERROR, "(!)" at DEBUG. */
const Legend legend = {{"ERROR _doOpenCreateKey: Native API call ", "! "},
                       {"DEBUG _doOpenCreateKey: Native API call ", "(!) "},
                       {"ERROR _regOpenPredefinedKey: Native API call", "! root"},
                       {"ERROR _regOpenPredefinedKey: Unrecognized handle", "! what is"},
                       {"WARN _regOpenCreateKey: Native API call", "shut"},
                       {"INFO _regOpenCreateKey: Taking ownership of", "taking"},
                       {"DEBUG _regOpenCreateKey: Finally open Some\\Key, access=0x20019", "at last"},
                       {"WARN _regOpenCreateKey: Original security attributes lost for Some\\Key", "lost"},
                       {"ERROR regGetKeySec: Win API call RegGetKeySecurity returned", "! get"},
                       {"ERROR regSetKeySec: Win API call RegSetKeySecurity returned", "! set"},
                       {"ERROR regTakesOwnershipU: Win API call ", "! "},
                       {"ERROR regTakesOwnershipU: ", "! "},
                       {" returned", ""},
                       {"Some\\Key, access=", ""},
                       {" Some\\Key", ""},
                       {" for", ""},
                       {"0XC0000022", "denied"},
                       {"0XC0000034", "missing"},
                       {" ZwOpenKey denied", " denied"},
                       {" ZwOpenKey missing", " missing"}};

} /* namespace */

using KeyOpen = Scripted;

TEST_F(KeyOpen, OpenIfIsDecidedByTheFlagsAlone) {
    Key key;
    answerFor(&key);
    UNICODE_STRING name = counted(keyName);
    const UNICODE_STRING className = counted(keyClass);
    for (const ULONG bits : {OBJ_CASE_INSENSITIVE, OBJ_CASE_INSENSITIVE | OBJ_OPENIF, OBJ_OPENLINK}) {
        const OBJECT_ATTRIBUTES attributes = attributesOf(&name, bits);
        HANDLE opened = nullptr;
        memBuf secBuf = {};
        void* saved = &secBuf;
        events.clear();
        EXPECT_EQ(regNtOpenKey(&opened, KEY_READ, &attributes, REG_CREATE), 0);
        EXPECT_EQ(regNtOpenKeySaveSec(&opened, 1, &attributes, REG_CREATE | REG_NO_OPENIF, &secBuf, &saved),
                  0);
        EXPECT_EQ(saved, nullptr);
        EXPECT_EQ(regNtCreateKey(&opened, 1, &attributes, 3, &className, 2, 0), 0);
        EXPECT_EQ(regNtCreateKey(&opened, 1, &attributes, 0, nullptr, 0, REG_NO_OPENIF), 0);
        const ULONG with = bits | OBJ_OPENIF;
        const ULONG without = bits & ~OBJ_OPENIF;
        const std::string expected = text(
            "open 99 20019 %x, open 99 1 %x, title 3 class Cls options 2, create 99 1 %x, "
            "title 0 class (null) options 0, create 99 1 %x",
            with, without, with, without);
        EXPECT_EQ(shortened(legend), expected);
        EXPECT_TRUE(attributes.RootDirectory == root && attributes.ObjectName == &name);
        EXPECT_EQ(attributes.Attributes, bits);
    }
    events.clear();
    DWORD error = 77;
    EXPECT_EQ(openByName(REG_CREATE, &error), 1);
    EXPECT_EQ(error, 0u);
    EXPECT_EQ(shortened(legend), "title 0 class (null) options 0, create 99 20019 1c0");
}

TEST_F(KeyOpen, PredefinedRoots) {
    const std::string machine = "open 0 \\Registry\\Machine f003f 40, ";
    const struct {
        uintptr_t root;
        NTSTATUS machine, key;
        DWORD error;
        std::string road;
    } rows[] = {
        {0xFFFFFFFF80000002, 0, 0, 0, machine + "open 1 20019 1c0, close 1"},
        {0xFFFFFFFF80000003, 0, 0, 0, "open 0 \\Registry\\User f003f 40, open 1 20019 1c0, close 1"},
        {0xFFFFFFFF80000002, 0, nameMissing, 2, machine + "open 1 20019 1c0, ! missing 0x20019, close 1"},
        {0xFFFFFFFF80000002, denied, 0, 5, machine + "! root denied \\Registry\\Machine"},
        {0xFFFFFFFF80000001, 0, 0, 6, "! what is 0xffffffff80000001"},
        {0xFFFFFFFF80000000, 0, 0, 6, "! what is 0xffffffff80000000"},
        {0xFFFFFFFFFFFFFFFF, 0, 0, 6, "! what is 0xffffffffffffffff"},
        {0x80000002, 0, 0, 0, "open 80000002 20019 1c0"},
        {0xFFFFFFFF7FFFFFFF, 0, 0, 0, "open ffffffff7fffffff 20019 1c0"},
    };
    for (const auto& row : rows) {
        events.clear();
        Key key = {.opens = {row.key}, .machine = row.machine};
        answerFor(&key);
        DWORD error = 77;
        EXPECT_EQ(openByName(0, &error, fakeHandle(row.root)), row.error == 0 ? 1 : 0);
        EXPECT_EQ(error, row.error);
        EXPECT_EQ(shortened(legend), row.road);
    }
}

TEST_F(KeyOpen, LevelsAndCodesOfFailures) {
    const struct {
        NTSTATUS status;
        uint32_t flags;
        const char* mark;
        DWORD error; /* 77: as the caller left it */
    } rows[] = {
        {nameMissing, 0, "!", 2},
        {pathMissing, 0, "!", 3},
        {nameMissing, REG_IGNORE_MISSING, "(!)", 77},
        {pathMissing, REG_IGNORE_MISSING, "(!)", 77},
        {denied, REG_IGNORE_MISSING, "!", 5},
        {STATUS_KEY_DELETED, REG_IGNORE_MISSING, "!", 1018},
        {nameMissing, REG_QUIET, "(!)", 2},
        {denied, REG_QUIET, "(!)", 5},
        {nameMissing, REG_TAKE_OWNERSHIP, "!", 2},
        {denied, 0, "!", 5},
        {STATUS_KEY_DELETED, REG_QUIET | REG_TAKE_OWNERSHIP, "(!)", 1018},
    };
    for (const auto& row : rows) {
        for (const char* call : {"ZwOpenKey", "ZwCreateKey"}) {
            const uint32_t flags = row.flags | (call[2] == 'C' ? uint32_t{REG_CREATE} : 0);
            events.clear();
            Key key = {.opens = {row.status, row.status}};
            answerFor(&key);
            DWORD error = 77;
            EXPECT_EQ(openByName(flags, &error), 0);
            EXPECT_EQ(error, row.error);
            const std::string line = text("%s %s %#X 0x20019", row.mark, call, row.status);
            EXPECT_EQ(shortened(legend, logLines()), shortened(legend, {line}));
            EXPECT_EQ(openByName(flags, nullptr), 0);
        }
    }
    Key key = {.opens = {STATUS_OBJECT_NAME_EXISTS, denied}};
    answerFor(&key);
    UNICODE_STRING name = counted(keyName);
    const OBJECT_ATTRIBUTES attributes = attributesOf(&name, 0);
    HANDLE opened = nullptr;
    EXPECT_EQ(regNtOpenKey(&opened, KEY_READ, &attributes, 0), STATUS_OBJECT_NAME_EXISTS);
    // Without a buffer a refusal stands.
    EXPECT_EQ(regNtOpenKeySaveSec(&opened, KEY_READ, &attributes, REG_TAKE_OWNERSHIP, nullptr, nullptr),
              denied);
}

TEST_F(KeyOpen, RecoveryStepByStep) {
    Key key = {.opens = {denied}};
    answerFor(&key);
    DWORD error = 77;
    EXPECT_EQ(openByName(REG_TAKE_OWNERSHIP | REG_IGNORE_MISSING, &error, HKEY_LOCAL_MACHINE), 1);
    EXPECT_EQ(error, 0u);
    EXPECT_EQ(key.written, stored);
    EXPECT_EQ(shortened(legend),
              "open 0 \\Registry\\Machine f003f 40, open 1 20019 1c0, (!) denied 0x20019, "
              "open 1 20000 140, get 2 7 0, get 2 7 52, close 2, taking, "
              "open 1 80000 1c0, set 3 1, close 3, open 1 40000 1c0, set 4 4, close 4, CloseHandle 70, "
              "open 1 20019 1c0, at last, open 1 c0000 140, set 6 7, close 6, close 1");
}

TEST_F(KeyOpen, OutcomesOfTheRecovery) {
    constexpr bool saves = true; /* the caller takes the descriptor over */
    constexpr DWORD untaken = 1307;
    enum Fate : uint8_t { left, putBack, handedOver };
    const struct {
        Key key;
        NTSTATUS second; /* of the second attempt */
        bool saves;
        Fate fate;         /* the old descriptor's */
        std::string lines; /* behind the first attempt's */
        uint32_t flags = 0;
    } rows[] = {
        {{}, 0, !saves, putBack, "taking, at last"},
        {{}, 0, saves, handedOver, "taking, at last"},
        {{.readControl = denied}, 0, !saves, left, "shut denied, taking, at last, lost"},
        {{.readControl = denied}, 0, saves, left, "shut denied, taking, at last, lost"},
        {{.get = 13}, 0, !saves, left, "! get 13, taking, at last, lost"},
        {{}, denied, !saves, putBack, "taking, ! denied 0x20019"},
        {{}, denied, saves, putBack, "taking, ! denied 0x20019"},
        {{.readControl = denied}, denied, saves, left, "shut denied, taking, ! denied 0x20019, lost"},
        {{.writeBoth = denied}, 0, !saves, left, "taking, at last, shut denied, lost"},
        {{.set = {0, 0, 0, 0, 0, 0, 0, 5}}, 0, !saves, putBack, "taking, at last, ! set 5, lost"},
        /* not taken, or half taken: nothing is put back */
        {{.writeOwner = denied}, 0, !saves, left, "taking, ! denied 0x80000, at last"},
        {{.set = {0, untaken}}, denied, saves, left, "taking, ! RegSetKeySecurity 1307, ! denied 0x20019"},
        {{.writeDac = denied}, 0, saves, left, "taking, ! denied 0x40000, at last"},
        {{.set = {0, 0, 0, 0, untaken}}, 0, !saves, left, "taking, ! RegSetKeySecurity 1307, at last"},
        /* flags that hold for the first attempt alone */
        {{.writeBoth = denied}, 0, !saves, left, "at last, shut denied, lost", REG_QUIET},
        {{}, denied, !saves, putBack, "! denied 0x20019", REG_QUIET},
        {{}, nameMissing, !saves, putBack, "taking, ! missing 0x20019", REG_IGNORE_MISSING},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        events.clear();
        Key key = row.key;
        key.opens = {denied, row.second};
        answerFor(&key);
        UNICODE_STRING name = counted(keyName);
        const OBJECT_ATTRIBUTES attributes = attributesOf(&name, OBJ_CASE_INSENSITIVE);
        HANDLE opened = nullptr;
        memBuf secBuf = {};
        void* saved = &secBuf;
        const NTSTATUS status =
            regNtOpenKeySaveSec(&opened, KEY_READ, &attributes, REG_TAKE_OWNERSHIP | row.flags, &secBuf,
                                row.saves ? &saved : nullptr);
        EXPECT_EQ(status, row.second);
        EXPECT_TRUE(!row.saves || saved == (row.fate == handedOver ? secBuf.data : nullptr));
        EXPECT_TRUE(row.fate != handedOver || memcmp(saved, stored.data(), stored.size()) == 0);
        EXPECT_EQ(key.written, row.fate == putBack ? stored : Bytes{});
        EXPECT_EQ(shortened(legend, logLines()), "(!) denied 0x20019, " + row.lines);
        EXPECT_EQ(handlesOpen, status >= 0 ? 1 : 0);
        memBufFree(&secBuf);
    }
}

TEST_F(KeyOpen, TakingOwnershipReportsEachCall) {
    const struct {
        const char* refused;
        DWORD open, query, length, result;
        std::string line;
    } rows[] = {
        {"", 0, 0, 88, 0, ""},
        {"InitializeSecurityDescriptor", 0, 0, 88, 998, "! InitializeSecurityDescriptor 998"},
        {"", 998, 0, 88, 998, "! OpenProcessToken 998"},
        {"", 0, 998, 89, 998, "! GetTokenInformation 998"},
        {"", 0, 0, 89, 1359, "! GetTokenInformation requested 89 bytes of buffer (88 allocated)"},
        {"SetSecurityDescriptorOwner", 0, 0, 88, 998, "! SetSecurityDescriptorOwner 998"},
        {"SetSecurityDescriptorDacl", 0, 0, 88, 998, "! SetSecurityDescriptorDacl 998"},
    };
    for (const auto& row : rows) {
        SetUp();
        Key key;
        answerFor(&key);
        refusal = {row.refused, 0, 998};
        answerForToken(const_cast<uint8_t*>(administrators.data()), TokenUser, row.open, row.query,
                       row.length);
        const UNICODE_STRING name = counted(keyName);
        EXPECT_EQ(regTakesOwnershipU(root, &name), row.result);
        EXPECT_EQ(shortened(legend, logLines()), row.line);
        EXPECT_EQ(handlesOpen, 0);
        const bool opened = row.open == 0 && row.refused != std::string("InitializeSecurityDescriptor");
        EXPECT_EQ(std::count(events.begin(), events.end(), "CloseHandle 70"), opened ? 1 : 0);
        EXPECT_EQ(std::count(events.begin(), events.end(), "set 1 1"), row.result == 0 ? 1 : 0);
    }
}

TEST_F(KeyOpen, DescriptorsOfOpenKeys) {
    Key key;
    answerFor(&key);
    memBuf secBuf = {};
    const auto copy = [&] { return regCopyKeySec(fakeHandle(1), fakeHandle(2), &secBuf); };
    /* the control word as it is read, and its high byte as it is written */
    for (const auto& [read, written] :
         {std::pair{0x80, 0x80}, {0x84, 0x85}, {0x88, 0x8A}, {0x8C, 0x8F}, {0x83, 0x83}}) {
        key.descriptor[3] = static_cast<uint8_t>(read);
        EXPECT_EQ(copy(), 0u);
        EXPECT_EQ(key.written[3], written);
        EXPECT_EQ(memcmp(secBuf.data, key.written.data(), stored.size()), 0)
            << "the caller's image shows it too";
        key.written[3] = key.descriptor[3];
        EXPECT_EQ(key.written, key.descriptor);
    }
    EXPECT_EQ(secBuf.size, stored.size());
    EXPECT_EQ(logLines(), Events{});

    memBufFree(&secBuf);
    allocationsLeft = 0;
    EXPECT_EQ(copy(), DWORD{ERROR_NOT_ENOUGH_MEMORY});
    EXPECT_EQ(logLines().size(), 1u);  // that of the memory layer
    allocationsLeft = -1;
    events.clear();
    key.set[REG_SEC_ALL] = 19;
    EXPECT_EQ(copy(), 19u);
    key.get = 6;
    EXPECT_EQ(copy(), 6u);
    EXPECT_EQ(shortened(legend, logLines()), "! set 19, ! get 6");
    memBufFree(&secBuf);
}
