#include "companion/audit_words.h"

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

} /* namespace */

const Words& wordsOf(Kind kind) {
    return kinds[static_cast<size_t>(kind)];
}

const Words& wordsOf(Left left) {
    return reasons[static_cast<size_t>(left)];
}

uint64_t sum(const std::array<uint64_t, kindCount>& counts) {
    uint64_t all = 0;
    for (const uint64_t count : counts) all += count;
    return all;
}

std::string findingLine(const Finding& finding, const char* treated, const char* left) {
    std::string text = finding.left ? left : treated;
    text += std::string("  ") + wordsOf(finding.kind).one;
    text += ", " + offline::printable(finding.path);
    if (finding.kind == Kind::value) text += ", \"" + offline::printable(finding.value) + "\"";
    if (finding.left) text += std::string(" (") + wordsOf(*finding.left).one + ")";
    return text;
}

void printCounts(const Audit& audit, const char* treated, const char* left) {
    printf("%-18s%14s%13s\n", "", treated, left);
    for (size_t i = 0; i < kindCount; i++) {
        printf("%-18s%14llu%13llu\n", kinds[i].label, static_cast<unsigned long long>(audit.treated[i]),
               static_cast<unsigned long long>(audit.left[i]));
    }
    if (sum(audit.left) != 0) printf("\n%s\n", left);
    for (size_t i = 0; i < leftCount; i++) {
        if (audit.reasons[i] == 0) continue;
        printf("  %-45s%7llu\n", reasons[i].label, static_cast<unsigned long long>(audit.reasons[i]));
    }
}

} /* namespace companion */
