/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Names and ids, changed by the platform's calls in the registry that is open. */
#include <algorithm>
#include <array>
#include <cstring>

#include "companion/ending.h"
#include "companion/formatting.h"
#include "companion/identity/identity.h"
#include "companion/identity/identity_values.h"
#include "companion/results/code_names.h"
#include "platform/nt.h"
#include "platform/offline/base/bytes.h"
#include "platform/offline/base/unicode.h"

namespace companion {
namespace {

constexpr DWORD longestIdentityData = 65536; /* bytes; ours to set, an id has a hundred */
constexpr size_t longestShown = 64;          /* bytes of a value in a line */

/* ---- Keys and values ---- */

std::string adviceToLeave(IdentityItem item) {
    return item == IdentityItem::computerName ? "leave --computer-name out to do without"
                                              : std::string("leave ") + nameOf(item) + " out of --new";
}

std::string wordsForPlace(const std::string& key, const std::string& value) {
    return key + " \"" + value + "\"";
}

struct OpenKey {
    HKEY handle = nullptr; /* null: there is no such key */

    OpenKey() = default;
    ~OpenKey() {
        if (handle != nullptr) RegCloseKey(handle);
    }
    OpenKey(const OpenKey&) = delete;
    OpenKey& operator=(const OpenKey&) = delete;
};

/* One value of the registry, named for a person if something is wrong with it. */
class IdentityPlace {
public:
    IdentityPlace(std::u16string path, const IdentityValue& row) : keyPath(std::move(path)), about(row) {
        const LSTATUS code = RegOpenKeyExW(HKEY_LOCAL_MACHINE, keyPath.c_str(), 0,
                                           KEY_QUERY_VALUE | KEY_SET_VALUE, &key.handle);
        if (code != 0 && !isMissing(code)) refuse(code);
        if (code == 0) read();
    }

    bool isThere() const { return there; }
    bool isText() const { return type == REG_SZ; }

    /* A text up to its end, other data as digits. */
    std::u16string text() const {
        std::u16string units(data.size() / sizeof(char16_t), u'\0');
        if (!units.empty()) memcpy(units.data(), data.data(), units.size() * sizeof(char16_t));
        return units.substr(0, units.find(u'\0'));
    }
    std::string shown() const {
        if (type == REG_SZ || type == REG_EXPAND_SZ) return offline::toUtf8(text());
        std::u16string digits;
        for (const uint8_t byte : data) digits += hexadecimal(byte, 2);
        return offline::toUtf8(digits);
    }

    void write(const std::u16string& newText) const {
        const auto* const bytes = reinterpret_cast<const BYTE*>(newText.c_str());
        const size_t size = (newText.size() + 1) * sizeof(char16_t);
        if (const LSTATUS code =
                RegSetValueExW(key.handle, about.value, 0, REG_SZ, bytes, static_cast<DWORD>(size));
            code != 0)
            refuse(code);
    }
    void remove() const {
        if (const LSTATUS code = RegDeleteValueW(key.handle, about.value); code != 0) refuse(code);
    }

    [[noreturn]] void refuse(const std::string& why, const std::string& advice) const {
        throw Failure{wordsForPlace(offline::toUtf8(keyPath), offline::toUtf8(about.value)) + ": " + why +
                      "; nothing was changed; " + advice};
    }

private:
    static bool isMissing(LSTATUS code) {
        return code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND;
    }

    [[noreturn]] void refuse(LSTATUS code) const {
        refuse(win32Words(static_cast<uint32_t>(code)), adviceToLeave(about.item));
    }

    void read() {
        DWORD size = 0;
        LSTATUS code = RegQueryValueExW(key.handle, about.value, nullptr, &type, nullptr, &size);
        if (isMissing(code)) return;
        if (code == 0 && size > longestIdentityData) {
            refuse("it has " + std::to_string(size) + " bytes, which is no name or id",
                   adviceToLeave(about.item));
        }
        data.resize(size);
        if (code == 0) code = RegQueryValueExW(key.handle, about.value, nullptr, &type, data.data(), &size);
        if (code != 0) refuse(code);
        there = true;
    }

