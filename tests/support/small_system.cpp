/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "tests/support/small_system.h"

#include <algorithm>
#include <sstream>

namespace offline {

/* ---- Text ---- */

std::u16string wide(std::string_view text) {
    const std::string full = shortened({{"OLD", oldText}, {"NEW", newText}}, {std::string(text)});
    return {full.begin(), full.end()};
}

ByteVector bytesOf(std::u16string_view text) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
    return {bytes, bytes + text.size() * sizeof(WCHAR)};
}

UNICODE_STRING counted(std::u16string_view text) {
    const auto bytes = static_cast<USHORT>(text.size() * sizeof(WCHAR));
    return {bytes, bytes, const_cast<PWSTR>(text.data())};
}

/* ---- The calls ---- */

NTSTATUS openKey(HANDLE& key, std::u16string_view path, const KeyCall& call) {
    UNICODE_STRING name = counted(path);
    OBJECT_ATTRIBUTES attributes = {sizeof attributes, call.root, &name, call.attributes, nullptr, nullptr};
    return ZwOpenKey(&key, call.access, &attributes);
}

NTSTATUS createKey(HANDLE& key, std::u16string_view path, const KeyCall& call, ULONG* made) {
    UNICODE_STRING name = counted(path), className = counted(call.className);
    OBJECT_ATTRIBUTES attributes = {sizeof attributes, call.root, &name, call.attributes, nullptr, nullptr};
    return ZwCreateKey(&key, call.access, &attributes, 0, &className, call.options, made);
}

NTSTATUS tryOpen(std::u16string_view path, const KeyCall& call) {
    HANDLE key = nullptr;
    const NTSTATUS status = openKey(key, path, call);
    if (status >= 0) ZwClose(key);
    return status;
}

NTSTATUS setText(HANDLE key, std::u16string_view name, ULONG type, std::u16string_view text) {
    UNICODE_STRING valueName = counted(name);
    const auto bytes = static_cast<ULONG>(text.size() * sizeof(WCHAR));
    return ZwSetValueKey(key, &valueName, 0, type, const_cast<WCHAR*>(text.data()), bytes);
}

static std::string nameIn(const KEY_BASIC_INFORMATION* record) {
    return toUtf8({record->Name, record->NameLength / sizeof(WCHAR)});
}

std::string children(HANDLE key) {
    KEY_BASIC_INFORMATION record[32];
    std::string names;
    ULONG length = 0;
    for (ULONG i = 0; ZwEnumerateKey(key, i, KeyBasicInformation, record, sizeof record, &length) >= 0; i++)
        names += nameIn(record) + " ";
    return names;
}

std::string nameOf(HANDLE key) {
    KEY_BASIC_INFORMATION record[32];
    ULONG length = 0;
    const NTSTATUS status = ZwQueryKey(key, KeyBasicInformation, record, sizeof record, &length);
    return status < 0 ? "?" : nameIn(record);
}

/* ---- The system ---- */

void SmallSystem::SetUp() {
    HivePtr made;
    ASSERT_EQ(hiveCreate(5, u"ROOT", u"TEST", openToAll(), made), STATUS_SUCCESS);
    hive = made.get();
    const NTSTATUS status =
        registryMount(u"\\Registry\\Machine\\TEST", std::move(made), std::make_unique<RecordingStore>(store));
    ASSERT_EQ(status, STATUS_SUCCESS);
    beginWatching();
}

void SmallSystem::TearDown() {
    endWatching();
    registryReset(); /* or stores would outlive what they record into */
}

void PrivilegedSystem::SetUp() {
    SmallSystem::SetUp();
    enableAll();
}

void PrivilegedSystem::enableAll() {
    for (const uint32_t luid : {takeOwnershipPrivilege, securityPrivilege, backupPrivilege, restorePrivilege})
        enable(luid);
}

static std::u16string whole(std::u16string_view path) {
    return path.starts_with(u'\\') ? std::u16string(path) : full(path);
}

HANDLE SmallSystem::open(std::u16string_view path, const KeyCall& call) {
    HANDLE key = nullptr;
    EXPECT_EQ(openKey(key, whole(path), call), STATUS_SUCCESS) << toUtf8(path);
    return key;
}

HANDLE SmallSystem::create(std::u16string_view path, const KeyCall& call) {
    HANDLE key = nullptr;
    EXPECT_EQ(createKey(key, whole(path), call), STATUS_SUCCESS) << toUtf8(path);
    return key;
}

void SmallSystem::makeLink(std::u16string_view path, std::u16string_view target) {
    HANDLE link = create(path, {.options = REG_OPTION_CREATE_LINK});
    EXPECT_EQ(setText(link, u"SymbolicLinkValue", REG_LINK, target), STATUS_SUCCESS);
    ZwClose(link);
}

Hive* SmallSystem::mount(const std::u16string& name) {
    HivePtr made;
    EXPECT_EQ(hiveCreate(5, u"ROOT", name, openToAll(), made), STATUS_SUCCESS);
    Hive* const mounted = made.get();
    EXPECT_EQ(registryMount(u"\\Registry\\Machine\\" + name, std::move(made), nullptr), STATUS_SUCCESS);
    return mounted;
}

static NTSTATUS openAsItself(std::string_view path, ACCESS_MASK access, HANDLE& key) {
    return openKey(key, whole(wide(path)),
                   {.access = access, .attributes = OBJ_CASE_INSENSITIVE | OBJ_OPENLINK});
}

HANDLE SmallSystem::at(std::string_view path, ACCESS_MASK access) {
    HANDLE key = nullptr;
    EXPECT_EQ(openAsItself(path, access, key), STATUS_SUCCESS) << path;
    return key;
}

