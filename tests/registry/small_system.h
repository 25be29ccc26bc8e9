/* A small registry in memory: one hive at \Registry\Machine\TEST, with short forms of the calls. */
#ifndef QUILLET_TESTS_REGISTRY_SMALL_SYSTEM_H
#define QUILLET_TESTS_REGISTRY_SMALL_SYSTEM_H

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "platform/nt.h"
#include "platform/offline/base/unicode.h"
#include "platform/offline/descriptor/sid_format.h"
#include "platform/offline/registry/registry.h"
#include "platform/offline/security/security.h"
#include "tests/support/privileges.h"

namespace offline {

/* What a store has received; it outlives the store, which belongs to the registry. */
struct Recording {
    std::vector<uint8_t> file;
    size_t writes = 0;
    size_t closed = 0;
    NTSTATUS failure = STATUS_SUCCESS;
};

struct RecordingStore : HiveStore {
    explicit RecordingStore(Recording& into) : recording(into) {}
    ~RecordingStore() override { recording.closed++; }
    NTSTATUS write(uint64_t offset, std::span<const uint8_t> bytes) override {
        if (grow(offset + bytes.size()) < 0) return recording.failure;
        recording.writes++;
        memcpy(recording.file.data() + offset, bytes.data(), bytes.size());
        return STATUS_SUCCESS;
    }
    NTSTATUS grow(uint64_t size) override {
        if (recording.failure >= 0 && recording.file.size() < size) recording.file.resize(size);
        return recording.failure;
    }
    NTSTATUS flush() override { return recording.failure; }
    Recording& recording;
};

constexpr const char* systemSid = "S-1-5-18";
constexpr const char* administratorsSid = "S-1-5-32-544";

struct Allowed {
    uint8_t flags;
    ACCESS_MASK mask;
    const char* sid;
};

/* A self-relative descriptor: header, list, owner, and Local System as the group. */
inline std::vector<uint8_t> makeDescriptor(const char* owner, const std::vector<Allowed>& entries) {
    std::vector<uint8_t> list = {2, 0, 0, 0, static_cast<uint8_t>(entries.size()), 0, 0, 0};
    for (const Allowed& entry : entries) {
        const auto sid = sidFromText(entry.sid);
        const auto* mask = reinterpret_cast<const uint8_t*>(&entry.mask);
        list.insert(list.end(), {0, entry.flags, static_cast<uint8_t>(sid.size() + 8), 0});
        list.insert(list.end(), mask, mask + 4);
        list.insert(list.end(), sid.begin(), sid.end());
    }
    list[2] = static_cast<uint8_t>(list.size());
    const auto ownerSid = sidFromText(owner);
    const auto ownerAt = static_cast<DWORD>(20 + list.size());
    const auto groupAt = static_cast<DWORD>(ownerAt + ownerSid.size());
    const SECURITY_DESCRIPTOR_RELATIVE header = {1, 0, SE_SELF_RELATIVE | SE_DACL_PRESENT, ownerAt, groupAt,
                                                 0, 20};
    std::vector<uint8_t> image(sizeof header);
    memcpy(image.data(), &header, sizeof header);
    for (const auto& part : {list, ownerSid, sidFromText(systemSid)}) {
        image.insert(image.end(), part.begin(), part.end());
    }
    return image;
}

inline std::vector<uint8_t> openToAll() {
    return makeDescriptor(systemSid, {{2, KEY_ALL_ACCESS, "S-1-1-0"}});
}
inline std::vector<uint8_t> systemOnly() {
    return makeDescriptor(systemSid, {{2, KEY_ALL_ACCESS, systemSid}});
}

inline UNICODE_STRING counted(std::u16string_view text) {
    const auto bytes = static_cast<USHORT>(text.size() * sizeof(WCHAR));
    return {bytes, bytes, const_cast<PWSTR>(text.data())};
}

inline HKEY asHkey(HANDLE key) {
    return static_cast<HKEY>(key);
}

struct KeyCall {
    ACCESS_MASK access = KEY_ALL_ACCESS;
    ULONG attributes = OBJ_CASE_INSENSITIVE;
    HANDLE root = nullptr;
    ULONG options = 0;
    std::u16string_view className = {};
};

inline NTSTATUS openKey(HANDLE& key, std::u16string_view path, const KeyCall& call = {}) {
    UNICODE_STRING name = counted(path);
    OBJECT_ATTRIBUTES attributes = {sizeof attributes, call.root, &name, call.attributes, nullptr, nullptr};
    return ZwOpenKey(&key, call.access, &attributes);
}

inline NTSTATUS createKey(HANDLE& key, std::u16string_view path, const KeyCall& call, ULONG* made = nullptr) {
    UNICODE_STRING name = counted(path);
    UNICODE_STRING className = counted(call.className);
    OBJECT_ATTRIBUTES attributes = {sizeof attributes, call.root, &name, call.attributes, nullptr, nullptr};
    return ZwCreateKey(&key, call.access, &attributes, 0, &className, call.options, made);
}

inline NTSTATUS setText(HANDLE key, std::u16string_view name, ULONG type, std::u16string_view text) {
    UNICODE_STRING valueName = counted(name);
    const auto bytes = static_cast<ULONG>(text.size() * sizeof(WCHAR));
    return ZwSetValueKey(key, &valueName, 0, type, const_cast<WCHAR*>(text.data()), bytes);
}

/* The path of a key below the hive's root. */
inline std::u16string full(std::u16string_view path) {
    return u"\\Registry\\Machine\\TEST\\" + std::u16string(path);
}

struct RegistryTest : testing::Test {
    void SetUp() override {
        registryReset();
        setAccessMode(AccessMode::unrefused);
        HivePtr made;
        ASSERT_EQ(hiveCreate(5, u"ROOT", u"TEST", openToAll(), made), STATUS_SUCCESS);
        hive = made.get();
        const NTSTATUS status = registryMount(u"\\Registry\\Machine\\TEST", std::move(made),
                                              std::make_unique<RecordingStore>(store));
        ASSERT_EQ(status, STATUS_SUCCESS);
    }
    void TearDown() override {
        for (HANDLE handle : handles) ZwClose(handle);
        registrySetLoader(nullptr);
        registryReset();
    }

