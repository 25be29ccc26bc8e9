#include "platform/offline/system/environment.h"

#include <new>
#include <utility>

#include "platform/offline/base/system_needed.h"
#include "platform/offline/base/text.h"
#include "platform/offline/system/machine_hives.h"

namespace offline {
namespace {

std::vector<std::pair<std::u16string, std::u16string>> strings;

const std::u16string* find(std::u16string_view name) {
    for (const auto& [key, value] : strings) {
        if (equalFolded(key, name)) return &value;
    }
    return nullptr;
}

void put(std::u16string_view name, std::u16string_view value) {
    if (!value.empty() && find(name) == nullptr) strings.emplace_back(name, environmentExpand(value));
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
        put(name, hiveText(system, path, name));
    }
}

} /* namespace */

/* What is not known stays as it stands. What was put in is not looked at again. */
std::u16string environmentExpand(std::u16string_view text) {
    std::u16string out;
    while (!text.empty()) {
        const size_t open = text.find(u'%');
        const size_t close = open == text.npos ? text.npos : text.find(u'%', open + 1);
        if (close == text.npos) break;
        out += text.substr(0, open);
        const std::u16string* value = find(text.substr(open + 1, close - open - 1));
        if (value == nullptr) { /* the second sign may open a name of its own */
            out += text.substr(open, close - open);
            text.remove_prefix(close);
            continue;
        }
        out += *value;
        text.remove_prefix(close + 1);
    }
    return out.append(text);
}

NTSTATUS environmentLoad(const Hive& system, const Hive& software, char letter,
                         std::u16string_view directory) try {
    environmentReset();
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
} catch (const std::bad_alloc&) {
    return STATUS_NO_MEMORY;
}

void environmentReset() {
    strings.clear();
}

} /* namespace offline */

DWORD ExpandEnvironmentStringsW(LPCWSTR text, LPWSTR expanded, DWORD capacity) try {
    offline::systemNeeded();
    const std::u16string full = offline::environmentExpand(text);
    /* What fits is given, and an end only where there is room for one. */
    const size_t fits = full.copy(expanded, capacity);
    if (fits < capacity) expanded[fits] = 0;
    return static_cast<DWORD>(full.size() + 1);
} catch (const std::bad_alloc&) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return 0;
}
