/* The opening of keys, and of those that refuse access by taking ownership of them for a while. */
#include "tests/keys/keys_fixture.h"

namespace offline {
namespace {

constexpr NTSTATUS denied = STATUS_ACCESS_DENIED, missing = STATUS_OBJECT_NAME_NOT_FOUND;
constexpr uint32_t everything = SID_RECURSIVE | SID_REPLACE_SD | SID_REPLACE_VALUES;

/* "!" stands before a failure that is reported at ERROR, "(!)" at DEBUG. */
// clang-format off
const Legend legend = {
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

struct Open : Keys {
    const ByteVector own = makeDescriptor(administratorsSid, {{2, KEY_ALL_ACCESS, systemSid}});
    void SetUp() override {
        Keys::SetUp();
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

TEST_F(Open, Requests) {
    UNICODE_STRING name = counted(u"c"), className = counted(u"Cls");
    const HANDLE root = at("");
    for (const ULONG bits : {OBJ_CASE_INSENSITIVE | OBJ_OPENIF, OBJ_CASE_INSENSITIVE}) {
        const OBJECT_ATTRIBUTES attributes = {sizeof attributes, root, &name, bits, nullptr, nullptr};
        HANDLE keys[4] = {};
        opensNoted = true;
        const std::string calls = outcome({}, [&] {
            regNtCreateKey(&keys[0], 1, &attributes, 3, &className, 0, 0);
            regNtCreateKey(&keys[1], 1, &attributes, 0, nullptr, 0, REG_NO_OPENIF);
            regNtOpenKey(&keys[2], 1, &attributes, REG_CREATE);
            regNtOpenKey(&keys[3], 1, &attributes, REG_CREATE | REG_NO_OPENIF);
            opensNoted = false;
            for (const HANDLE key : keys) ZwClose(key);
            return 0;
        });
        EXPECT_EQ(calls, "ZwCreateKey c c0, ZwCreateKey c 40, ZwOpenKey c c0, ZwOpenKey c 40, 0");
        EXPECT_EQ(classOf("c"), "Cls");
        EXPECT_EQ(attributes.Attributes, bits);
    }
}

/* The root, the flags and the level of what is logged. */
TEST_F(Open, RootsAndFailures) {
    const HANDLE root = at("");
    const auto fails = [](NTSTATUS status) { return std::vector<Fault>{{"ZwOpenKey", "a", status}}; };
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
        {fakeHandle(0xFFFFFFFF80000000), u"a", {}, 0, 6, "! Unrecognized handle 0xffffffff80000000, "},
        {fakeHandle(0x80000002), u"a", {}, 0, 6, "! ZwOpenKey 0XC0000008 20019, "},
        {root, u"new", {}, REG_CREATE, 0, ""},
        {root, u"a", fails(missing), 0, 2, "! ZwOpenKey missing 20019, "},
        {root, u"a", fails(missing), optional, 77, "(!) ZwOpenKey missing 20019, "},
        {root, u"a", fails(STATUS_OBJECT_PATH_NOT_FOUND), optional, 77, "(!) ZwOpenKey 0XC000003A 20019, "},
        {root, u"a", fails(denied), optional, 5, "! ZwOpenKey denied 20019, "},
        {root, u"a", fails(missing), REG_QUIET, 2, "(!) ZwOpenKey missing 20019, "},
        {root, u"a", fails(missing), taking, 2, "! ZwOpenKey missing 20019, "},
        {root, u"a", fails(STATUS_KEY_DELETED), optional | taking, 1018, "! ZwOpenKey 0XC000017C 20019, "},
        {root, u"a", {{"ZwCreateKey", "a", denied}}, REG_CREATE, 5, "! ZwCreateKey denied 20019, "},
    };
    // clang-format on
    for (const auto& row : rows) {
        refuse(row.faults);
        const std::string told = outcome(legend, [&] {
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
        uint32_t flags = 0; std::vector<Fault> faults = {}; const char* refused = ""; int token = 0;
    } rows[] = {
        {{}, !saves, put, "taking, open, 0"},
        {{}, saves, handedOver, "taking, open, 0"},
        {{no}, !saves, taken, "shut, taking, open, lost, 0"},
        {{no}, saves, taken, "shut, taking, open, lost, 0"},
        {{}, !saves, taken, "! RegGetKeySecurity 13, taking, open, lost, 0", 0,
         {{"RegGetKeySecurity", "a", 13}}},
        {{0, 0, 0, no}, saves, put, "taking, ! ZwOpenKey denied 20019, 5"},
        {{no, 0, 0, no}, saves, taken, "shut, taking, ! ZwOpenKey denied 20019, lost, 5"},
        {{0, 0, 0, 0, no}, !saves, taken, "taking, open, shut, lost, 0"},
        {{}, !saves, taken, "taking, open, ! RegSetKeySecurity 5, lost, 0", 0,
         {{"RegSetKeySecurity", "a", 5, 2}}},
        /* not taken, or half taken: nothing is put back */
        {{0, no}, !saves, put, "taking, ! ZwOpenKey denied 80000, open, 0"},
        {{0, 0, no}, saves, put, "taking, ! RegSetKeySecurity 13, ! ZwOpenKey denied 20019, 5", 0,
         {{"RegSetKeySecurity", "a", 13}}},
        {{0, 0, no}, saves, taken, "taking, ! ZwOpenKey denied 40000, open, 0"},
        {{}, !saves, taken, "taking, ! RegSetKeySecurity 13, open, 0", 0,
         {{"RegSetKeySecurity", "a", 13, 1}}},
        /* flags that hold for the first attempt alone */
        {{0, 0, 0, 0, no}, !saves, taken, "open, shut, lost, 0", REG_QUIET},
        {{0, 0, 0, no}, !saves, put, "! ZwOpenKey denied 20019, 5", REG_QUIET},
        {{0, 0, 0, missing}, !saves, put, "taking, ! ZwOpenKey missing 20019, 2", REG_IGNORE_MISSING},
        /* without a token, or its user */
        {{}, !saves, put, "taking, ! OpenProcessToken 1359, open, 0", 0, {}, "", 1},
        {{}, !saves, put, "taking, ! GetTokenInformation 998, CloseHandle 70, open, 0", 0, {}, "", 2},
        {{}, !saves, put, "taking, ! GetTokenInformation requested 89 bytes of buffer (88 allocated), "
         "CloseHandle 70, open, 0", 0, {}, "", 3},
        {{}, !saves, put, "taking, ! SetSecurityDescriptorOwner 998, open, 0", 0, {},
         "SetSecurityDescriptorOwner"},
    };
    // clang-format on
    UNICODE_STRING name = counted(u"a");
    const OBJECT_ATTRIBUTES attributes = regAttributesBelow(at(""), &name);
    const ByteVector parts = restorable("a");
    const Answers platform = answer;
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        describe("a", own);
        std::vector<Fault> faults = row.faults;
        faults.push_back({"ZwOpenKey", "a", denied, 0, 1});
        int counted = 0; /* opens that no fault before this one takes */
        for (const NTSTATUS status : row.opens) {
            if (status != 0)
                faults.push_back({"ZwOpenKey", "a", status, counted, 1});
            else
                counted++;
        }
        refuse(faults);
        refusal = {row.refused, 0, 998};
        if (row.token != 0)
            answerForToken(nullptr, TokenUser, row.token == 1 ? silently : 0, row.token == 2 ? 998 : 0,
                           row.token == 3 ? 89 : 88);
        memBuf secBuf = {};
        void* saved = &secBuf;
        const std::string told = outcome(legend, [&] {
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
        EXPECT_EQ(descriptor("a") == own, row.fate == put);
        answer = platform;
        refuse({});
        memBufFree(&secBuf);
    }
}

/* What regSetKeySec adds to an image that was read, and what regCopyKeySec reports. */
TEST_F(Open, DescriptorsOfOpenKeys) {
    const HANDLE key = at("a"), other = at("");
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
    memBuf buffer = {};
    const auto copy = [&] { return outcome(legend, [&] { return regCopyKeySec(key, other, &buffer); }); };
    EXPECT_EQ(copy(), "0");
    EXPECT_TRUE(descriptor("a") == openToAll() && buffer.size == openToAll().size());
    refuse({{"RegSetKeySecurity", "a", 19}});
    EXPECT_EQ(copy(), "! RegSetKeySecurity 19, 19");
    refuse({{"RegGetKeySecurity", "TEST", 6}});
    EXPECT_EQ(copy(), "! RegGetKeySecurity 6, 6");
    refuse({});
    memBufFree(&buffer);
    allocationsLeft = 0;
    EXPECT_EQ(copy().substr(0, 18), "ERROR ombraRealloc");
}

/* Owner, group and DACL are as they were afterwards, the old SID among them; values and the audit list are
 * rewritten. A key that refuses even to be read is treated all the same, but its descriptor can't be put
 * back; without the privilege to take ownership the scan ends there. */
TEST_F(Open, DescriptorsStay) {
    const ByteVector system = sid({18}), group = derived(oldSid, 513);
    const std::vector<Ace> audit = {{2, oldSid}}, denying = {{1, system}, {0, oldSid}}, shut = {{0, system}};
    const ByteVector refusing = image({administrators, group, denying, audit});
    const ByteVector unreadable = image({system, system, shut, audit});
    Legend told = {{"DEBUG regReplaceSIDInValues: Replaced old SID in value  ", ""},
                   {"INFO regReplaceSIDInValues: Found old SID in value  ", "found "},
                   {" (simulation mode)", ""},
                   {"INFO sidReplaceInKeySD: Found old SID in key SD", "found"},
                   {"DEBUG _regOpenCreateKey: Finally open a, access=0x2000f", "open"}};
    told.insert(told.end(), legend.begin(), legend.end());
    const struct {
        const ByteVector& descriptor;
        uint32_t flags;
        bool allowed; /* taking ownership */
        bool back;    /* the descriptor */
        int left;     /* old SIDs in it */
        const char* told;
    } rows[] = {
        {refusing, everything, true, true, 1, "taking, open, a\\v, a\\x\\v, 0"},
        {refusing, everything | SID_SIMULATE, true, true, 2,
         "taking, open, found a, found a\\v, found a\\x\\v, 0"},
        {unreadable, everything, true, false, 0, "shut, taking, open, lost, a\\v, a\\x\\v, 0"},
        {unreadable, everything, false, true, 1,
         "shut, taking, ! ZwOpenKey denied 80000, ! ZwOpenKey denied 2000f, 5"},
    };
    grow("k k\\a k\\a\\x");
    for (const auto& row : rows) {
        for (const char* path : {"k\\a", "k\\a\\x"}) set(path, "v", REG_BINARY, oldSid);
        describe("k\\a", row.descriptor);
        const ByteVector before = restorable("k\\a");
        const HANDLE key = at("k", 0x10E001F);
        check(true, row.allowed);
        const std::string line = outcome(told, [&] {
            return sidReplaceInKey(key, row.flags, nullptr, oldSid.data(), 24, newSid.data(), 24);
        });
        check(false);
        EXPECT_EQ(line, std::string("(!) ZwOpenKey denied 2000f, ") + row.told);
        EXPECT_EQ(restorable("k\\a") == before, row.back) << row.told;
        EXPECT_EQ(holds("k\\a", oldSid), row.left) << row.told;
        EXPECT_EQ(get("k\\a\\x", "v") == newSid, line.find(", a\\x\\v") != line.npos);
    }
}

} /* namespace */
} /* namespace offline */
