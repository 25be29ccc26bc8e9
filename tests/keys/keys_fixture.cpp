#include "tests/keys/keys_fixture.h"

#include <algorithm>
#include <sstream>

#include "common/log.h"
#include "sidchng/sid.h"

/* ---- The calls ---- */

namespace offline {

std::map<std::string, int> callsMade;
bool opensNoted;

static std::vector<Fault> faults;
static std::map<const void*, std::string> openedAs;

/* Whether this call is to fail. */
static bool fails(const char* call, const std::string& key, LONG* code) {
    callsMade[call]++;
    for (Fault& fault : faults) {
        if (fault.call != call || (!fault.key.empty() && fault.key != key)) continue;
        if (fault.after-- > 0 || fault.times-- <= 0) continue;
        *code = fault.code;
        return true;
    }
    return false;
}

static std::string opened(const void* handle) {
    const auto found = openedAs.find(handle);
    return found == openedAs.end() ? "" : found->second;
}

static std::string nameIn(const OBJECT_ATTRIBUTES* attributes) {
    const UNICODE_STRING* name = attributes->ObjectName;
    if (name->Length == 0) return opened(attributes->RootDirectory);
    const std::string path = text("%wZ", name);
    return path.substr(path.rfind('\\') + 1);
}

} /* namespace offline */