    /* Handles that the end of the test closes; null with a failure. */
    HANDLE open(std::u16string_view path, const KeyCall& call = {}) {
        HANDLE key = nullptr;
        EXPECT_EQ(openKey(key, path.starts_with(u'\\') ? std::u16string(path) : full(path), call),
                  STATUS_SUCCESS)
            << toUtf8(path);
        return handles.emplace_back(key);
    }
    HANDLE create(std::u16string_view path, const KeyCall& call = {}) {
        HANDLE key = nullptr;
        EXPECT_EQ(createKey(key, full(path), call), STATUS_SUCCESS) << toUtf8(path);
        return handles.emplace_back(key);
    }
    void makeLink(std::u16string_view path, std::u16string_view target) {
        HANDLE link = create(path, {.options = REG_OPTION_CREATE_LINK});
        EXPECT_EQ(setText(link, u"SymbolicLinkValue", REG_LINK, target), STATUS_SUCCESS);
    }

    Hive* hive = nullptr;
    Recording store;
    std::vector<HANDLE> handles;
};

inline NTSTATUS tryOpen(std::u16string_view path, const KeyCall& call = {}) {
    HANDLE key = nullptr;
    const NTSTATUS status = openKey(key, path, call);
    if (status >= 0) ZwClose(key);
    return status;
}

/* The name of a key's child as ZwEnumerateKey gives it, "" after the last. */
inline std::string childOf(HANDLE key, ULONG index) {
    KEY_BASIC_INFORMATION record[32];
    ULONG length = 0;
    if (ZwEnumerateKey(key, index, KeyBasicInformation, record, sizeof record, &length) < 0) return "";
    return toUtf8({record->Name, record->NameLength / sizeof(WCHAR)});
}

/* All of them, each with a blank after it. */
inline std::string children(HANDLE key) {
    std::string names;
    for (ULONG i = 0; !childOf(key, i).empty(); i++) names += childOf(key, i) + " ";
    return names;
}

inline std::string nameOf(HANDLE key) {
    KEY_BASIC_INFORMATION record[32];
    ULONG length = 0;
    if (ZwQueryKey(key, KeyBasicInformation, record, sizeof record, &length) < 0) return "?";
    return toUtf8({record->Name, record->NameLength / sizeof(WCHAR)});
}

} /* namespace offline */

#endif
