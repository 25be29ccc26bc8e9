/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "companion/audit/audit_words.h"

#include <cstdio>

#include "platform/offline/base/unicode.h"

namespace companion {
namespace {

constexpr std::array<Words, kindCount> kinds = {{
    {"files", "files", "file"},
    {"key descriptors", "keyDescriptors", "key descriptor"},
    {"key names", "keyNames", "key name"},
    {"values", "values", "value"},
}};
constexpr std::array<Words, leftCount> reasons = {{
    {"entries of other types (object, callback)", "otherEntries", "entry of another type"},
    {"key names outside the table", "keyNamesOutside", "outside the table"},
    {"values outside the table", "valuesOutside", "outside the table"},
    {"other value types", "otherValueTypes", "another type"},
    {"text inside other text (a terminator counts)", "insideText", "inside other text"},
    {"names of values", "valueNames", "name of a value"},
}};

struct Sentences {
    const char *why, *matters;
};
constexpr std::array<Sentences, leftCount> sentences = {{
    {"Entries of permissions of the rarer kinds: only the four plain kinds are rewritten.",
     "Matters where such an entry is what gave an account its access; then grant it anew."},
    {"Names of keys that no program is known to look up by the machine's SID.",
     "Seldom matters: histories and caches, which are made anew under the new SID."},
    {"Values whose meaning only the program knows that wrote them: bytes that look like a SID need not be "
     "one.",
     "Seldom matters: a program may have to be set up again for an account."},
    {"Values of a type that is not rewritten, such as text with variables in it.",
     "Seldom matters: a program may have to be set up again for an account."},
    {"The SID's text in the middle of another text, or followed by nothing but the text's end.",
     "Seldom matters: mostly paths of folders that keep their old names, and records of the past."},
    {"Names of values, which are never rewritten.",
     "Seldom matters: mostly lists of what was seen or done, which are made anew."},
}};

} /* namespace */

const Words& wordsOf(Kind kind) {
    return kinds[static_cast<size_t>(kind)];
}

const Words& wordsOf(Left left) {
    return reasons[static_cast<size_t>(left)];
}

const char* whyLeft(Left left) {
    return sentences[static_cast<size_t>(left)].why;
}

const char* whetherItMatters(Left left) {
    return sentences[static_cast<size_t>(left)].matters;
}

uint64_t sum(const std::array<uint64_t, kindCount>& counts) {
    uint64_t all = 0;
    for (const uint64_t count : counts) all += count;
    return all;
}

std::string placesText(uint64_t number) {
    std::string digits = std::to_string(number);
    for (size_t at = digits.size(); at > 3; at -= 3) digits.insert(at - 3, ",");
    return digits + (number == 1 ? " place" : " places");
}

std::string findingLine(const Finding& finding, const char* state) {
    std::string text = std::string(state) + "  " + wordsOf(finding.kind).one;
    text += ", " + offline::printable(finding.path);
    if (finding.kind == Kind::value) text += ", \"" + offline::printable(finding.value) + "\"";
    if (finding.left) text += std::string(" (") + wordsOf(*finding.left).one + ")";
    return text;
}

namespace {

void printTable(const Counts& counts, Titles titles) {
    const bool done = titles.remaining != nullptr, remains = done && sum(counts.remaining) != 0;
    printf("%-18s%14s%13s", "", titles.changed, "stays");
    if (remains) printf("%15s", titles.remaining);
    for (size_t i = 0; i < kindCount; i++) {
        const uint64_t changed = done ? counts.changed[i] : counts.remaining[i];
        printf("\n%-18s%14llu%13llu", kinds[i].label, static_cast<unsigned long long>(changed),
               static_cast<unsigned long long>(counts.left[i]));
        if (remains) printf("%15llu", static_cast<unsigned long long>(counts.remaining[i]));
    }
    printf("\n");
}

void printReasons(const Counts& counts) {
    if (sum(counts.left) != 0) printf("\nstays, by design\n");
    for (size_t i = 0; i < leftCount; i++) {
        if (counts.reasons[i] == 0) continue;
        printf("  %-45s%7llu\n      %s\n      %s\n", reasons[i].label,
               static_cast<unsigned long long>(counts.reasons[i]), sentences[i].why, sentences[i].matters);
    }
}

void printOthers(const OtherSids& others) {
    constexpr size_t most = 10;
    const auto sorted = others.byPlaces();
    if (sorted.empty()) return;
    printf("\nSIDs of other machines or domains, which no run changes\n");
    for (size_t i = 0; i < sorted.size() && i < most; i++) {
        printf("  %-45s%7llu\n", sorted[i].first.c_str(), static_cast<unsigned long long>(sorted[i].second));
    }
    if (sorted.size() > most) printf("  and %zu more (--json lists them)\n", sorted.size() - most);
    printf(
        "      A domain that the machine belongs to, or an earlier identity: the machine's before another\n"
        "      run, or that of the system it was copied from.\n");
}

} /* namespace */

void printCounts(const Counts& counts, const OtherSids& others, Titles titles) {
    printTable(counts, titles);
    printReasons(counts);
    printOthers(others);
}

} /* namespace companion */
