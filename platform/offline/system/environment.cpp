/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/system/environment.h"

#include <algorithm>
#include <functional>
#include <map>
#include <new>
#include <utility>

#include "platform/offline/base/guarded.h"
#include "platform/offline/base/status.h"
#include "platform/offline/base/system_needed.h"
#include "platform/offline/base/unicode.h"
#include "platform/offline/hive/hive_paths.h"
#include "platform/offline/system/control_set.h"
#include "platform/offline/system/system_state.h"

namespace offline {
namespace {

/* The platform's limit for a string and for what it is expanded to; and more than any machine sets, for all
 * strings together: those of a hive can name each other, and would fill the memory. */
constexpr size_t longestString = 32767, mostCharacters = size_t{1} << 20;

std::u16string folded(std::u16string_view name) {
    std::u16string out(name);
    for (char16_t& unit : out) unit = upcase(unit);
    return out;
}

const std::u16string* find(std::u16string_view name) {
    if (name.size() > longestString) return nullptr;
    const auto found = systemState().environment.strings.find(folded(name));
    return found == systemState().environment.strings.end() ? nullptr : &found->second;
}

void put(std::u16string_view name, std::u16string_view value) {
    if (value.empty() || find(name) != nullptr) return;
    std::u16string expanded = environmentExpand(value);
    const size_t characters = name.size() + expanded.size();
    Environment& environment = systemState().environment;
    if (characters > mostCharacters - environment.characters) return;
    environment.characters += characters;
    environment.strings.emplace(folded(name), std::move(expanded));
}

/* Everything that the machine sets for all its processes. */
void putMachineStrings(const Hive& system) {
    std::u16string path = u"ControlSet000\\Control\\Session Manager\\Environment";
    uint32_t number = currentControlSet(system);
    for (size_t at = 12; number != 0 && at >= 10; at--, number /= 10) {
        path[at] = static_cast<char16_t>(u'0' + number % 10);
    }
    Cell key;
    HiveValue value;
    if (hiveFindPath(system, path, key) < 0) return;
    for (uint32_t index = 0; hiveValue(system, key, index, value) >= 0; index++) {
        std::u16string name(value.nameLength, u'\0');
        hiveValueName(system, value, name.data());
        put(name, hiveValueText(system, value));
    }
}

NTSTATUS load(const Hive& system, const Hive& software, char letter, std::u16string_view directory) {
    const std::u16string drive = {static_cast<char16_t>(letter), u':'};
    const std::u16string root = std::u16string(drive).append(u"\\").append(directory);
    static const std::u16string_view version = u"Microsoft\\Windows\\CurrentVersion";
    static const std::u16string_view profiles = u"Microsoft\\Windows NT\\CurrentVersion\\ProfileList";
    put(u"SystemDrive", drive);
    put(u"SystemRoot", root);
    put(u"windir", root);
    put(u"ProgramFiles", hiveText(software, version, u"ProgramFilesDir"));
    put(u"ProgramFiles(x86)", hiveText(software, version, u"ProgramFilesDir (x86)"));
    put(u"CommonProgramFiles", hiveText(software, version, u"CommonFilesDir"));
    put(u"ProgramData", hiveText(software, profiles, u"ProgramData"));
    put(u"ALLUSERSPROFILE", hiveText(software, profiles, u"ProgramData"));
    put(u"PUBLIC", hiveText(software, profiles, u"Public"));
    put(u"USERPROFILE", std::u16string(root).append(u"\\system32\\config\\systemprofile"));
    putMachineStrings(system);
    return STATUS_SUCCESS;
}

} /* namespace */

/* What is not known stays as it stands. What was put in is not looked at again. */
std::u16string environmentExpand(std::u16string_view text) {
    std::u16string out;
    std::u16string_view rest = text;
    while (!rest.empty() && out.size() <= longestString) {
        const size_t open = rest.find(u'%');
        const size_t close = open == rest.npos ? rest.npos : rest.find(u'%', open + 1);
        if (close == rest.npos) break;
        out += rest.substr(0, open);
        const std::u16string* value = find(rest.substr(open + 1, close - open - 1));
        if (value == nullptr) { /* the second sign may open a name of its own */
            out += rest.substr(open, close - open);
            rest.remove_prefix(close);
            continue;
        }
        out += *value;
        rest.remove_prefix(close + 1);
    }
    out.append(rest.substr(0, longestString + 1));
    return out.size() <= longestString ? out : std::u16string(text);
}

NTSTATUS environmentLoad(const Hive& system, const Hive& software, char letter,
                         std::u16string_view directory) {
    environmentReset();
    return guarded([&] { return load(system, software, letter, directory); });
}

void environmentReset() {
    if (hasRoomState(StatefulRoom::system)) systemState().environment = {};
}

} /* namespace offline */

DWORD ExpandEnvironmentStringsW(LPCWSTR text, LPWSTR expanded, DWORD capacity) {
    offline::systemNeeded();
    DWORD needed = 0; /* characters, with the end */
    const NTSTATUS status = offline::guarded([&] {
        const std::u16string full = offline::environmentExpand(text);
        /* What fits is given, and an end only where there is room for one. */
        const size_t fits = full.copy(expanded, capacity);
        if (fits < capacity) expanded[fits] = 0;
        needed = static_cast<DWORD>(full.size() + 1);
        return STATUS_SUCCESS;
    });
    return offline::booleanResult(status) ? needed : 0;
}