bool SmallSystem::there(std::string_view path) {
    HANDLE key = nullptr;
    const bool found = openAsItself(path, KEY_QUERY_VALUE, key) >= 0;
    if (found) ZwClose(key);
    return found;
}

void SmallSystem::grow(const std::string& paths) {
    std::istringstream all(paths);
    for (std::string path; all >> path;) ZwClose(create(wide(path)));
}

void SmallSystem::growWith(const std::string& path) {
    constexpr size_t hives = 17; /* after "\\Registry\\Machine" */
    const std::u16string keys = whole(wide(path));
    for (size_t end = keys.find(u'\\', hives + 1); end != keys.npos;) {
        end = keys.find(u'\\', end + 1);
        ZwClose(create(keys.substr(0, end)));
    }
}

void SmallSystem::clear(const std::string& names) {
    std::istringstream all(names);
    const HANDLE root = at("");
    for (std::string name; all >> name;) {
        const std::u16string characters = wide(name);
        const UNICODE_STRING text = counted(characters);
        ASSERT_EQ(regDeleteKeyU(root, &text, REG_RECURSIVE | REG_IGNORE_MISSING), 0u);
    }
    ZwClose(root);
}

void SmallSystem::set(std::string_view path, std::string_view name, ULONG type, const ByteVector& data) {
    const std::u16string valueName = wide(name);
    UNICODE_STRING text = counted(valueName);
    const HANDLE key = at(path);
    void* bytes = const_cast<uint8_t*>(data.data());
    EXPECT_EQ(ZwSetValueKey(key, &text, 0, type, bytes, static_cast<ULONG>(data.size())), 0) << path;
    ZwClose(key);
}

ByteVector SmallSystem::get(std::string_view path, std::string_view name, ULONG* type) {
    const std::u16string valueName = wide(name);
    const HANDLE key = at(path);
    DWORD kind = 0, size = 0;
    RegQueryValueExW(asHkey(key), valueName.c_str(), nullptr, nullptr, nullptr, &size);
    ByteVector data(size);
    EXPECT_EQ(RegQueryValueExW(asHkey(key), valueName.c_str(), nullptr, &kind, data.data(), &size), 0)
        << path;
    ZwClose(key);
    if (type != nullptr) *type = kind;
    return data;
}

static Cell cellOf(const Hive& hive, std::string_view path) {
    const std::u16string names = wide(path);
    std::u16string_view rest = names;
    Cell cell = hiveRoot(hive);
    while (!rest.empty()) {
        const size_t end = std::min(rest.find(u'\\'), rest.size());
        EXPECT_EQ(hiveFindSubkey(hive, cell, rest.substr(0, end), cell), STATUS_SUCCESS) << path;
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    return cell;
}

void SmallSystem::describe(std::string_view path, const ByteVector& descriptor) const {
    EXPECT_EQ(hiveSetKeyDescriptor(*hive, cellOf(*hive, path), descriptor, 0), STATUS_SUCCESS);
}

ByteVector SmallSystem::descriptorOf(std::string_view path) const {
    const auto stored = hiveKeyDescriptor(*hive, cellOf(*hive, path));
    return {stored.begin(), stored.end()};
}

int SmallSystem::holds(std::string_view path, const ByteVector& sid) const {
    const ByteVector image = descriptorOf(path);
    int found = 0;
    for (auto from = image.begin(); from + 24 <= image.end(); from++)
        found += std::equal(sid.begin(), sid.end(), from) ? 1 : 0;
    return found;
}

std::string SmallSystem::classOf(std::string_view path) const {
    const auto stored = hiveKeyClass(*hive, cellOf(*hive, path));
    return toUtf8({reinterpret_cast<const char16_t*>(stored.data()), stored.size() / sizeof(char16_t)});
}

static std::string treeBelow(const Hive& hive, Cell cell) {
    std::string all;
    Cell child = noCell;
    for (uint32_t i = 0; hiveSubkey(hive, cell, i, child) >= 0; i++) {
        char16_t name[longestKeyName];
        HiveKey info;
        EXPECT_GE(hiveKey(hive, child, info), 0);
        const bool isLink = (info.flags & HIVE_KEY_LINK) != 0;
        const std::string below = treeBelow(hive, child);
        all +=
            (all.empty() ? "" : " ") + toUtf8({name, hiveKeyName(hive, child, name)}) + (isLink ? "@" : "");
        if (!below.empty()) all += "(" + below + ")";
    }
    return all;
}

static const Legend namesOfSids = {{oldText, "OLD"}, {newText, "NEW"}};

std::string SmallSystem::tree(std::string_view path) const {
    return shortened(namesOfSids, {treeBelow(*hive, cellOf(*hive, path))});
}

std::string SmallSystem::outcome(const Legend& legend, const std::function<DWORD()>& operation) {
    events.clear();
    callsMade.clear();
    const size_t before = openHandles();
    const DWORD error = operation();
    EXPECT_EQ(openHandles(), before);
    Events told;
    for (const std::string& event : events) {
        if (!event.starts_with("DEBUG sidReplace") || event.starts_with("DEBUG sidReplaceInFileSD"))
            told.push_back(event);
    }
    told.push_back(std::to_string(error));
    Legend all = namesOfSids;
    all.insert(all.end(), legend.begin(), legend.end());
    return shortened(all, told);
}

DWORD SmallSystem::replace(std::string_view path, uint32_t flags, const WCHAR* const* valueNames) {
    const HANDLE key = at(path, 0x10E001F);
    const DWORD error = sidReplaceInKey(key, flags, valueNames, oldSid.data(), SID_MACHINE_SIZE,
                                        newSid.data(), SID_MACHINE_SIZE);
    ZwClose(key);
    return error;
}

} /* namespace offline */
