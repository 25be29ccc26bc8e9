/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Reading keys and values into buffers of every size. */
#include "tests/support/small_system.h"

namespace offline {
namespace {

using QueryTest = SmallSystem;

/* Asks with every size from 0 to the full one and beyond, into a buffer of odd address: statuses, the length
 * word, and that just the head of the record is written. Gives the record. */
template <typename Query, typename... Arguments>
std::vector<uint8_t> everySize(ULONG fixedPart, Query query, Arguments... arguments) {
    ULONG total = 0;
    EXPECT_EQ(query(arguments..., nullptr, 0, &total), STATUS_BUFFER_TOO_SMALL);
    const ULONG whole = total;
    std::vector<uint8_t> record(whole + 1);
    EXPECT_EQ(query(arguments..., record.data() + 1, whole, &total), STATUS_SUCCESS);
    for (ULONG size = 0; size <= whole + 4; size++) {
        std::vector<uint8_t> buffer(whole + 8);
        total = 0;
        const NTSTATUS status = query(arguments..., buffer.data() + 1, size, &total);
        const NTSTATUS shortStatus = size < fixedPart ? STATUS_BUFFER_TOO_SMALL : STATUS_BUFFER_OVERFLOW;
        EXPECT_EQ(status, size < whole ? shortStatus : STATUS_SUCCESS) << size;
        EXPECT_EQ(total, whole);
        std::vector<uint8_t> expected(whole + 8);
        if (size >= fixedPart) memcpy(expected.data() + 1, record.data() + 1, std::min(size, whole));
        EXPECT_EQ(buffer, expected) << size;
    }
    return {record.begin() + 1, record.end()};
}

template <typename Record>
Record head(const std::vector<uint8_t>& record) {
    Record fixed{};
    memcpy(&fixed, record.data(), std::min(sizeof fixed, record.size()));
    return fixed;
}

std::u16string textAt(const std::vector<uint8_t>& record, size_t at, size_t bytes) {
    if (at + bytes > record.size()) return u"outside";
    std::u16string text(bytes / sizeof(char16_t), 0);
    memcpy(text.data(), record.data() + at, bytes);
    return text;
}

TEST_F(QueryTest, KeyRecordsGrow) {
    create(u"Key", {.className = u"Klasse"});
    HANDLE key = open(u"KEY");
    HANDLE root = open(u"");
    const auto basic = everySize(16, ZwEnumerateKey, root, 0u, KeyBasicInformation);
    EXPECT_EQ(textAt(basic, 16, head<KEY_BASIC_INFORMATION>(basic).NameLength), u"Key");
    EXPECT_GT(head<KEY_BASIC_INFORMATION>(basic).LastWriteTime.QuadPart, 130000000000000000);
    EXPECT_EQ(everySize(16, ZwQueryKey, key, KeyBasicInformation), basic);
    const auto node = everySize(24, ZwQueryKey, key, KeyNodeInformation);
    const auto fixed = head<KEY_NODE_INFORMATION>(node);
    EXPECT_EQ(textAt(node, 24, fixed.NameLength), u"Key");
    EXPECT_EQ(textAt(node, 32, fixed.ClassLength), u"Klasse");
    EXPECT_EQ(fixed.ClassOffset, 32u);
    EXPECT_EQ(everySize(24, ZwEnumerateKey, root, 0u, KeyNodeInformation), node);
    const auto bare = everySize(24, ZwQueryKey, root, KeyNodeInformation);
    EXPECT_EQ(head<KEY_NODE_INFORMATION>(bare).ClassOffset, 0xFFFFFFFF);
    EXPECT_EQ(head<KEY_NODE_INFORMATION>(bare).ClassLength, 0u);
    EXPECT_EQ(textAt(bare, 24, bare.size() - 24), u"TEST"); /* not what the file calls its root */
    HANDLE link = create(u"Link", {.options = REG_OPTION_CREATE_LINK});
    for (HANDLE one : {key, link}) {
        const auto flags = everySize(12, ZwQueryKey, one, KeyFlagsInformation);
        EXPECT_EQ(head<KEY_FLAGS_INFORMATION>(flags).KeyFlags, one == link ? REG_FLAG_LINK : 0u);
    }
    ULONG length = 0;
    EXPECT_EQ(ZwEnumerateKey(root, 0, KeyFlagsInformation, &length, 4, &length), STATUS_INVALID_PARAMETER);
}

TEST_F(QueryTest, ValueRecordsGrow) {
    HANDLE key = create(u"key");
    ASSERT_EQ(setText(key, u"Größe", REG_SZ, u"neun Zehntel"), STATUS_SUCCESS);
    ASSERT_EQ(setText(key, u"", 0x12345, u""), STATUS_SUCCESS);
    ASSERT_EQ(setText(key, u"größe", REG_EXPAND_SZ, u"ein Zehntel"), STATUS_SUCCESS);
    UNICODE_STRING name = counted(u"GRÖßE");
    const auto partial = everySize(12, ZwQueryValueKey, key, &name, KeyValuePartialInformation);
    EXPECT_EQ(head<KEY_VALUE_PARTIAL_INFORMATION>(partial).Type, REG_EXPAND_SZ);
    EXPECT_EQ(textAt(partial, 12, head<KEY_VALUE_PARTIAL_INFORMATION>(partial).DataLength), u"ein Zehntel");
    EXPECT_EQ(everySize(12, ZwEnumerateValueKey, key, 0u, KeyValuePartialInformation), partial);
    const auto whole = everySize(20, ZwEnumerateValueKey, key, 0u, KeyValueFullInformation);
    const auto fixed = head<KEY_VALUE_FULL_INFORMATION>(whole);
    EXPECT_EQ(textAt(whole, 20, fixed.NameLength), u"Größe");
    EXPECT_EQ(fixed.DataOffset, 32u);
    EXPECT_EQ(textAt(whole, 32, fixed.DataLength), u"ein Zehntel");
    const auto empty = everySize(20, ZwEnumerateValueKey, key, 1u, KeyValueFullInformation);
    EXPECT_EQ(empty.size(), 20u);
    EXPECT_EQ(head<KEY_VALUE_FULL_INFORMATION>(empty).Type, 0x12345u);
}

TEST_F(QueryTest, WhatIsMissingOrOddIsRefused) {
    HANDLE key = create(u"key");
    char buffer[64];
    ULONG length = 0;
    EXPECT_EQ(ZwEnumerateValueKey(key, 0, KeyValueFullInformation, buffer, 64, &length),
              STATUS_NO_MORE_ENTRIES);
    EXPECT_EQ(ZwQueryKey(key, KeyBasicInformation, nullptr, 64, &length), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(setText(key, std::u16string(16383, u'v'), REG_SZ, u""), STATUS_SUCCESS);
    EXPECT_EQ(setText(key, std::u16string(16384, u'v'), REG_SZ, u""), STATUS_INVALID_PARAMETER);
}

TEST_F(QueryTest, Win32Values) {
    const auto key = asHkey(create(u"key"));
    const char16_t text[] = u"text";
    ASSERT_EQ(setText(key, u"cut", REG_SZ, u"text"), STATUS_SUCCESS); /* without its end */
    ASSERT_EQ(RegSetValueExW(key, nullptr, 0, REG_BINARY, reinterpret_cast<const BYTE*>(text), 8),
              ERROR_SUCCESS);
    for (const char16_t* name : {u"CUT", static_cast<const char16_t*>(nullptr)}) {
        const DWORD expectedType = name == nullptr ? REG_BINARY : REG_SZ;
        for (DWORD room = 0; room <= 12; room++) {
            char16_t out[6] = {9, 9, 9, 9, 9, 9};
            DWORD size = room;
            DWORD type = 99;
            const LSTATUS code =
                RegQueryValueExW(key, name, nullptr, &type, reinterpret_cast<BYTE*>(out), &size);
            EXPECT_EQ(code, room < 8 ? ERROR_MORE_DATA : ERROR_SUCCESS);
            EXPECT_EQ(size, 8u);
            EXPECT_EQ(type, expectedType);
            EXPECT_EQ(memcmp(out, text, 8) == 0, room >= 8);
            EXPECT_EQ(out[4] == 0, room >= 10 && type == REG_SZ); /* an end is set where there is room */
        }
    }
    DWORD size = 0;
    EXPECT_EQ(RegQueryValueExW(key, u"cut", nullptr, nullptr, nullptr, &size), ERROR_SUCCESS);
    EXPECT_EQ(size, 8u);
    EXPECT_EQ(RegQueryValueExW(key, u"none", nullptr, nullptr, nullptr, &size), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(RegQueryValueExW(key, u"cut", &size, nullptr, nullptr, &size), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(RegDeleteValueW(key, u"CUT"), ERROR_SUCCESS);
    EXPECT_EQ(RegDeleteValueW(key, u"cut"), ERROR_FILE_NOT_FOUND);
    HKEY readable = nullptr;
    ASSERT_EQ(RegOpenKeyExW(key, nullptr, 0, KEY_QUERY_VALUE, &readable), ERROR_SUCCESS);
    EXPECT_EQ(RegDeleteValueW(readable, nullptr), ERROR_ACCESS_DENIED);
    EXPECT_EQ(RegCloseKey(readable), ERROR_SUCCESS);
    EXPECT_EQ(RegDeleteValueW(key, nullptr), ERROR_SUCCESS);
}

TEST_F(QueryTest, Win32Enumeration) {
    create(u"four");
    const auto root = asHkey(open(u""));
    WCHAR name[8] = {};
    const auto enumerate = [&](HKEY key, DWORD index, DWORD& length) {
        return RegEnumKeyExW(key, index, name, &length, nullptr, nullptr, nullptr, nullptr);
    };
    for (DWORD room = 0; room <= 6; room++) {
        DWORD length = room;
        EXPECT_EQ(enumerate(root, 0, length), room < 5 ? ERROR_MORE_DATA : ERROR_SUCCESS);
        EXPECT_EQ(std::u16string(name), room < 5 ? u"" : u"four");
        EXPECT_EQ(length, room < 5 ? room : 4);
    }
    DWORD length = 8;
    EXPECT_EQ(enumerate(root, 1, length), ERROR_NO_MORE_ITEMS);
    EXPECT_EQ(enumerate(HKEY_LOCAL_MACHINE, 0, length), ERROR_SUCCESS);
    EXPECT_EQ(std::u16string(name), u"TEST");
}

} /* namespace */
} /* namespace offline */