    std::u16string keyPath;
    const IdentityValue& about;
    OpenKey key;
    bool there = false;
    DWORD type = 0;
    std::vector<uint8_t> data = {};
};

/* ---- GUIDs ---- */

/* Whether it is one as texts have them, with braces or without. */
bool isGuid(std::u16string_view text) {
    if (text.size() == 38 && text.front() == u'{' && text.back() == u'}') text = text.substr(1, 36);
    if (text.size() != 36) return false;
    for (size_t i = 0; i < text.size(); i++) {
        const bool hyphen = i == 8 || i == 13 || i == 18 || i == 23;
        const char16_t unit = text[i];
        const bool digit = (unit >= u'0' && unit <= u'9') || (unit >= u'a' && unit <= u'f') ||
                           (unit >= u'A' && unit <= u'F');
        if (hyphen ? unit != u'-' : !digit) return false;
    }
    return true;
}

/* A random one, with the braces and the letters' case of another. */
std::u16string newGuidLike(const std::u16string& old) {
    UUID uuid;
    if (UuidCreate(&uuid) != RPC_S_OK) throw Failure{"the system gives no random numbers for a new id"};
    const auto byte = [&](size_t i) { return hexadecimal(uuid.Data4[i], 2); };
    std::u16string guid = hexadecimal(uuid.Data1, 8) + u"-" + hexadecimal(uuid.Data2, 4) + u"-" +
                          hexadecimal(uuid.Data3, 4) + u"-" + byte(0) + byte(1) + u"-";
    for (size_t i = 2; i < 8; i++) guid += byte(i);
    const bool capitals = old.find_first_of(u"ABCDEF") != std::u16string::npos;
    for (char16_t& unit : guid) {
        if (!capitals && unit >= u'A' && unit <= u'F') unit = static_cast<char16_t>(unit + (u'a' - u'A'));
    }
    return old.front() == u'{' ? u"{" + guid + u"}" : guid;
}

/* ---- All of them ---- */

struct IdentityChanger {
    const IdentityWish& wish;
    std::vector<IdentityChange> changes = {};
    std::vector<std::pair<std::u16string, std::u16string>> guids = {}; /* that were replaced, old and new */

    bool isWished(const IdentityValue& row) const {
        return row.item == IdentityItem::computerName ? !wish.computerName.empty()
                                                      : wish.renewed.contains(row.item);
    }

    /* What was one id in two places stays one. */
    const std::u16string& newGuid(const std::u16string& old) {
        for (const auto& [known, replacement] : guids) {
            if (offline::equalFolded(known, old)) return replacement;
        }
        return guids.emplace_back(old, newGuidLike(old)).second;
    }

    std::u16string newText(const IdentityValue& row, const IdentityPlace& place) {
        if (!place.isText()) place.refuse("it is no text", adviceToLeave(row.item));
        std::u16string name = offline::toUtf16(wish.computerName);
        if (row.treatment == Treatment::hostName) return name;
        if (row.treatment == Treatment::netbiosName) {
            std::transform(name.begin(), name.end(), name.begin(), offline::upcase);
            return name;
        }
        if (!isGuid(place.text())) place.refuse("it holds no GUID", adviceToLeave(row.item));
        return newGuid(place.text());
    }

