/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The options: rules for computer names, patterns for those of clones, lists of ids. */
#include <algorithm>
#include <array>
#include <string_view>

#include "companion/ending.h"
#include "companion/identity/identity.h"

namespace companion {
namespace {

constexpr size_t longestComputerName = 15; /* characters, of a NetBIOS name */
constexpr size_t mostNumberDigits = 9;

const std::string nameOption = "--computer-name: ";

bool isDigit(char character) {
    return character >= '0' && character <= '9';
}

bool isLetter(char character) {
    return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z');
}

void checkComputerName(const std::string& name) {
    const auto refuse = [&](const std::string& why) {
        throw Failure{nameOption + "\"" + name + "\" " + why};
    };
    if (name.empty()) throw Failure{nameOption + "it is empty; give a name, or leave the option out"};
    const auto wrong = std::find_if(name.begin(), name.end(), [](char character) {
        return !isLetter(character) && !isDigit(character) && character != '-';
    });
    if (wrong == name.end()) {
        if (name.size() > longestComputerName) {
            refuse("has " + std::to_string(name.size()) + " characters; take " +
                   std::to_string(longestComputerName) + " at most");
        }
        if (name.front() == '-' || name.back() == '-') {
            refuse("begins or ends with a hyphen; let a letter or digit stand there");
        }
        if (std::all_of(name.begin(), name.end(), isDigit)) refuse("is digits alone; add a letter");
        return;
    }
    if (*wrong == '%') refuse("holds a \"%\", which only clone makes numbers of; leave it out");
    refuse("holds a character that no computer name has; take the letters A to Z, digits and hyphens");
}

/* A pattern's parts around its number, and how many digits that has at least. */
struct NumberedName {
    std::string before, after;
    size_t digits = 0;
};

[[noreturn]] void refusePattern(const std::string& pattern) {
    throw Failure{nameOption + "\"" + pattern +
                  "\" is no name with a number; write one %d, or %02d for two digits, and no other \"%\""};
}

/* False where the pattern has no "%". */
bool splitPattern(const std::string& pattern, NumberedName& parts) {
    const size_t percent = pattern.find('%');
    if (percent == std::string::npos) return false;
    size_t at = percent + 1;
    if (at < pattern.size() && pattern[at] == '0') {
        for (++at; at < pattern.size() && isDigit(pattern[at]) && parts.digits <= mostNumberDigits; ++at) {
            parts.digits = parts.digits * 10 + static_cast<size_t>(pattern[at] - '0');
        }
        if (parts.digits == 0 || parts.digits > mostNumberDigits) refusePattern(pattern);
    }
    if (at >= pattern.size() || pattern[at] != 'd' || pattern.find('%', at) != std::string::npos) {
        refusePattern(pattern);
    }
    parts.before = pattern.substr(0, percent);
    parts.after = pattern.substr(at + 1);
    return true;
}

std::string numbered(const NumberedName& parts, size_t number) {
    const std::string digits = std::to_string(number);
    const size_t zeros = parts.digits - std::min(parts.digits, digits.size());
    return parts.before + std::string(zeros, '0') + digits + parts.after;
}

const std::array<const char*, identityItemCount> itemNames = {"computer-name", "machine-guid", "wsus-id",
                                                              "duid", "telemetry-id"};

std::set<IdentityItem> renewedItems(std::string_view list) {
    std::set<IdentityItem> items;
    for (bool more = true; more;) {
        const size_t end = std::min(list.find(','), list.size());
        const std::string_view word = list.substr(0, end);
        const bool all = word == "all";
        bool known = all;
        for (size_t i = 1; i < itemNames.size(); i++) {
            if (!all && word != itemNames[i]) continue;
            items.insert(static_cast<IdentityItem>(i));
            known = true;
        }
        if (!known) {
            throw Failure{"--new: \"" + std::string(word) +
                          "\" is none of machine-guid, wsus-id, duid, telemetry-id, all; name some of these, "
                          "with commas between"};
        }
        more = end < list.size();
        list.remove_prefix(std::min(end + 1, list.size()));
    }
    return items;
}

} /* namespace */

const char* nameOf(IdentityItem item) {
    return itemNames[static_cast<size_t>(item)];
}

IdentityWish identityWish(const IdentityOptions& options) {
    IdentityWish wish;
    if (options.computerName) {
        checkComputerName(*options.computerName);
        wish.computerName = *options.computerName;
    }
    if (options.renewed) wish.renewed = renewedItems(*options.renewed);
    return wish;
}

void refuseWithoutRun(const std::vector<std::string>& quilletOptions, const IdentityWish& wish) {
    if (wish.empty()) return;
    for (const std::string& option : quilletOptions) {
        if (option.starts_with('-') && option.find_first_not_of("fbrqv", 1) == std::string::npos) continue;
        throw Failure{
            "\"" + option +
            "\": names and ids are changed together with the SID, and with this that stays; leave it "
            "out, or --computer-name and --new"};
    }
}

std::vector<std::string> computerNames(const std::string& pattern, size_t first, size_t count) {
    NumberedName parts;
    std::vector<std::string> names;
    const bool hasNumber = splitPattern(pattern, parts);
    if (!hasNumber && count > 1) {
        throw Failure{nameOption + "\"" + pattern + "\" would be the name of all " + std::to_string(count) +
                      " clones; put a number into it, such as " + pattern + "-%02d"};
    }
    for (size_t i = 0; i < count; i++) {
        names.push_back(hasNumber ? numbered(parts, first + i) : pattern);
        checkComputerName(names.back());
    }
    return names;
}

} /* namespace companion */
