#include "tests/engine/scripted.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>

#include "common/log.h"
#include "tool/text_format.h"

Answers answer;
Refusal refusal;
Events events;
int allocationsLeft = -1;

/* ---- The redirected calls ---- */

extern "C" {

#define SCRIPTED(result, name, parameters, arguments)               \
    result __wrap_##name parameters {                               \
        if (answer.name) return answer.name arguments;              \
        ADD_FAILURE() << "no answer for " #name;                    \
        return static_cast<result>(0); /* FALSE, success or null */ \
    }
#define PASSED_ON(result, name, parameters, arguments)                                    \
    result __real_##name parameters;                                                      \
    result __wrap_##name parameters {                                                     \
        if (refusal.call == #name && refusal.after-- == 0) return failWith(refusal.code); \
        return __real_##name arguments;                                                   \
    }
#include "tests/engine/scripted_calls.h"

void* __real_malloc(size_t size);
void* __real_realloc(void* block, size_t size);

static bool _allocationFails() {
    if (allocationsLeft == 0) return true;
    if (allocationsLeft > 0) allocationsLeft--;
    return false;
}

void* __wrap_malloc(size_t size) {
    return _allocationFails() ? nullptr : __real_malloc(size);
}

void* __wrap_realloc(void* block, size_t size) {
    return _allocationFails() ? nullptr : __real_realloc(block, size);
}

} /* extern "C" */

/* ---- The record ---- */

static std::string _textV(const char* format, va_list arguments) {
    char* bytes = nullptr;
    size_t size = 0;
    FILE* stream = open_memstream(&bytes, &size);
    writeTextV(stream, format, arguments);
    fclose(stream);
    std::string result(bytes, size);
    free(bytes);
    return result;
}

std::string text(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::string result = _textV(format, arguments);
    va_end(arguments);
    return result;
}

void note(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    events.push_back(_textV(format, arguments));
    va_end(arguments);
}

std::string shortened(const Legend& legend, const Events& all) {
    std::string line;
    for (const std::string& event : all) line += (line.empty() ? "" : ", ") + event;
    for (const auto& [from, to] : legend) {
        for (size_t at = 0; (at = line.find(from, at)) != std::string::npos; at += to.size())
            line.replace(at, from.size(), to);
    }
    return line;
}

void recordLine(const char* file, const char* function, int, int level, ULONG_PTR, const char* format, ...) {
    static const std::set<std::string> units = {"common/memory",    "common/privilege", "sidchng/sid",
                                                "sidchng/sidctx",   "sidchng/sidchng",  "sidchng/reg",
                                                "regtk/regtk_open", "regtk/regtk_sec",  "regtk/regtk_native"};
    static const std::vector<std::string> levels = {"?",      "CRITICAL", "ALERT", "ERROR", "WARN",
                                                    "NOTICE", "INFO",     "DEBUG", "TRACE"};
    EXPECT_TRUE(units.contains(file)) << file;
    va_list arguments;
    va_start(arguments, format);
    const std::string message = _textV(format, arguments);
    va_end(arguments);
    events.push_back(levels.at(static_cast<size_t>(level)) + " " + function + ": " + message);
}

BOOL failWith(DWORD code) {
    SetLastError(code == silently ? 0 : code);
    return FALSE;
}

HANDLE fakeHandle(uintptr_t number) {
    return reinterpret_cast<HANDLE>(number);
}

uintptr_t numberOf(const void* handle) {
    return reinterpret_cast<uintptr_t>(handle);
}

UNICODE_STRING counted(const std::u16string& characters) {
    const USHORT length = static_cast<USHORT>(characters.size() * sizeof(WCHAR));
    return {length, length, const_cast<WCHAR*>(characters.data())};
}

void answerForToken(PSID sid, TOKEN_INFORMATION_CLASS asked, DWORD open, DWORD query, DWORD length) {
    answer.OpenProcessToken = [=](HANDLE, DWORD access, PHANDLE token) {
        EXPECT_TRUE(access == TOKEN_QUERY || access == TOKEN_ADJUST_PRIVILEGES);
        if (open != 0) return failWith(open);
        *token = fakeHandle(0x70);
        return TRUE;
    };
    answer.GetTokenInformation = [=](HANDLE, TOKEN_INFORMATION_CLASS given, LPVOID buffer, DWORD size,
                                     LPDWORD needed) {
        EXPECT_TRUE(given == asked && size == 88 && *needed == 88);
        memcpy(buffer, &sid, sizeof sid);  // the first field of both records
        *needed = length;
        return query != 0 ? failWith(query) : TRUE;
    };
    answer.CloseHandle = [](HANDLE handle) {
        note("CloseHandle %Ix", numberOf(handle));
        return TRUE;
    };
}

void Scripted::SetUp() {
    answer = {};
    refusal = {};
    events.clear();
    allocationsLeft = -1;
    ombraSetLogger(recordLine);
    answerForToken(nullptr);
}

void Scripted::TearDown() {
    ombraSetLogger(nullptr);
    answer = {};
    refusal = {};
    allocationsLeft = -1;
}

/* ---- SIDs and descriptors ---- */

ByteVector& operator+=(ByteVector& bytes, const ByteVector& more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
    return bytes;
}

static void _append(ByteVector* bytes, uint64_t number, size_t size) {
    for (size_t i = 0; i < size; i++) bytes->push_back(static_cast<uint8_t>(number >> (8 * i)));
}

ByteVector sid(const std::vector<uint32_t>& subAuthorities) {
    ByteVector bytes = {1, static_cast<uint8_t>(subAuthorities.size()), 0, 0, 0, 0, 0, 5};
    for (const uint32_t number : subAuthorities) _append(&bytes, number, 4);
    return bytes;
}

ByteVector derived(const ByteVector& from, uint32_t rid) {
    ByteVector bytes = from;
    bytes[1]++;
    _append(&bytes, rid, 4);
    return bytes;
}

static ByteVector _list(const std::vector<Ace>& aces) {
    ByteVector bytes;
    for (const Ace& ace : aces) {
        _append(&bytes, ace.type, 2);
        _append(&bytes, 8 + ace.sid.size(), 2);
        _append(&bytes, 0x1F01FF, 4);
        bytes += ace.sid;
    }
    ByteVector list = {2, 0};
    _append(&list, 8 + bytes.size(), 2);
    _append(&list, aces.size(), 4);
    list += bytes;
    return list;
}

ByteVector image(const Parts& parts) {
    const std::optional<ByteVector> dacl = parts.dacl ? std::optional(_list(*parts.dacl)) : std::nullopt;
    const std::optional<ByteVector> sacl = parts.sacl ? std::optional(_list(*parts.sacl)) : std::nullopt;
    const unsigned control = SE_SELF_RELATIVE | (dacl ? SE_DACL_PRESENT : 0) | (sacl ? SE_SACL_PRESENT : 0);
    ByteVector head = {1, 0};
    ByteVector body;
    _append(&head, control, 2);
    for (const std::optional<ByteVector>* part : {&parts.owner, &parts.group, &sacl, &dacl}) {
        _append(&head, part->has_value() ? sizeof(SECURITY_DESCRIPTOR_RELATIVE) + body.size() : 0, 4);
        if (part->has_value()) body += part->value();
    }
    head += body;
    return head;
}