extern "C" {

#define WATCHED(result, name, parameters, arguments)                       \
    result __real_##name parameters;                                       \
    result __wrap_##name parameters {                                      \
        LONG code = 0;                                                     \
        if (offline::fails(#name, offline::opened(a), &code)) return code; \
        return __real_##name arguments;                                    \
    }
#include "tests/keys/key_calls.h"

#define SCRIPTED(result, name, parameters, arguments) result __real_##name parameters;
#define PASSED_ON(result, name, parameters, arguments)
#include "tests/engine/scripted_calls.h"

} /* extern "C" */

/* A scripted call goes on to the platform unless it is to fail on its key. */
template <auto real>
static auto _watched(const char* call) {
    return [call](auto key, auto... rest) -> decltype(real(key, rest...)) {
        LONG code = 0;
        const std::string name = offline::opened(key);
        const bool failed = offline::fails(call, name, &code);
        // A close that fails closes all the same.
        const bool closing = std::string_view(call) == "ZwClose";
        if (closing) offline::openedAs.erase(key);
        if (failed && !closing) return code;
        const auto result = real(key, rest...);
        return failed ? code : result;
    };
}

/* The same for an open, which counts as a call on the key that it names. */
template <auto real>
static auto _watchedOpen(const char* call) {
    return [call](PHANDLE key, ACCESS_MASK access, POBJECT_ATTRIBUTES attributes, auto... rest) {
        NTSTATUS status = 0;
        const std::string name = offline::nameIn(attributes);
        if (offline::opensNoted) note("%s %s %x", call, name.c_str(), attributes->Attributes);
        if (offline::fails(call, name, &status)) return status;
        status = real(key, access, attributes, rest...);
        if (status >= 0) offline::openedAs[*key] = name;
        return status;
    };
}

static void _passOn() {
#define SCRIPTED(result, name, parameters, arguments) answer.name = __real_##name;
#define PASSED_ON(result, name, parameters, arguments)
#include "tests/engine/scripted_calls.h"
    answer.ZwOpenKey = _watchedOpen<__real_ZwOpenKey>("ZwOpenKey");
    answer.ZwCreateKey = _watchedOpen<__real_ZwCreateKey>("ZwCreateKey");
    answer.ZwClose = _watched<__real_ZwClose>("ZwClose");
    answer.RegGetKeySecurity = _watched<__real_RegGetKeySecurity>("RegGetKeySecurity");
    answer.RegSetKeySecurity = _watched<__real_RegSetKeySecurity>("RegSetKeySecurity");
}

/* ---- The small system ---- */

namespace offline {

const std::string oldText = "S-1-5-21-100-200-300";
const std::string newText = "S-1-5-21-4000000001-4000000002-4000000003";

static const Legend namesOfSids = {{oldText, "OLD"}, {newText, "NEW"}};

std::u16string wide(std::string_view text) {
    return {text.begin(), text.end()};
}

ByteVector bytesOf(std::u16string_view text) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
    return {bytes, bytes + text.size() * sizeof(WCHAR)};
}

void Keys::SetUp() {
    _passOn();
    faults.clear();
    openedAs.clear();
    opensNoted = false;
    allocationsLeft = -1;
    refusal = {};
    RegistryTest::SetUp();
    for (const uint32_t luid : {takeOwnershipPrivilege, securityPrivilege, backupPrivilege, restorePrivilege})
        enablePrivilege(luid);
    events.clear();
    callsMade.clear();
    ombraSetLogger(recordLine);
}

void Keys::TearDown() {
    ombraSetLogger(nullptr);
    faults.clear();
    allocationsLeft = -1;
    RegistryTest::TearDown();
    setAccessMode(AccessMode::unrefused);
}

void Keys::check(bool on, bool taking) {
    setAccessMode(on ? AccessMode::checked : AccessMode::unrefused);
    enablePrivilege(securityPrivilege);
    if (taking) enablePrivilege(takeOwnershipPrivilege);
}

void Keys::refuse(const std::vector<Fault>& all) {
    faults = all;
}

static NTSTATUS _open(std::string_view path, ACCESS_MASK access, HANDLE& key) {
    const std::u16string name = path.empty() ? u"\\Registry\\Machine\\TEST" : full(wide(path));
    return openKey(key, name, {.access = access, .attributes = OBJ_CASE_INSENSITIVE | OBJ_OPENLINK});
}

HANDLE Keys::at(std::string_view path, ACCESS_MASK access) {
    HANDLE key = nullptr;
    EXPECT_EQ(_open(path, access, key), STATUS_SUCCESS) << path;
    return handles.emplace_back(key);
}

bool Keys::there(std::string_view path) {
    HANDLE key = nullptr;
    if (_open(path, KEY_QUERY_VALUE, key) < 0) return false;
    ZwClose(key);
    return true;
}

void Keys::mount(const std::u16string& name) {
    HivePtr made;
    ASSERT_EQ(hiveCreate(5, u"ROOT", name, openToAll(), made), STATUS_SUCCESS);
    ASSERT_EQ(registryMount(u"\\Registry\\Machine\\" + name, std::move(made), nullptr), STATUS_SUCCESS);
}

HANDLE Keys::make(const std::u16string& path) {
    HANDLE key = nullptr;
    for (size_t end = path.find(u'\\', 18); end != path.npos;) {  // after the machine's root
        end = path.find(u'\\', end + 1);
        EXPECT_EQ(createKey(key, path.substr(0, end), {}), STATUS_SUCCESS) << toUtf8(path);
        handles.push_back(key);
    }
    return key;
}

void Keys::grow(const std::string& paths) {
    std::istringstream all(paths);
    for (std::string path; all >> path;) {
        for (size_t at = 0; (at = path.find("OLD")) != path.npos;) path.replace(at, 3, oldText);
        HANDLE key = nullptr;
        ASSERT_EQ(createKey(key, full(wide(path)), {}), STATUS_SUCCESS) << path;
        ZwClose(key);
    }
}

void Keys::clear(const std::string& names) {
    std::istringstream all(names);
    for (std::string name; all >> name;) {
        const std::u16string characters = wide(name);
        const UNICODE_STRING text = counted(characters);
        ASSERT_EQ(regDeleteKeyU(at(""), &text, REG_RECURSIVE | REG_IGNORE_MISSING), 0u);
    }
}

void Keys::set(std::string_view path, std::string_view name, ULONG type, const ByteVector& data) {
    const std::u16string valueName = wide(name);
    UNICODE_STRING text = counted(valueName);
    void* bytes = const_cast<uint8_t*>(data.data());
    EXPECT_EQ(ZwSetValueKey(at(path), &text, 0, type, bytes, static_cast<ULONG>(data.size())), 0) << path;
}

ByteVector Keys::get(std::string_view path, std::string_view name, ULONG* type) {
    ByteVector data(1 << 21);
    DWORD kind = 0, size = 1 << 21;
    EXPECT_EQ(
        __real_RegQueryValueExW(asHkey(at(path)), wide(name).c_str(), nullptr, &kind, data.data(), &size), 0)
        << path;
    data.resize(size);
    if (type != nullptr) *type = kind;
    return data;
}

/* The stored key, past every check of the platform. */
static Cell _cellOf(const Hive& hive, std::string_view path) {
    Cell cell = hiveRoot(hive);
    while (!path.empty()) {
        const size_t end = path.find('\\');
        EXPECT_EQ(hiveFindSubkey(hive, cell, wide(path.substr(0, end)), cell), STATUS_SUCCESS) << path;
        path = end == path.npos ? "" : path.substr(end + 1);
    }
    return cell;
}

void Keys::describe(std::string_view path, const ByteVector& descriptor) {
    EXPECT_EQ(hiveSetKeyDescriptor(*hive, _cellOf(*hive, path), descriptor, 0), STATUS_SUCCESS);
}

ByteVector Keys::descriptor(std::string_view path) {
    const auto stored = hiveKeyDescriptor(*hive, _cellOf(*hive, path));
    return {stored.begin(), stored.end()};
}

int Keys::holds(std::string_view path, const ByteVector& sid) {
    const ByteVector image = descriptor(path);
    int found = 0;
    for (auto at = image.begin(); at + 24 <= image.end(); at++)
        found += std::equal(sid.begin(), sid.end(), at) ? 1 : 0;
    return found;
}

std::string Keys::classOf(std::string_view path) {
    const auto stored = hiveKeyClass(*hive, _cellOf(*hive, path));
    return toUtf8({reinterpret_cast<const char16_t*>(stored.data()), stored.size() / sizeof(char16_t)});
}

std::string Keys::tree(std::string_view path) {
    const Cell cell = _cellOf(*hive, path);
    std::string all;
    Cell child = noCell;
    for (uint32_t i = 0; hiveSubkey(*hive, cell, i, child) >= 0; i++) {
        char16_t name[longestKeyName];
        HiveKey info;
        EXPECT_GE(hiveKey(*hive, child, info), 0);
        const std::string shown = toUtf8({name, hiveKeyName(*hive, child, name)});
        const std::string below = tree(path.empty() ? shown : std::string(path) + "\\" + shown);
        all += (all.empty() ? "" : " ") + shown + ((info.flags & HIVE_KEY_LINK) != 0 ? "@" : "");
        if (!below.empty()) all += "(" + below + ")";
    }
    return shortened(namesOfSids, {all});
}

std::string Keys::outcome(const Legend& legend, const std::function<DWORD()>& operation) {
    events.clear();
    callsMade.clear();
    const size_t handlesOpen = openedAs.size();
    const DWORD error = operation();
    EXPECT_EQ(openedAs.size(), handlesOpen) << "a handle is left open";
    Events told;
    for (const std::string& event : events) {
        if (!event.starts_with("DEBUG sidReplace")) told.push_back(event);
    }
    told.push_back(std::to_string(error));
    Legend all = namesOfSids;
    all.insert(all.end(), legend.begin(), legend.end());
    return shortened(all, told);
}

DWORD Keys::replace(std::string_view path, uint32_t flags, const WCHAR* const* valueNames) {
    HANDLE key = nullptr;
    EXPECT_EQ(_open(path, 0x10E001F, key), STATUS_SUCCESS) << path;
    const DWORD error = sidReplaceInKey(key, flags, valueNames, oldSid.data(), SID_MACHINE_SIZE,
                                        newSid.data(), SID_MACHINE_SIZE);
    ZwClose(key);
    return error;
}

} /* namespace offline */