    void change(const IdentityValue& row, const std::u16string& keyPath) {
        const IdentityPlace place(keyPath, row);
        IdentityChange change{
            row.item, IdentityAction::notThere, offline::toUtf8(keyPath), offline::toUtf8(row.value), {}, {}};
        if (!place.isThere()) {
            if (row.presence == Presence::usual) changes.push_back(std::move(change));
            return;
        }
        change.from = place.shown();
        if (row.treatment == Treatment::removed) {
            place.remove();
            change.action = IdentityAction::removed;
        } else {
            const std::u16string text = newText(row, place);
            const bool same = text == place.text();
            if (!same) place.write(text);
            change.action = same ? IdentityAction::unchanged : IdentityAction::replaced;
            change.to = offline::toUtf8(text);
        }
        changes.push_back(std::move(change));
    }
};

/* "SYSTEM\ControlSet001" and its like. */
std::vector<std::u16string> controlSets() {
    const std::u16string_view begin = u"ControlSet";
    std::vector<std::u16string> sets;
    OpenKey system;
    LSTATUS code = RegOpenKeyExW(HKEY_LOCAL_MACHINE, u"SYSTEM", 0, KEY_ENUMERATE_SUB_KEYS, &system.handle);
    std::array<char16_t, 256> name = {}; /* the longest, and its end */
    for (DWORD i = 0; code == 0; i++) {
        auto length = static_cast<DWORD>(name.size());
        code = RegEnumKeyExW(system.handle, i, name.data(), &length, nullptr, nullptr, nullptr, nullptr);
        if (code != 0) break;
        const std::u16string_view text(name.data(), length);
        const bool numbered =
            text.size() == begin.size() + 3 && offline::equalFolded(text.substr(0, begin.size()), begin) &&
            text.find_first_not_of(u"0123456789", begin.size()) == std::u16string_view::npos;
        if (numbered) sets.push_back(u"SYSTEM\\" + std::u16string(text));
    }
    if (code != ERROR_NO_MORE_ITEMS) {
        throw Failure{"SYSTEM: its control sets can't be listed (" + win32Words(static_cast<uint32_t>(code)) +
                      "); nothing was changed; check the disk"};
    }
    return sets;
}

/* A system without a name would not take one up where we put it. */
void refuseNameless() {
    const IdentityPlace place(std::u16string(u"SYSTEM\\CurrentControlSet\\") + identityValues[0].key,
                              identityValues[0]);
    if (!place.isThere())
        place.refuse("the system has no name there", adviceToLeave(IdentityItem::computerName));
}

} /* namespace */

const char* nameOf(IdentityAction action) {
    switch (action) {
        case IdentityAction::replaced:
            return "replaced";
        case IdentityAction::removed:
            return "removed";
        case IdentityAction::unchanged:
            return "unchanged";
        case IdentityAction::notThere:
            return "notThere";
        case IdentityAction::kept:
            break;
    }
    return "kept";
}

std::vector<IdentityChange> changeIdentity(const IdentityWish& wish) {
    if (wish.empty()) return {};
    if (!wish.computerName.empty()) refuseNameless();
    IdentityChanger changer{wish};
    const std::vector<std::u16string> sets = controlSets();
    for (const IdentityValue& row : identityValues) {
        if (!changer.isWished(row)) continue;
        if (row.place == KeyPlace::software) changer.change(row, u"SOFTWARE\\" + std::u16string(row.key));
        for (size_t i = 0; row.place == KeyPlace::everySet && i < sets.size(); i++) {
            changer.change(row, sets[i] + u"\\" + row.key);
        }
    }
    return std::move(changer.changes);
}

void forgetNewIds(std::vector<IdentityChange>& changes) {
    for (IdentityChange& change : changes) {
        if (change.item != IdentityItem::computerName) change.to.reset();
    }
}

void keepIdentity(std::vector<IdentityChange>& changes) {
    for (IdentityChange& change : changes) {
        if (change.action != IdentityAction::replaced && change.action != IdentityAction::removed) continue;
        change.action = IdentityAction::kept;
        change.to.reset();
    }
}

std::string changeLine(const IdentityChange& change, bool planned) {
    std::string from = change.from.value_or("");
    if (from.size() > longestShown) from = from.substr(0, longestShown) + "...";
    std::string line = nameOf(change.item);
    line += "  " + wordsForPlace(change.key, change.value) + ": ";
    switch (change.action) {
        case IdentityAction::replaced:
            return line + from + " -> " + change.to.value_or("a new one");
        case IdentityAction::removed:
            return line + from + (planned ? " would be removed" : " removed");
        case IdentityAction::unchanged:
            return line + from + " already, unchanged";
        case IdentityAction::notThere:
            return line + "not there";
        case IdentityAction::kept:
            break;
    }
    return line + from + " kept";
}

} /* namespace companion */
