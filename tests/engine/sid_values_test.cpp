#include <algorithm>
#include <cstring>

#include "regtk/regtk.h"
#include "sidchng/sid.h"
#include "tests/engine/scripted.h"

namespace {

/* The SAM's account key, and what its calls answer. */
struct Account {
    NTSTATUS open = 0;
    LSTATUS probe = 0;
    LSTATUS read = 0;
    DWORD type = REG_BINARY;
    Bytes value = {};
    DWORD sizeAtRead = 0; /* what the second query hands back; 0: the value's */
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

/* A machine SID with one byte changed. */
Bytes machineWith(size_t at, uint8_t byte) {
    Bytes machine = oldSid;
    machine[at] = byte;
    return machine;
}

void answerFor(const Account& account) {
    answer.ZwOpenKey = [&](PHANDLE key, ACCESS_MASK access, POBJECT_ATTRIBUTES attributes) {
        note("ZwOpenKey %Ix %wZ %x", numberOf(attributes->RootDirectory), attributes->ObjectName, access);
        *key = fakeHandle(0x51);
        return account.open;
    };
    answer.RegQueryValueExW = [&](HKEY key, LPCWSTR name, LPDWORD, LPDWORD type, BYTE* data, LPDWORD size) {
        note("RegQueryValueExW %Ix %ws %d", numberOf(key), name, *size);
        *type = account.type;
        if (data != nullptr && account.read == 0) std::copy(account.value.begin(), account.value.end(), data);
        *size = static_cast<DWORD>(account.value.size());
        if (data != nullptr && account.sizeAtRead != 0) *size = account.sizeAtRead;
        return data == nullptr ? account.probe : account.read;
    };
    answer.RegCloseKey = [](HKEY key) {
        note("RegCloseKey %Ix", numberOf(key));
        return ERROR_SUCCESS;
    };
}

const char opening[] = "ZwOpenKey 5a Domains\\Account 1";
const char probing[] = "RegQueryValueExW 51 V 0";
const char closing[] = "RegCloseKey 51";
const char badData[] = "ERROR sidGetMachineSID: SAM data is invalid";
const char badSid[] = "ERROR sidGetMachineSID: Machine SID is invalid";
const char failed[] =
    "ERROR sidGetMachineSID: Win API call RegQueryValueEx returned %d for Domains\\Account\\V";

} /* namespace */

using SidValues = Scripted;

TEST_F(SidValues, MachineSidFromTheAccountValue) {
    const struct {
        const char* name;
        Account account;
        DWORD result;
        Events lines;
    } rows[] = {
        {"SID up to the last byte", {.value = accountValue(72, 0)}, 0, {}},
        {"SID inside", {.value = accountValue(100, 7)}, 0, {}},
        {"probe answered with 234", {.probe = ERROR_MORE_DATA, .value = accountValue(80, 8)}, 0, {}},
        {"empty", {.value = {}}, 13, {badData}},
        {"47 bytes", {.value = accountValue(47, 0)}, 13, {badData}},
        {"48 bytes", {.value = accountValue(48, 0)}, 13, {badData}},
        {"71 bytes", {.value = accountValue(71, 0)}, 13, {badData}},
        {"one byte past the end", {.value = accountValue(80, 9)}, 13, {badData}},
        {"an offset back to the header", {.value = accountValue(72, 0xFFFFFFD0)}, 13, {badData}},
        {"an offset that wraps to the end", {.value = accountValue(72, 0xFFFFFFE8)}, 13, {badData}},
        {"the largest offset", {.value = accountValue(72, 0xFFFFFFFF)}, 13, {badData}},
        {"length 23", {.value = accountValue(100, 0, 23)}, 13, {badData}},
        {"length 25", {.value = accountValue(100, 0, 25)}, 13, {badData}},
        {"another type", {.type = REG_DWORD, .value = accountValue(72, 0)}, 13, {badData}},
        {"shorter at the read", {.value = accountValue(100, 0), .sizeAtRead = 71}, 13, {badData}},
        {"too short at the read", {.value = accountValue(100, 0), .sizeAtRead = 12}, 13, {badData}},
        {"revision", {.value = accountValue(72, 0, 24, machineWith(0, 2))}, 13, {badSid}},
        {"three sub-authorities", {.value = accountValue(72, 0, 24, machineWith(1, 3))}, 13, {badSid}},
        {"five sub-authorities", {.value = accountValue(72, 0, 24, machineWith(1, 5))}, 13, {badSid}},
        {"authority 1", {.value = accountValue(72, 0, 24, machineWith(7, 1))}, 13, {badSid}},
        {"authority, first byte", {.value = accountValue(72, 0, 24, machineWith(2, 1))}, 13, {badSid}},
        {"first sub-authority", {.value = accountValue(72, 0, 24, machineWith(8, 20))}, 13, {badSid}},
        {"its last byte", {.value = accountValue(72, 0, 24, machineWith(11, 1))}, 13, {badSid}},
        {"probe fails", {.probe = 2, .value = accountValue(72, 0)}, 2, {text(failed, 2)}},
        {"read fails", {.read = 5, .value = accountValue(72, 0)}, 5, {text(failed, 5)}},
        {"read gives 234", {.read = 234, .value = accountValue(72, 0)}, 234, {text(failed, 234)}},
    };
    for (const auto& row : rows) {
        for (const DWORD capacity : {24u, 68u}) {
            SCOPED_TRACE(row.name);
            SetUp();
            answerFor(row.account);
            Bytes machine(24, 0xEE); /* a heap block of exactly this size */
            DWORD size = capacity;
            EXPECT_EQ(sidGetMachineSID(fakeHandle(0x5A), machine.data(), &size), row.result);
            EXPECT_EQ(size, 24u);
            EXPECT_EQ(logLines(), row.lines);
            if (row.result == 0) {
                EXPECT_EQ(machine, oldSid);
            }
            ASSERT_GE(events.size(), 3u);
            EXPECT_EQ(events[0], opening);
            EXPECT_EQ(events[1], probing);
            EXPECT_EQ(events.back(), closing);
        }
    }
}

TEST_F(SidValues, MachineSidWithoutAValueToLookAt) {
    Account account = {.open = STATUS_OBJECT_NAME_NOT_FOUND, .value = accountValue(72, 0)};
    answerFor(account);
    Bytes machine(24, 0xEE);
    DWORD size = 23;
    EXPECT_EQ(sidGetMachineSID(fakeHandle(0x5A), machine.data(), &size), DWORD{ERROR_BUFFER_OVERFLOW});
    EXPECT_EQ(size, 24u);
    EXPECT_EQ(events, Events{});

    EXPECT_EQ(sidGetMachineSID(fakeHandle(0x5A), machine.data(), &size), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(size, 24u);
    const Events refused = {opening,
                            "ERROR _doOpenCreateKey: Native API call ZwOpenKey returned 0XC0000034 for "
                            "Domains\\Account, access=0x1"};
    EXPECT_EQ(events, refused);

    events.clear();
    account.open = 0;
    allocationsLeft = 0;
    EXPECT_EQ(sidGetMachineSID(fakeHandle(0x5A), machine.data(), &size), DWORD{ERROR_NOT_ENOUGH_MEMORY});
    EXPECT_EQ(size, 24u);
    const Events noMemory = {opening, probing, "ERROR ombraMalloc: failed to allocate 72 bytes", closing};
    EXPECT_EQ(events, noMemory);
    EXPECT_EQ(machine, Bytes(24, 0xEE));
}

TEST_F(SidValues, RandomSidTakesTwelveBytesOfTheUuid) {
    RPC_STATUS status = RPC_S_OK;
    answer.UuidCreate = [&](UUID* uuid) {
        for (uint8_t i = 0; i < 16; i++) reinterpret_cast<uint8_t*>(uuid)[i] = static_cast<uint8_t>(0xF0 + i);
        return status;
    };
    const Bytes expected = {1,    4,    0,    0,    0,    0,    0,    5,    21,   0,    0,    0,
                            0xF0, 0xF1, 0xF2, 0xF3, 0xF4, 0xF5, 0xF6, 0xF7, 0xF8, 0xF9, 0xFA, 0xFB};
    for (const RPC_STATUS good : {RPC_S_OK, RPC_S_UUID_LOCAL_ONLY}) {
        for (const DWORD capacity : {24u, 68u}) {
            status = good;
            Bytes made(24, 0xEE);
            DWORD size = capacity;
            EXPECT_EQ(sidCreateRandom(made.data(), &size), 0u);
            EXPECT_EQ(size, 24u);
            EXPECT_EQ(made, expected);
            EXPECT_EQ(sidCheckPair(oldSid.data(), 24, made.data(), size), 1);
        }
    }
    EXPECT_EQ(events, Events{});

    Bytes made(24, 0xEE);
    DWORD size = 68;
    status = 14;
    EXPECT_EQ(sidCreateRandom(made.data(), &size), 14u);
    EXPECT_EQ(size, 24u);
    EXPECT_EQ(events, Events{"ERROR sidCreateRandom: Win API call UuidCreate returned 14"});
    answer.UuidCreate = nullptr;
    size = 23;
    EXPECT_EQ(sidCreateRandom(made.data(), &size), DWORD{ERROR_BUFFER_OVERFLOW});
    EXPECT_EQ(size, 24u);
    EXPECT_EQ(made, Bytes(24, 0xEE));
}

TEST_F(SidValues, PairsThatCanBeReplaced) {
    const Bytes nothing;
    const Bytes small = sid({21});
    const Bytes five = derived(newSid, 7);
    Bytes otherAuthority = oldSid;
    otherAuthority[3] = 1;
    Bytes otherRevision = oldSid;
    otherRevision[0] = 2;
    const struct {
        Bytes old;
        uint32_t oldSize;
        Bytes now;
        uint32_t nowSize;
        int result;
        Events lines;
    } rows[] = {
        {oldSid, 24, newSid, 24, 1, {}},
        {small, 12, small, 12, 1, {}},
        {five, 28, five, 28, 1, {}},
        {nothing, 24, newSid, 24, 0, {}},
        {oldSid, 24, nothing, 24, 0, {}},
        {sid({}), 8, newSid, 24, 0, {"ERROR _sidCheck: Old SID too small (8 bytes)"}},
        {oldSid, 24, newSid, 11, 0, {"ERROR _sidCheck: New SID too small (11 bytes)"}},
        {oldSid, 28, newSid, 20, 0, {"ERROR _sidCheck: Old SID has invalid size (28, expected 24)"}},
        {oldSid, 24, newSid, 68, 0, {"ERROR _sidCheck: New SID has invalid size (68, expected 24)"}},
        {otherRevision, 24, newSid, 24, 0, {"ERROR _sidCheck: Old SID has invalid revision (2, expected 1)"}},
        {oldSid, 24, otherAuthority, 24, 0, {"ERROR _sidCheck: New SID has invalid authority"}},
        {administrators,
         16,
         newSid,
         24,
         0,
         {"ERROR _sidCheck: Old SID has invalid subauthority (32, expected 21)"}},
        {oldSid, 24, five, 28, 0, {"ERROR sidCheckPair: Incompatible SIDs (4 and 5 subauthorities)"}},
        {five, 28, small, 12, 0, {"ERROR sidCheckPair: Incompatible SIDs (5 and 1 subauthorities)"}},
    };
    for (const auto& row : rows) {
        events.clear();
        EXPECT_EQ(sidCheckPair(row.old.data(), row.oldSize, row.now.data(), row.nowSize), row.result);
        EXPECT_EQ(events, row.lines);
    }
}
