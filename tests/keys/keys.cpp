#include "tests/keys/keys.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <set>

#include "common/log.h"
#include "sidchng/sid.h"
#include "tool/text_format.h"

/* ---- The calls ---- */

namespace offline {

std::map<std::string, int> callsMade;

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

/* The scripted calls go on to the platform; those on keys are watched as well. */
static void _passOn() {
#define SCRIPTED(result, name, parameters, arguments) answer.name = __real_##name;
#define PASSED_ON(result, name, parameters, arguments)
#include "tests/engine/scripted_calls.h"
    answer.ZwOpenKey = [](PHANDLE key, ACCESS_MASK access, POBJECT_ATTRIBUTES attributes) {
        NTSTATUS status = 0;
        const std::string name = offline::nameIn(attributes);
        if (offline::fails("ZwOpenKey", name, &status)) return status;
        status = __real_ZwOpenKey(key, access, attributes);
        if (status >= 0) offline::openedAs[*key] = name;
        return status;
    };
    answer.ZwCreateKey = [](PHANDLE key, ACCESS_MASK access, POBJECT_ATTRIBUTES attributes, ULONG titleIndex,
                            PUNICODE_STRING className, ULONG options, PULONG made) {
        NTSTATUS status = 0;
        const std::string name = offline::nameIn(attributes);
        if (offline::fails("ZwCreateKey", name, &status)) return status;
        status = __real_ZwCreateKey(key, access, attributes, titleIndex, className, options, made);
        if (status >= 0) offline::openedAs[*key] = name;
        return status;
    };
    answer.ZwClose = [](HANDLE key) {
        NTSTATUS status = 0;
        const bool failed = offline::fails("ZwClose", offline::opened(key), &status);
        const NTSTATUS closed = __real_ZwClose(key);
        return failed ? status : closed;
    };
    answer.RegGetKeySecurity = [](HKEY key, SECURITY_INFORMATION parts, PSECURITY_DESCRIPTOR image,
                                  LPDWORD size) {
        LSTATUS error = 0;
        if (offline::fails("RegGetKeySecurity", offline::opened(key), &error)) return error;
        return __real_RegGetKeySecurity(key, parts, image, size);
    };
    answer.RegSetKeySecurity = [](HKEY key, SECURITY_INFORMATION parts, PSECURITY_DESCRIPTOR image) {
        LSTATUS error = 0;
        if (offline::fails("RegSetKeySecurity", offline::opened(key), &error)) return error;
        return __real_RegSetKeySecurity(key, parts, image);
    };
}

/* ---- The record ---- */

/* Operations report from their own source units. */
static std::string _unitOf(const std::string& function) {
    static const std::set<std::string> open = {"_doOpenCreateKey", "_regOpenCreateKey"};
    static const std::set<std::string> sec = {"regGetKeySec", "regSetKeySec", "regTakesOwnershipU"};
    static const std::set<std::string> memory = {"ombraMalloc", "ombraRealloc"};
    if (open.contains(function)) return "regtk/regtk_open";
    if (sec.contains(function)) return "regtk/regtk_sec";
    if (memory.contains(function)) return "common/memory";
    if (function == "lanmanServerReplaceGuid") return "sidchng/sidchng";
    if (function.starts_with("sidCtx")) return "sidchng/sidctx";
    if (function.starts_with("sid") || function == "_sidCheck") return "sidchng/sid";
    if (function.starts_with("regReplaceSID") || function == "_replaceInString") return "sidchng/reg";
    return "regtk/regtk_native";
}

static void _record(const char* file, const char* function, int, int level, ULONG_PTR, const char* format,
                    ...) {
    EXPECT_EQ(file, _unitOf(function)) << function;
    char* bytes = nullptr;
    size_t size = 0;
    FILE* stream = open_memstream(&bytes, &size);
    va_list arguments;
    va_start(arguments, format);
    writeTextV(stream, format, arguments);
    va_end(arguments);
    fclose(stream);
    static const char* const levels[] = {"", "", "", "ERROR", "WARN", "", "INFO", "DEBUG", ""};
    events.push_back(std::string(levels[level]) + " " + function + ": " + std::string(bytes, size));
    free(bytes);
}

/* ---- The small system ---- */

namespace offline {

const std::string oldText = "S-1-5-21-100-200-300";
const std::string newText = "S-1-5-21-4000000001-4000000002-4000000003";

std::u16string wide(std::string_view text) {
    return {text.begin(), text.end()};
}

Bytes bytesOf(std::u16string_view text) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
    return {bytes, bytes + text.size() * sizeof(WCHAR)};
}

std::string readable(std::string line) {
    for (const auto& [from, to] : {std::pair(oldText, "OLD"), std::pair(newText, "NEW")}) {
        for (size_t at = 0; (at = line.find(from, at)) != std::string::npos;)
            line.replace(at, from.size(), to);
    }
    return line;
}

void Keys::SetUp() {
    _passOn();
    faults.clear();
    openedAs.clear();
    allocationsLeft = -1;
    refusal = {};
    RegistryTest::SetUp();
    for (const uint32_t luid : {takeOwnershipPrivilege, securityPrivilege, backupPrivilege, restorePrivilege})
        enablePrivilege(luid);
    events.clear();
    callsMade.clear();
    ombraSetLogger(_record);
}

void Keys::TearDown() {
    ombraSetLogger(nullptr);
    faults.clear();
    allocationsLeft = -1;
    RegistryTest::TearDown();
    setAccessMode(AccessMode::unrefused);
}

void Keys::refuse(const Fault& fault) {
    faults.push_back(fault);
}

void Keys::forgetFaults() {
    faults.clear();
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

void Keys::grow(std::string_view paths) {
    while (!paths.empty()) {
        const size_t end = paths.find(' ');
        HANDLE key = nullptr;
        const std::u16string path = full(wide(paths.substr(0, end)));
        ASSERT_EQ(createKey(key, path, {}), STATUS_SUCCESS) << toUtf8(path);
        ZwClose(key);
        paths = end == paths.npos ? "" : paths.substr(end + 1);
    }
}

/* One use of a key. */
template <typename Use>
static void _with(std::string_view path, Use use) {
    HANDLE key = nullptr;
    ASSERT_EQ(_open(path, KEY_ALL_ACCESS | ACCESS_SYSTEM_SECURITY, key), STATUS_SUCCESS) << path;
    use(key);
    ZwClose(key);
}

void Keys::set(std::string_view path, std::string_view name, ULONG type, const Bytes& data) {
    _with(path, [&](HANDLE key) {
        const std::u16string valueName = wide(name);
        UNICODE_STRING counted = offline::counted(valueName);
        ASSERT_EQ(ZwSetValueKey(key, &counted, 0, type, const_cast<uint8_t*>(data.data()),
                                static_cast<ULONG>(data.size())),
                  STATUS_SUCCESS);
    });
}

Bytes Keys::get(std::string_view path, std::string_view name, ULONG* type) {
    Bytes data;
    _with(path, [&](HANDLE key) {
        DWORD size = 0;
        const std::u16string valueName = wide(name);
        DWORD kind = 0;
        ASSERT_EQ(__real_RegQueryValueExW(asHkey(key), valueName.c_str(), nullptr, &kind, nullptr, &size), 0);
        data.resize(size);
        if (size != 0)
            __real_RegQueryValueExW(asHkey(key), valueName.c_str(), nullptr, &kind, data.data(), &size);
        if (type != nullptr) *type = kind;
    });
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

void Keys::describe(std::string_view path, const Bytes& descriptor) {
    EXPECT_EQ(hiveSetKeyDescriptor(*hive, _cellOf(*hive, path), descriptor, 0), STATUS_SUCCESS);
}

Bytes Keys::descriptor(std::string_view path) {
    const auto stored = hiveKeyDescriptor(*hive, _cellOf(*hive, path));
    return {stored.begin(), stored.end()};
}

int Keys::holds(std::string_view path, const Bytes& sid) {
    const Bytes image = descriptor(path);
    int found = 0;
    for (auto at = image.begin(); (at = std::search(at, image.end(), sid.begin(), sid.end())) != image.end();
         at++)
        found++;
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
    return readable(all);
}

DWORD Keys::replace(std::string_view path, uint32_t flags, const WCHAR* const* valueNames) {
    HANDLE key = nullptr;
    EXPECT_EQ(_open(path, 0x10E001F, key), STATUS_SUCCESS) << path;
    events.clear();
    callsMade.clear();
    const DWORD error = sidReplaceInKey(key, flags, valueNames, oldSid.data(), SID_MACHINE_SIZE,
                                        newSid.data(), SID_MACHINE_SIZE);
    ZwClose(key);
    return error;
}

} /* namespace offline */
