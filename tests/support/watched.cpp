/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "tests/support/watched.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <type_traits>

#include "common/log.h"
#include "platform/offline/base/session.h"
#include "platform/offline/base/unicode.h"
#include "platform/offline/registry/open_keys.h"
#include "tool/log_sink.h"
#include "tool/text_format.h"

std::vector<Fault> faults;
Answers answer;
int allocationsLeft = -1;
std::map<std::string, int> callsMade;
Events events;

/* ---- The redirected calls ---- */

namespace {

std::string keyName(HANDLE key) {
    offline::KeyRef ref;
    char16_t name[offline::longestKeyName];
    return offline::useKey(key, 0, ref) < 0 ? "" : offline::toUtf8({name, offline::keyName(ref, name)});
}

/* What a call is made on, by its arguments. */
template <class First, class... Rest>
std::string subject(First first, Rest...) {
    if constexpr (std::is_convertible_v<First, LPCWSTR>) {
        return text("%ws", static_cast<LPCWSTR>(first));
    } else if constexpr (std::is_convertible_v<First, HANDLE>) {
        return keyName(first);
    } else {
        return "";
    }
}
std::string subject(LPCWSTR, LPCWSTR privilege, PLUID) {
    return text("%ws", privilege);
}
template <class... Rest>
std::string subject(PHANDLE, ACCESS_MASK, POBJECT_ATTRIBUTES attributes, Rest...) {
    if (attributes->ObjectName->Length == 0) return keyName(attributes->RootDirectory);
    const std::string path = text("%wZ", attributes->ObjectName);
    return path.substr(path.rfind('\\') + 1);
}

/* The code that a call is to fail with. */
template <class... Arguments>
bool fails(const char* call, LONG& code, Arguments... arguments) {
    callsMade[call]++;
    for (Fault& fault : faults) {
        if (fault.call != call || (!fault.on.empty() && fault.on != subject(arguments...))) continue;
        if (fault.after-- > 0 || fault.times-- <= 0) continue;
        code = fault.code;
        return true;
    }
    return false;
}

bool allocationFails() {
    if (allocationsLeft == 0) return true;
    if (allocationsLeft > 0) allocationsLeft--;
    return false;
}

} /* namespace */

extern "C" {

/* A close that fails closes all the same. */
#define WATCHED(result, name, parameters, arguments, failed)                \
    result __real_##name parameters;                                        \
    result __wrap_##name parameters {                                       \
        const auto call = [](auto... all) -> result {                       \
            LONG code = 0;                                                  \
            if (fails(#name, code, all...)) {                               \
                if (#name == std::string("ZwClose")) __real_##name(all...); \
                return failed;                                              \
            }                                                               \
            if (answer.name) return answer.name(all...);                    \
            return __real_##name(all...);                                   \
        };                                                                  \
        return call arguments;                                              \
    }
#define LEFT(value) (SetLastError(code == silently ? 0 : static_cast<DWORD>(code)), value)
#define CODE(result, name, parameters, arguments) \
    WATCHED(result, name, parameters, arguments, static_cast<result>(code))
#define FLAG(result, name, parameters, arguments) WATCHED(result, name, parameters, arguments, LEFT(0))
#define OTHER(result, name, parameters, arguments) \
    WATCHED(result, name, parameters, arguments, LEFT((result)intptr_t{-1}))
#include "tests/support/calls.h"

void* __real_malloc(size_t size);
void* __real_realloc(void* block, size_t size);

void* __wrap_malloc(size_t size) {
    return allocationFails() ? nullptr : __real_malloc(size);
}

void* __wrap_realloc(void* block, size_t size) {
    return allocationFails() ? nullptr : __real_realloc(block, size);
}

} /* extern "C" */

const Answers platform = {
#define CODE(result, name, parameters, arguments) __real_##name,
#define FLAG CODE
#define OTHER CODE
#include "tests/support/calls.h"
};

size_t openHandles() {
    const auto& slots = offline::session().handles.slots;
    return static_cast<size_t>(
        std::count_if(slots.begin(), slots.end(), [](const auto& slot) { return slot.type != nullptr; }));
}

/* ---- The record ---- */

static std::string textV(const char* format, va_list arguments) {
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
    std::string result = textV(format, arguments);
    va_end(arguments);
    return result;
}

void note(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    events.push_back(textV(format, arguments));
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

static void recordLine(const char* file, const char* function, int, int level, ULONG_PTR, const char* format,
                       ...) {
    static const char* const levels[] = {"?",      "CRITICAL", "ALERT", "ERROR", "WARN",
                                         "NOTICE", "INFO",     "DEBUG", "TRACE"};
    const std::string room = std::string(file).substr(0, std::string(file).find('/'));
    EXPECT_TRUE(room == "common" || room == "regtk" || room == "sidchng") << file;
    va_list arguments;
    va_start(arguments, format);
    events.push_back(std::string(levels[level]) + " " + function + ": " + textV(format, arguments));
    va_end(arguments);
}

void beginWatching() {
    endWatching();
    callsMade.clear();
    events.clear();
    ombraSetLogger(recordLine);
}

void endWatching() {
    ombraSetLogger(nullptr);
    faults.clear();
    answer = {};
    allocationsLeft = -1;
    verbosity = 0;
}
