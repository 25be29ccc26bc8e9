/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The opening of keys, and of those that refuse access by taking ownership of them for a while. */
#include "tests/support/small_system.h"

namespace offline {
namespace {

constexpr NTSTATUS denied = STATUS_ACCESS_DENIED, missing = STATUS_OBJECT_NAME_NOT_FOUND;

/* "!" stands before a failure that is reported at ERROR, "(!)" at DEBUG. */
// clang-format off
const Legend openings = {
    {"WARN _regOpenCreateKey: Original security attributes lost for a", "lost"},
    {"INFO _regOpenCreateKey: Taking ownership of a", "taking"},
    {"DEBUG _regOpenCreateKey: Finally open a, access=0x20019", "open"}, {" for a, access=0x", " "},
    {" for a,", ","},
    {", access=0x", " "}, {"Native API call ", ""}, {"Win API call ", ""}, {" returned", ""},
    {"0XC0000022", "denied"}, {"0XC0000034", "missing"}, {"ERROR _doOpenCreateKey: ", "! "},
    {"DEBUG _doOpenCreateKey: ", "(!) "}, {"ERROR _regOpenPredefinedKey: ", "! "},
    {"ERROR regGetKeySec: ", "! "},
    {"ERROR regSetKeySec: ", "! "}, {"ERROR regTakesOwnershipU: ", "! "},
    {"WARN _regOpenCreateKey: ZwOpenKey denied", "shut"}};
// clang-format on

struct Open : PrivilegedSystem {
    const ByteVector own = makeDescriptor(admins, {allowed(localSystem)});
    void SetUp() override {
        PrivilegedSystem::SetUp();
        grow("a");
        describe("a", own);
    }
    /* What can be put back of a key's descriptor. */
    ByteVector restorable(std::string_view path) {
        memBuf read = {};
        EXPECT_EQ(regGetKeySec(at(path), REG_SEC_ALL, &read), 0u);
        ByteVector parts(read.data, read.data + read.size);
        memBufFree(&read);
        return parts;
    }
};

/* Who creates, and under which attributes, is said by the call and its flags alone. */
TEST_F(Open, Requests) {
    const std::u16string c = u"c", cls = u"Cls";
    UNICODE_STRING name = counted(c), className = counted(cls);
    const OBJECT_ATTRIBUTES openIf = {sizeof openIf, at(""), &name, OBJ_CASE_INSENSITIVE | OBJ_OPENIF,
                                      nullptr,       nullptr};
    OBJECT_ATTRIBUTES plain = openIf;
    plain.Attributes = OBJ_CASE_INSENSITIVE;
    answer.ZwCreateKey = [](PHANDLE key, ACCESS_MASK access, POBJECT_ATTRIBUTES given, auto... rest) {
        note("create %x", given->Attributes);
        return platform.ZwCreateKey(key, access, given, rest...);
    };
    answer.ZwOpenKey = [](PHANDLE key, ACCESS_MASK access, POBJECT_ATTRIBUTES given) {
        note("open %x", given->Attributes);
        return platform.ZwOpenKey(key, access, given);
    };
    HANDLE keys[4] = {};
    events.clear();
    regNtCreateKey(&keys[0], 1, &plain, 3, &className, 0, 0);
    regNtCreateKey(&keys[1], 1, &openIf, 0, nullptr, 0, REG_NO_OPENIF);
    regNtOpenKey(&keys[2], 1, &plain, REG_CREATE);
    regNtOpenKey(&keys[3], 1, &openIf, REG_CREATE | REG_NO_OPENIF);
    EXPECT_EQ(shortened({}), "create c0, create 40, open c0, open 40");
    EXPECT_EQ(classOf("c"), "Cls");
}

/* The root, the flags and the level of what is logged. */
TEST_F(Open, RootsAndFailures) {
    const HANDLE root = at("");
    const auto fails = [](NTSTATUS status) { return std::vector<Fault>{{"ZwOpenKey", "a", status}}; };
    const auto predefined = [](uintptr_t number) { return reinterpret_cast<HANDLE>(number); };
    constexpr uint32_t optional = REG_IGNORE_MISSING, taking = REG_TAKE_OWNERSHIP;
    // clang-format off
    const struct {
        HANDLE root; const char16_t* name; std::vector<Fault> faults; uint32_t flags;
        DWORD error; /* 77: as the caller left it */
        std::string told;
    } rows[] = {
        {HKEY_LOCAL_MACHINE, u"TEST\\a", {}, 0, 0, ""},
        {HKEY_USERS, u"a", {}, 0, 2, "! ZwOpenKey missing 20019, "},
        {HKEY_LOCAL_MACHINE, u"a", {{"ZwOpenKey", "Machine", denied}}, 0, 5,
         "! ZwOpenKey denied for \\Registry\\Machine, "},
        {predefined(0xFFFFFFFF80000000), u"a", {}, 0, 6, "! Unrecognized handle 0xffffffff80000000, "},
        {predefined(0x80000002), u"a", {}, 0, 6, "! ZwOpenKey 0XC0000008 20019, "},
        {root, u"new", {}, REG_CREATE, 0, ""},
        {root, u"a", fails(missing), optional, 77, "(!) ZwOpenKey missing 20019, "},
        {root, u"a", fails(STATUS_OBJECT_PATH_NOT_FOUND), optional, 77, "(!) ZwOpenKey 0XC000003A 20019, "},
        {root, u"a", fails(denied), optional, 5, "! ZwOpenKey denied 20019, "},
        {root, u"a", fails(missing), REG_QUIET, 2, "(!) ZwOpenKey missing 20019, "},
        {root, u"a", fails(missing), taking, 2, "! ZwOpenKey missing 20019, "},
        {root, u"a", {{"ZwCreateKey", "a", denied}}, REG_CREATE, 5, "! ZwCreateKey denied 20019, "},
    };
    // clang-format on
    for (const auto& row : rows) {
        faults = row.faults;
        const std::string told = outcome(openings, [&] {
            HANDLE key = nullptr;
            DWORD error = 77;
            EXPECT_EQ(regOpenKey(row.root, row.name, KEY_READ, row.flags, &key, &error),
                      row.error == 0 ? 1 : 0);
            if (key != nullptr) ZwClose(key);
            return error;
        });
        EXPECT_EQ(told, row.told + std::to_string(row.error));
    }
}

TEST_F(Open, OutcomesOfTheRecovery) {
    constexpr bool saves = true; /* the caller takes the descriptor over */
    enum Fate : uint8_t { taken, put, handedOver };
    constexpr NTSTATUS no = denied;
    // clang-format off
    const struct {
        /* of the opens: READ_CONTROL, WRITE_OWNER, WRITE_DAC, the second attempt, both WRITEs */
        std::vector<NTSTATUS> opens; bool saves;
        Fate fate;         /* the old descriptor's; "put" also where it was not taken */
        std::string lines; /* after the first attempt's */
        uint32_t flags = 0; std::vector<Fault> more = {};
    } rows[] = {
        {{}, !saves, put, "taking, open, 0"},
        {{}, saves, handedOver, "taking, open, 0"},
        {{no}, saves, taken, "shut, taking, open, lost, 0"},
        {{}, !saves, taken, "! RegGetKeySecurity 13, taking, open, lost, 0", 0,
         {{"RegGetKeySecurity", "a", 13}}},
        {{0, 0, 0, no}, saves, put, "taking, ! ZwOpenKey denied 20019, 5"},
        {{0, 0, 0, 0, no}, !saves, taken, "taking, open, shut, lost, 0"},
        {{}, !saves, taken, "taking, open, ! RegSetKeySecurity 5, lost, 0", 0,
         {{"RegSetKeySecurity", "a", 5, 2}}},
        /* not taken, or half taken: nothing is put back */
        {{0, no}, !saves, put, "taking, ! ZwOpenKey denied 80000, open, 0"},
        {{0, 0, no}, saves, taken, "taking, ! ZwOpenKey denied 40000, open, 0"},
        {{}, !saves, taken, "taking, ! RegSetKeySecurity 13, open, 0", 0,
         {{"RegSetKeySecurity", "a", 13, 1}}},
        /* flags that hold for the first attempt alone */
        {{0, 0, 0, 0, no}, !saves, taken, "open, shut, lost, 0", REG_QUIET},
        {{0, 0, 0, missing}, !saves, put, "taking, ! ZwOpenKey missing 20019, 2", REG_IGNORE_MISSING},
        /* without a token, or its user */
        {{}, !saves, put, "taking, ! OpenProcessToken 1359, open, 0", 0,
         {{"OpenProcessToken", "", silently}}},
        {{}, !saves, put, "taking, ! SetSecurityDescriptorOwner 998, open, 0", 0,
         {{"SetSecurityDescriptorOwner", "", 998}}},
    };
    // clang-format on
    const std::u16string a = u"a";
    UNICODE_STRING name = counted(a);
    const OBJECT_ATTRIBUTES attributes = regAttributesBelow(at(""), &name);
    const ByteVector parts = restorable("a");
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        describe("a", own);
        faults = row.more;
        faults.push_back({"ZwOpenKey", "a", denied, 0, 1});
        int before = 0; /* opens that no fault takes */
        for (const NTSTATUS status : row.opens) {
            if (status != 0) faults.push_back({"ZwOpenKey", "a", status, before, 1});
            if (status == 0) before++;
        }
        memBuf secBuf = {};
        void* saved = &secBuf;
        const std::string told = outcome(openings, [&] {
            HANDLE key = nullptr;
            const NTSTATUS status =
                regNtOpenKeySaveSec(&key, KEY_READ, &attributes, REG_TAKE_OWNERSHIP | row.flags, &secBuf,
                                    row.saves ? &saved : nullptr);
            if (status >= 0) ZwClose(key);
            return RtlNtStatusToDosError(status);
        });
        EXPECT_EQ(told, "(!) ZwOpenKey denied 20019, " + row.lines);
        EXPECT_TRUE(!row.saves || saved == (row.fate == handedOver ? secBuf.data : nullptr));
        EXPECT_TRUE(row.fate != handedOver || memcmp(saved, parts.data(), parts.size()) == 0);
        EXPECT_EQ(descriptorOf("a") == own, row.fate == put);
        faults.clear();
        memBufFree(&secBuf);
    }
}

/* The platform never asks for more than there is room for; if it did, nothing of its answer would be used. */
TEST_F(Open, AUserOrOwnerThatIsTooLongIsNotUsed) {
    const std::u16string a = u"a";
    const UNICODE_STRING name = counted(a);
    const HANDLE root = at("");
    answer.GetTokenInformation = [](HANDLE, TOKEN_INFORMATION_CLASS, LPVOID, DWORD size, LPDWORD needed) {
        *needed = size + 1;
        return TRUE;
    };
    for (const auto& seize : std::vector<std::function<DWORD()>>{
             [&] { return regTakesOwnershipU(root, &name); }, [] { return takeFileOwnership(u"c:\\f"); }})
        EXPECT_TRUE(outcome(openings, seize).ends_with(" requested 89 bytes of buffer (88 allocated), 1359"));
}

/* What an image that was read asks for when it is written back. */
TEST_F(Open, InheritedListsStayInherited) {
    const HANDLE key = at("a");
    const struct {
        unsigned before, after;
    } rows[] = {{0, 0}, {0x400, 0x500}, {0x800, 0xA00}, {0xC00, 0xF00}, {0x1100, 0x1100}};
    for (const auto& row : rows) {
        ByteVector made = openToAll();
        const unsigned control = made[2] + 256u * made[3];
        made[3] = static_cast<uint8_t>((control | row.before) >> 8);
        EXPECT_EQ(regSetKeySec(key, REG_SEC_ALL, made.data()), 0u);
        EXPECT_EQ(made[2] + 256u * made[3], control | row.after);
    }
}

} /* namespace */
} /* namespace offline */
