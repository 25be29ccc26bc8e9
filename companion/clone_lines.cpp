/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Lines of words with spaces between, the texts among them as hexadecimal digits: names from a disk can hold
 * anything. */
#include "companion/clone_lines.h"

#include <array>
#include <charconv>
#include <cstdio>
#include <sstream>

namespace companion {
namespace {

constexpr char statusWord[] = "clone-status";
constexpr char changeWord[] = "clone-change";
constexpr char noText[] = "-";

/* "x" and two digits for each byte, so that an empty text is a word too. */
std::string toDigits(const std::optional<std::string>& text) {
    if (!text) return noText;
    std::string digits = "x";
    for (const char byte : *text) {
        std::array<char, 3> pair = {};
        snprintf(pair.data(), pair.size(), "%02x", static_cast<unsigned>(static_cast<unsigned char>(byte)));
        digits += pair.data();
    }
    return digits;
}

std::optional<std::string> fromDigits(const std::string& word) {
    if (!word.starts_with('x')) return {};
    std::string text;
    for (size_t at = 1; at + 1 < word.size(); at += 2) {
        unsigned byte = 0;
        std::from_chars(&word[at], &word[at] + 2, byte, 16);
        text.push_back(static_cast<char>(byte));
    }
    return text;
}

} /* namespace */

void printCloneLines(const Results& results) {
    printf("%s %d\n", statusWord, *results.runStatus);
    for (const IdentityChange& change : results.identity) {
        printf("%s %d %d %s %s %s %s\n", changeWord, static_cast<int>(change.item),
               static_cast<int>(change.action), toDigits(change.key).c_str(), toDigits(change.value).c_str(),
               toDigits(change.from).c_str(), toDigits(change.to).c_str());
    }
    fflush(stdout);
}

bool hearCloneLine(const std::string& line, CloneResult& clone) {
    std::istringstream words(line);
    std::string first, key, value, from, to;
    words >> first;
    int number = 0, action = 0;
    if (first == statusWord && words >> number) {
        clone.runStatus = number;
        return true;
    }
    if (first == changeWord && words >> number >> action >> key >> value >> from >> to) {
        clone.identity.push_back({static_cast<IdentityItem>(number), static_cast<IdentityAction>(action),
                                  fromDigits(key).value_or(""), fromDigits(value).value_or(""),
                                  fromDigits(from), fromDigits(to)});
        return true;
    }
    const std::string arrow = " -> ";
    const size_t at = line.find(arrow);
    if (!clone.newSid.empty() || !line.starts_with("S-1-") || at == std::string::npos) return false;
    clone.oldSid = line.substr(0, at);
    clone.newSid = line.substr(at + arrow.size());
    return true;
}

} /* namespace companion */
