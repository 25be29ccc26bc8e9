#include <algorithm>
#include <cstring>

#include "sidchng/sid.h"
#include "tests/engine/scripted.h"

namespace {

/* The SAM's account value, and what its queries answer. */
struct Account {
    ByteVector value;
    DWORD type = REG_BINARY;
    LSTATUS probe = 0;
    LSTATUS read = 0;
    DWORD sizeAtRead = 0; /* what the second query hands back; 0: the value's */
    NTSTATUS open = 0;    /* of the key */
};

ByteVector accountValue(size_t size, uint32_t offset, uint32_t length = 24) {
    ByteVector value(size, 0xAA);
    memcpy(&value[12], &offset, 4);
    memcpy(&value[16], &length, 4);
    const size_t at = size_t{48} + offset;
    for (size_t i = 0; i < oldSid.size() && at + i < size; i++) value[at + i] = oldSid[i];
    return value;
}

/* With a machine SID of which one byte differs. */
ByteVector accountWith(size_t at, uint8_t byte) {
    ByteVector value = accountValue(72, 0);
    value[48 + at] = byte;
    return value;
}

void answerFor(const Account& account) {
    answer.ZwOpenKey = [&](PHANDLE key, ACCESS_MASK access, POBJECT_ATTRIBUTES attributes) {
        note("open %Ix %wZ %d", numberOf(attributes->RootDirectory), attributes->ObjectName, access);
        *key = fakeHandle(0x51);
        return account.open;
    };
    answer.RegQueryValueExW = [&](HKEY key, LPCWSTR name, LPDWORD, LPDWORD type, BYTE* data, LPDWORD size) {
        note("query %Ix %ws %d", numberOf(key), name, *size);
        *type = account.type;
        *size = static_cast<DWORD>(account.value.size());
        if (data == nullptr) return account.probe;
        if (account.read == 0) std::copy(account.value.begin(), account.value.end(), data);
        if (account.sizeAtRead != 0) *size = account.sizeAtRead;
        return account.read;
    };
    answer.RegCloseKey = [](HKEY key) {
        note("close %Ix", numberOf(key));
        return ERROR_SUCCESS;
    };
}

// clang-format off
const Legend legend = {
    {"open 5a Domains\\Account 1", "open"}, {"query 51 V 0", "probe"}, {"query 51 V", "read"},
    {"close 51", "close"}, {"ERROR sidGetMachineSID: ", "! "}, {"Win API call RegQueryValueEx returned ", ""},
    {" for Domains\\Account\\V", ""}, {"SAM data is invalid", "data"}, {"Machine SID is invalid", "SID"},
    {"ERROR _doOpenCreateKey: Native API call ZwOpenKey returned", "!"}};
// clang-format on

} /* namespace */

using SidValues = Scripted;

