/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "tests/support/small_system.h"

namespace offline {
namespace {

struct SidValues : SmallSystem {};

/* The account's value, with the SID of this text at an offset of its variable area. */
ByteVector account(size_t size, uint32_t offset, const std::string& sid = oldText, uint32_t length = 24) {
    ByteVector value(size, 0xAA);
    const ByteVector bytes = sidFromText(sid);
    memcpy(&value[12], &offset, 4);
    memcpy(&value[16], &length, 4);
    for (size_t i = 0; i < bytes.size() && size_t{48} + offset + i < size; i++)
        value[48 + offset + i] = bytes[i];
    return value;
}

ByteVector revisionTwo() {
    ByteVector value = account(72, 0);
    value[48] = 2;
    return value;
}

TEST_F(SidValues, MachineSidFromTheAccountValue) {
    const std::string data = "! SAM data is invalid, 13", machine = "! Machine SID is invalid, 13";
    // clang-format off
    const struct {
        const char* what; ByteVector value; std::string expected = "0";
        ULONG type = REG_BINARY; std::vector<Fault> faults = {};
        LSTATUS probe = 0;      /* what the first query gives after all */
        DWORD sizeAtRead = 0;   /* what the second one hands back */
    } rows[] = {
        {.what = "up to the last byte", .value = account(72, 0)},
        {.what = "probe answered with 234", .value = account(80, 8), .probe = ERROR_MORE_DATA},
        {.what = "47 bytes", .value = ByteVector(47), .expected = data},
        {.what = "one byte past the end", .value = account(80, 9), .expected = data},
        {.what = "wraps to the end", .value = account(72, 0xFFFFFFE8), .expected = data},
        {.what = "length 25", .value = account(100, 0, oldText, 25), .expected = data},
        {.what = "another type", .value = account(72, 0), .expected = data, .type = REG_SZ},
        {.what = "short at the read", .value = account(90, 0), .expected = data, .sizeAtRead = 9},
        {.what = "revision", .value = revisionTwo(), .expected = machine},
        {.what = "three numbers", .value = account(72, 0, "S-1-5-21-100-200"), .expected = machine},
        {.what = "authority", .value = account(72, 0, "S-1-6-21-100-200-300"), .expected = machine},
        {.what = "first number", .value = account(72, 0, "S-1-5-277-100-200-300"), .expected = machine},
        {.what = "no value", .value = {}, .expected = "! RegQueryValueEx 2 for Domains\\Account\\V, 2",
         .faults = {{"RegQueryValueExW", "", 2}}},
        {.what = "read fails", .value = account(72, 0),
         .expected = "! RegQueryValueEx 234 for Domains\\Account\\V, 234",
         .faults = {{"RegQueryValueExW", "", 234, 1}}},
        {.what = "no key", .value = account(72, 0),
         .expected = "! ZwOpenKey 0XC0000034 for Domains\\Account, access=0x1, 2",
         .faults = {{"ZwOpenKey", "Account", STATUS_OBJECT_NAME_NOT_FOUND}}},
    };
    // clang-format on
    const Legend legend = {{"ERROR sidGetMachineSID: ", "! "},
                           {"ERROR _doOpenCreateKey: Native API call ", "! "},
                           {"Win API call ", ""},
                           {" returned", ""}};
    grow("Domains Domains\\Account");
    const HANDLE sam = at("");
    ByteVector found(24);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        set("Domains\\Account", "V", row.type, row.value);
        beginWatching();
        faults = row.faults;
        answer.RegQueryValueExW = [&](HKEY key, LPCWSTR name, LPDWORD reserved, LPDWORD type, BYTE* out,
                                      LPDWORD size) {
            const LSTATUS error = platform.RegQueryValueExW(key, name, reserved, type, out, size);
            if (out != nullptr && row.sizeAtRead != 0) *size = row.sizeAtRead;
            return out == nullptr && error == 0 ? row.probe : error;
        };
        DWORD size = 24;
        EXPECT_EQ(outcome(legend, [&] { return sidGetMachineSID(sam, found.data(), &size); }), row.expected);
        EXPECT_TRUE(row.expected != "0" || found == oldSid);
        EXPECT_EQ(size, 24u);
    }
    beginWatching();
    allocationsLeft = 0;
    DWORD size = 24;
    EXPECT_EQ(sidGetMachineSID(sam, found.data(), &size), DWORD{ERROR_NOT_ENOUGH_MEMORY});
    size = 23;
    EXPECT_EQ(sidGetMachineSID(sam, found.data(), &size), DWORD{ERROR_BUFFER_OVERFLOW});
    EXPECT_EQ(size, 24u);
}

TEST_F(SidValues, PairsThatCanBeReplaced) {
    const ByteVector small = sidFromText("S-1-5-21"), five = sidFromText(newText + "-7");
    const ByteVector administrators = sidFromText(admins), noNumber = {1, 0, 0, 0, 0, 0, 0, 5};
    const ByteVector revision = {2, 1, 0, 0, 0, 0, 0, 5, 21, 0, 0, 0};
    const struct {
        ByteVector old, now;
        std::string refused; /* empty: a pair */
        uint32_t nowSize = 24;
    } rows[] = {
        {oldSid, newSid, ""},
        {small, small, "", 12},
        {oldSid, {}, "null"},
        {noNumber, newSid, "_sidCheck: Old SID too small (8 bytes)"},
        {oldSid, newSid, "_sidCheck: New SID has invalid size (68, expected 24)", 68},
        {revision, newSid, "_sidCheck: Old SID has invalid revision (2, expected 1)"},
        {oldSid, sidFromText("S-1-6-21"), "_sidCheck: New SID has invalid authority", 12},
        {administrators, newSid, "_sidCheck: Old SID has invalid subauthority (32, expected 21)"},
        {oldSid, five, "sidCheckPair: Incompatible SIDs (4 and 5 subauthorities)", 28},
    };
    for (const auto& row : rows) {
        events.clear();
        const auto size = static_cast<uint32_t>(row.old.size());
        EXPECT_EQ(sidCheckPair(row.old.data(), size, row.now.data(), row.nowSize),
                  row.refused.empty() ? 1 : 0);
        EXPECT_EQ(shortened({{"ERROR ", ""}}), row.refused == "null" ? "" : row.refused);
    }
}

} /* namespace */
} /* namespace offline */
