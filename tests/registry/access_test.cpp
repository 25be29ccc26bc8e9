/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Rights granted at open and checked at use, and the descriptors of keys. */
#include "tests/support/small_system.h"

namespace offline {
namespace {

struct AccessTest : SmallSystem {
    static LSTATUS getSecurity(HANDLE key, SECURITY_INFORMATION information) {
        uint8_t image[256];
        DWORD size = sizeof image;
        return RegGetKeySecurity(asHkey(key), information, image, &size);
    }
    static LSTATUS setSecurity(HANDLE key, SECURITY_INFORMATION information, std::vector<uint8_t> image) {
        return RegSetKeySecurity(asHkey(key), information, image.data());
    }
};

TEST_F(AccessTest, EveryUseNeedsItsRight) {
    create(u"key");
    char buffer[256];
    ULONG length = 0;
    UNICODE_STRING name = counted(u"v");
    const auto code = [](NTSTATUS status) { return static_cast<LSTATUS>(RtlNtStatusToDosError(status)); };
    constexpr auto record = KeyValueFullInformation;
    const std::vector<std::tuple<ACCESS_MASK, std::function<LSTATUS(HANDLE)>>> rows = {
        {KEY_SET_VALUE, [&](HANDLE key) { return code(setText(key, u"v", REG_SZ, u"x")); }},
        {1, [&](HANDLE key) { return code(ZwQueryValueKey(key, &name, record, buffer, 256, &length)); }},
        {1, [&](HANDLE key) { return code(ZwEnumerateValueKey(key, 0, record, buffer, 256, &length)); }},
        {1, [&](HANDLE key) { return code(ZwQueryKey(key, KeyNodeInformation, buffer, 256, &length)); }},
        {8,
         [&](HANDLE key) { return code(ZwEnumerateKey(key, 0, KeyNodeInformation, buffer, 256, &length)); }},
        {READ_CONTROL, [](HANDLE key) { return getSecurity(key, 7); }},
        {READ_CONTROL | ACCESS_SYSTEM_SECURITY, [](HANDLE key) { return getSecurity(key, 15); }},
        {WRITE_OWNER, [](HANDLE key) { return setSecurity(key, 1, openToAll()); }},
        {WRITE_DAC, [](HANDLE key) { return setSecurity(key, 4, openToAll()); }},
        {DELETE, [&](HANDLE key) { return code(ZwDeleteKey(key)); }},
    };
    constexpr ACCESS_MASK everything = KEY_ALL_ACCESS | ACCESS_SYSTEM_SECURITY;
    HANDLE none = nullptr;
    EXPECT_EQ(tryOpen(full(u"key"), {.access = everything}), STATUS_PRIVILEGE_NOT_HELD);
    EXPECT_EQ(createKey(none, full(u"new"), {.access = everything}), STATUS_PRIVILEGE_NOT_HELD);
    EXPECT_EQ(children(open(u"")), "key ");
    enable(securityPrivilege);
    for (const auto& [right, use] : rows) {
        for (ACCESS_MASK one = 1; one <= ACCESS_SYSTEM_SECURITY; one <<= 1) {
            if ((right & one) == 0) continue;
            EXPECT_EQ(use(open(u"key", {.access = everything & ~one})), ERROR_ACCESS_DENIED) << one;
        }
        const LSTATUS allowed = right == KEY_ENUMERATE_SUB_KEYS ? ERROR_NO_MORE_ITEMS : ERROR_SUCCESS;
        EXPECT_EQ(use(open(u"key", {.access = right})), allowed) << right;
    }
}

TEST_F(AccessTest, DescriptorsAreReadWholeOrNotAtAll) {
    enable(securityPrivilege);
    HANDLE key = create(u"key", {.access = KEY_ALL_ACCESS | ACCESS_SYSTEM_SECURITY});
    const auto image = makeDescriptor(stranger, {allowed(stranger, KEY_READ, 0)});
    ASSERT_EQ(setSecurity(key, 15, image), ERROR_SUCCESS);
    for (DWORD room = 0; room <= image.size(); room++) {
        const bool fits = room == image.size();
        std::vector<uint8_t> buffer(image.size(), 0x5A);
        DWORD size = room;
        EXPECT_EQ(RegGetKeySecurity(asHkey(key), 15, buffer.data(), &size),
                  fits ? ERROR_SUCCESS : ERROR_INSUFFICIENT_BUFFER);
        EXPECT_EQ(size, image.size());
        EXPECT_EQ(buffer, fits ? image : std::vector<uint8_t>(image.size(), 0x5A));
    }
    EXPECT_EQ(RegGetKeySecurity(asHkey(key), 15, nullptr, nullptr), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(RegSetKeySecurity(asHkey(key), 15, nullptr), ERROR_INVALID_PARAMETER);

    const std::vector<uint8_t> garbage(40, 0xEE);
    describe("key", garbage);
    EXPECT_EQ(getSecurity(key, 15), ERROR_INVALID_SECURITY_DESCR);
    EXPECT_EQ(setSecurity(key, 4, image), ERROR_INVALID_SECURITY_DESCR);
    EXPECT_EQ(descriptorOf("key"), garbage);
    EXPECT_EQ(setSecurity(key, 15, image), ERROR_SUCCESS); /* nothing of the old one is needed */
    EXPECT_EQ(descriptorOf("key"), image);
}

} /* namespace */
} /* namespace offline */