TEST_F(SidValues, MachineSidFromTheAccountValue) {
    // clang-format off
    const struct {
        const char* what; Account account; DWORD result;
        std::string road; /* after the opening of the key */
    } rows[] = {
        {"SID up to the last byte", {accountValue(72, 0)}, 0, "probe, read 72, close"},
        {"probe answered with 234", {accountValue(80, 8), REG_BINARY, 234}, 0, "probe, read 80, close"},
        {"47 bytes", {accountValue(47, 0)}, 13, "probe, ! data, close"},
        {"one byte past the end", {accountValue(80, 9)}, 13, "probe, read 80, ! data, close"},
        {"offset that wraps to the end", {accountValue(72, 0xFFFFFFE8)}, 13, "probe, read 72, ! data, close"},
        {"largest offset", {accountValue(72, 0xFFFFFFFF)}, 13, "probe, read 72, ! data, close"},
        {"length 25", {accountValue(100, 0, 25)}, 13, "probe, read 100, ! data, close"},
        {"another type", {accountValue(72, 0), REG_DWORD}, 13, "probe, ! data, close"},
        {"short at the read", {accountValue(90, 0), REG_BINARY, 0, 0, 9}, 13,
         "probe, read 90, ! data, close"},
        {"revision", {accountWith(0, 2)}, 13, "probe, read 72, ! SID, close"},
        {"three sub-authorities", {accountWith(1, 3)}, 13, "probe, read 72, ! SID, close"},
        {"authority", {accountWith(2, 1)}, 13, "probe, read 72, ! SID, close"},
        {"first sub-authority, last byte", {accountWith(11, 1)}, 13, "probe, read 72, ! SID, close"},
        {"probe fails", {accountValue(72, 0), REG_BINARY, 2}, 2, "probe, ! 2, close"},
        {"read gives 234", {accountValue(72, 0), REG_BINARY, 0, 234}, 234, "probe, read 72, ! 234, close"},
        {"no key", {{}, 0, 0, 0, 0, STATUS_OBJECT_NAME_NOT_FOUND}, 2,
         "! 0XC0000034 for Domains\\Account, access=0x1"},
    };
    // clang-format on
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        events.clear();
        answerFor(row.account);
        ByteVector machine(24, 0xEE);
        DWORD size = 24;
        EXPECT_EQ(sidGetMachineSID(fakeHandle(0x5A), machine.data(), &size), row.result);
        EXPECT_EQ(size, 24u);
        EXPECT_EQ(shortened(legend), "open, " + row.road);
        EXPECT_TRUE(row.result != 0 || machine == oldSid);
    }
    ByteVector machine(24);
    DWORD size = 23;
    EXPECT_EQ(sidGetMachineSID(fakeHandle(0x5A), machine.data(), &size), DWORD{ERROR_BUFFER_OVERFLOW});
    answerFor(rows[0].account);
    events.clear();
    allocationsLeft = 0;
    EXPECT_EQ(sidGetMachineSID(fakeHandle(0x5A), machine.data(), &size), DWORD{ERROR_NOT_ENOUGH_MEMORY});
    EXPECT_EQ(shortened(legend), "open, probe, ERROR ombraMalloc: failed to allocate 72 bytes, close");
}

TEST_F(SidValues, PairsThatCanBeReplaced) {
    const ByteVector nothing, small = sid({21}), five = derived(newSid, 7);
    const ByteVector revision = {2, 1, 0, 0, 0, 0, 0, 5, 21, 0, 0, 0},
                     authority = {1, 1, 0, 1, 0, 0, 0, 5, 21, 0, 0, 0};
    const struct {
        ByteVector old, now;
        uint32_t oldSize, nowSize;
        std::string refused; /* empty: a pair */
    } rows[] = {
        {oldSid, newSid, 24, 24, ""},
        {small, small, 12, 12, ""},
        {nothing, newSid, 24, 24, "null"},
        {oldSid, nothing, 24, 24, "null"},
        {sid({}), newSid, 8, 24, "Old SID too small (8 bytes)"},
        {oldSid, newSid, 24, 68, "New SID has invalid size (68, expected 24)"},
        {revision, newSid, 12, 24, "Old SID has invalid revision (2, expected 1)"},
        {oldSid, authority, 24, 12, "New SID has invalid authority"},
        {administrators, newSid, 16, 24, "Old SID has invalid subauthority (32, expected 21)"},
        {oldSid, five, 24, 28, "Incompatible SIDs (4 and 5 subauthorities)"},
    };
    for (const auto& row : rows) {
        events.clear();
        const int usable = sidCheckPair(row.old.data(), row.oldSize, row.now.data(), row.nowSize);
        EXPECT_EQ(usable, row.refused.empty() ? 1 : 0);
        const Legend functions = {{"ERROR _sidCheck: ", ""}, {"ERROR sidCheckPair: ", ""}};
        EXPECT_EQ(shortened(functions), row.refused == "null" ? "" : row.refused);
    }
}
