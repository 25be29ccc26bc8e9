/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Paths to keys, with links followed. */
#ifndef QUILLET_OFFLINE_REGISTRY_RESOLVE_H
#define QUILLET_OFFLINE_REGISTRY_RESOLVE_H

#include <cstddef>
#include <string>
#include <string_view>

#include "platform/nt.h"
#include "platform/offline/registry/namespace.h"

namespace offline {

/* Links followed on one path before it counts as a loop. */
constexpr size_t longestLinkChain = 32;

/* Where a path leads. The leaf may point into the path that was resolved, which must live as long. */
struct Resolved {
    KeyRef key; /* the key, or the last one reached when the rest is missing */
    std::u16string_view
        leaf; /* after STATUS_OBJECT_NAME_NOT_FOUND: the last component when only that is missing */
    std::u16string path; /* what a link has turned the path into */
};

/* Follows a path, relative to a key, through every link; one that is the last component is left unfollowed
 * when openLink is set, and so is the starting key when the path is empty. STATUS_OBJECT_NAME_NOT_FOUND for a
 * missing key and a dangling link, STATUS_INVALID_PARAMETER for a component of more than longestKeyName
 * characters, STATUS_OBJECT_PATH_INVALID for a loop of links. May throw std::bad_alloc when there are links.
 */
NTSTATUS resolvePath(const KeyRef& from, std::u16string_view path, bool openLink, Resolved& result);

/* The rest of an absolute path after "\Registry". STATUS_OBJECT_PATH_SYNTAX_BAD when it doesn't begin with a
 * backslash, STATUS_OBJECT_TYPE_MISMATCH for the backslash alone, STATUS_OBJECT_NAME_NOT_FOUND for another
 * beginning. */
NTSTATUS belowRegistry(std::u16string_view path, std::u16string_view& rest);

/* Takes the first component off a path, and the backslashes before and after it; empty when there is none.
 */
std::u16string_view takeComponent(std::u16string_view& path);

/* The value that makes a link key a link. */
constexpr std::u16string_view linkValueName = u"SymbolicLinkValue";

} /* namespace offline */

#endif
