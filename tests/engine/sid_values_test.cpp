#include <algorithm>
#include <cstring>

#include "regtk/regtk.h"
#include "sidchng/sid.h"
#include "tests/engine/scripted.h"

namespace {

/* The SAM's account value, and what its queries answer. */
struct Account {
    Bytes value;
    DWORD type = REG_BINARY;
    LSTATUS probe = 0;
    LSTATUS read = 0;
    DWORD sizeAtRead = 0; /* what the second query hands back; 0: the value's */
    NTSTATUS open = 0;    /* of the key */
};

Bytes accountValue(size_t size, uint32_t offset, uint32_t length = 24, const Bytes& machine = oldSid) {
    Bytes value(size, 0xAA);
    if (size >= 20) {
        memcpy(&value[12], &offset, 4);
        memcpy(&value[16], &length, 4);
    }
    const size_t at = size_t{48} + offset;
    for (size_t i = 0; i < machine.size() && at + i < size; i++) value[at + i] = machine[i];
    return value;
}

/* With a machine SID of which one byte differs. */
Bytes accountWith(size_t at, uint8_t byte) {
    Bytes machine = oldSid;
    machine[at] = byte;
    return accountValue(72, 0, 24, machine);
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

const Legend legend = {{"open 5a Domains\\Account 1", "open"},
                       {"query 51 V 0", "probe"},
                       {"query 51 V", "read"},
                       {"close 51", "close"},
                       {"ERROR sidGetMachineSID: ", "! "},
                       {"Win API call RegQueryValueEx returned ", ""},
                       {" for Domains\\Account\\V", ""},
                       {"SAM data is invalid", "data"},
                       {"Machine SID is invalid", "SID"}};

} /* namespace */

using SidValues = Scripted;

TEST_F(SidValues, MachineSidFromTheAccountValue) {
    const struct {
        const char* name;
        Bytes value;
        DWORD result;
        std::string road; /* between opening and closing the key */
        DWORD type = REG_BINARY;
        LSTATUS probe = 0, read = 0;
        DWORD sizeAtRead = 0;
    } rows[] = {
        {"SID up to the last byte", accountValue(72, 0), 0, "probe, read 72"},
        {"probe answered with 234", accountValue(80, 8), 0, "probe, read 80", REG_BINARY, 234},
        {"empty", {}, 13, "probe, ! data"},
        {"47 bytes", accountValue(47, 0), 13, "probe, ! data"},
        {"48 bytes", accountValue(48, 0), 13, "probe, read 48, ! data"},
        {"71 bytes", accountValue(71, 0), 13, "probe, read 71, ! data"},
        {"one byte past the end", accountValue(80, 9), 13, "probe, read 80, ! data"},
        {"offset that wraps to the end", accountValue(72, 0xFFFFFFE8), 13, "probe, read 72, ! data"},
        {"largest offset", accountValue(72, 0xFFFFFFFF), 13, "probe, read 72, ! data"},
        {"length 23", accountValue(100, 0, 23), 13, "probe, read 100, ! data"},
        {"length 25", accountValue(100, 0, 25), 13, "probe, read 100, ! data"},
        {"another type", accountValue(72, 0), 13, "probe, ! data", REG_DWORD},
        {"too short at the read", accountValue(90, 0), 13, "probe, read 90, ! data", REG_BINARY, 0, 0, 9},
        {"revision", accountWith(0, 2), 13, "probe, read 72, ! SID"},
        {"three sub-authorities", accountWith(1, 3), 13, "probe, read 72, ! SID"},
        {"authority 1", accountWith(7, 1), 13, "probe, read 72, ! SID"},
        {"authority, first byte", accountWith(2, 1), 13, "probe, read 72, ! SID"},
        {"first sub-authority", accountWith(8, 20), 13, "probe, read 72, ! SID"},
        {"first sub-authority, last byte", accountWith(11, 1), 13, "probe, read 72, ! SID"},
        {"probe fails", accountValue(72, 0), 2, "probe, ! 2", REG_BINARY, 2},
        {"read fails", accountValue(72, 0), 5, "probe, read 72, ! 5", REG_BINARY, 0, 5},
        {"read gives 234", accountValue(72, 0), 234, "probe, read 72, ! 234", REG_BINARY, 0, 234},
    };
    for (const auto& row : rows) {
        for (const DWORD capacity : {24u, 68u}) {
            SCOPED_TRACE(row.name);
            events.clear();
            const Account account = {row.value, row.type, row.probe, row.read, row.sizeAtRead};
            answerFor(account);
            Bytes machine(24, 0xEE);
            DWORD size = capacity;
            EXPECT_EQ(sidGetMachineSID(fakeHandle(0x5A), machine.data(), &size), row.result);
            EXPECT_EQ(size, 24u);
            EXPECT_EQ(shortened(legend), "open, " + row.road + ", close");
            EXPECT_TRUE(row.result != 0 || machine == oldSid);
        }
    }
}

TEST_F(SidValues, MachineSidWithoutAValueToLookAt) {
    Account account = {accountValue(72, 0), REG_BINARY, 0, 0, 0, STATUS_OBJECT_NAME_NOT_FOUND};
    answerFor(account);
    Bytes machine(24, 0xEE);
    DWORD size = 23;
    const auto get = [&] {
        events.clear();
        const DWORD result = sidGetMachineSID(fakeHandle(0x5A), machine.data(), &size);
        EXPECT_EQ(size, 24u);
        EXPECT_EQ(machine, Bytes(24, 0xEE));
        return result;
    };
    EXPECT_EQ(get(), DWORD{ERROR_BUFFER_OVERFLOW});
    EXPECT_EQ(events, Events{});
    EXPECT_EQ(get(), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(
        shortened(legend),
        "open, ERROR _doOpenCreateKey: Native API call ZwOpenKey returned 0XC0000034 for Domains\\Account, "
        "access=0x1");
    account.open = STATUS_SUCCESS;
    allocationsLeft = 0;
    EXPECT_EQ(get(), DWORD{ERROR_NOT_ENOUGH_MEMORY});
    EXPECT_EQ(shortened(legend), "open, probe, ERROR ombraMalloc: failed to allocate 72 bytes, close");
}

TEST_F(SidValues, RandomSidTakesTwelveBytesOfTheUuid) {
    RPC_STATUS status = RPC_S_OK;
    answer.UuidCreate = [&](UUID* uuid) {
        for (uint8_t i = 0; i < 16; i++) reinterpret_cast<uint8_t*>(uuid)[i] = static_cast<uint8_t>(0xF0 + i);
        return status;
    };
    const Bytes expected = sid({21, 0xF3F2F1F0, 0xF7F6F5F4, 0xFBFAF9F8});
    const Bytes untouched(24, 0xEE);
    const struct {
        RPC_STATUS status;
        DWORD capacity, result;
    } rows[] = {{0, 24, 0}, {RPC_S_UUID_LOCAL_ONLY, 68, 0}, {14, 68, 14}, {0, 23, ERROR_BUFFER_OVERFLOW}};
    for (const auto& row : rows) {
        status = row.status;
        Bytes made = untouched;
        DWORD size = row.capacity;
        EXPECT_EQ(sidCreateRandom(made.data(), &size), row.result);
        EXPECT_EQ(size, 24u);
        EXPECT_EQ(made, row.result == 0 ? expected : untouched);
        EXPECT_EQ(sidCheckPair(oldSid.data(), 24, expected.data(), size), 1);
    }
    EXPECT_EQ(events, Events{"ERROR sidCreateRandom: Win API call UuidCreate returned 14"});
}

TEST_F(SidValues, PairsThatCanBeReplaced) {
    const Bytes nothing, small = sid({21}), five = derived(newSid, 7);
    Bytes authority = oldSid, revision = oldSid;
    authority[3] = 1;
    revision[0] = 2;
    const struct {
        Bytes old, now;
        uint32_t oldSize, nowSize;
        std::string refused; /* empty: a pair */
    } rows[] = {
        {oldSid, newSid, 24, 24, ""},
        {small, small, 12, 12, ""},
        {five, five, 28, 28, ""},
        {nothing, newSid, 24, 24, "null"},
        {oldSid, nothing, 24, 24, "null"},
        {sid({}), newSid, 8, 24, "Old SID too small (8 bytes)"},
        {oldSid, newSid, 24, 11, "New SID too small (11 bytes)"},
        {oldSid, newSid, 28, 20, "Old SID has invalid size (28, expected 24)"},
        {oldSid, newSid, 24, 68, "New SID has invalid size (68, expected 24)"},
        {revision, newSid, 24, 24, "Old SID has invalid revision (2, expected 1)"},
        {oldSid, authority, 24, 24, "New SID has invalid authority"},
        {administrators, newSid, 16, 24, "Old SID has invalid subauthority (32, expected 21)"},
        {oldSid, five, 24, 28, "Incompatible SIDs (4 and 5 subauthorities)"},
        {five, small, 28, 12, "Incompatible SIDs (5 and 1 subauthorities)"},
    };
    for (const auto& row : rows) {
        events.clear();
        const int usable = sidCheckPair(row.old.data(), row.oldSize, row.now.data(), row.nowSize);
        EXPECT_EQ(usable, row.refused.empty() ? 1 : 0);
        const Legend functions = {{"ERROR _sidCheck: ", ""}, {"ERROR sidCheckPair: Inc", "Inc"}};
        EXPECT_EQ(shortened(functions), row.refused == "null" ? "" : row.refused);
    }
}
