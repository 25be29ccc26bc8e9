/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Patterns of names. */
#ifndef QUILLET_OFFLINE_FILES_WILDCARD_H
#define QUILLET_OFFLINE_FILES_WILDCARD_H

#include <string_view>

namespace offline {

bool hasWildcard(std::u16string_view name);

/* Whether every name fits: "*" and "*.*". */
bool matchesAll(std::u16string_view pattern);

/* Whether a name fits, letters folded: "*" stands for any characters, "?" for one, and a final ".*" for no
 * extension as well. */
bool matches(std::u16string_view pattern, std::u16string_view name);

} /* namespace offline */

#endif
