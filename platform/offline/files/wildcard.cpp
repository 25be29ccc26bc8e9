/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/files/wildcard.h"

#include <cstddef>

#include "platform/offline/base/unicode.h"

namespace offline {
namespace {

/* Going back only to the last "*" is enough: an earlier one could not take more than it has already. */
bool fits(std::u16string_view pattern, std::u16string_view name) {
    size_t p = 0;
    size_t n = 0;
    size_t star = pattern.npos;
    size_t taken = 0;
    while (n < name.size()) {
        if (p < pattern.size() && pattern[p] == u'*') {
            star = p++;
            taken = n;
        } else if (p < pattern.size() && (pattern[p] == u'?' || upcase(pattern[p]) == upcase(name[n]))) {
            p++;
            n++;
        } else if (star != pattern.npos) {
            p = star + 1;
            n = ++taken;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == u'*') p++;
    return p == pattern.size();
}

} /* namespace */

bool hasWildcard(std::u16string_view name) {
    return name.find_first_of(u"*?") != name.npos;
}

bool matchesAll(std::u16string_view pattern) {
    return pattern == u"*" || pattern == u"*.*";
}

bool matches(std::u16string_view pattern, std::u16string_view name) {
    if (fits(pattern, name)) return true;
    return pattern.ends_with(u".*") && fits(pattern.substr(0, pattern.size() - 2), name);
}

} /* namespace offline */
