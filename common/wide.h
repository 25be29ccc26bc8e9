/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Small helpers for wide strings: the C library's own take another character type on one of the two
 * platforms. */
#ifndef QUILLET_COMMON_WIDE_H
#define QUILLET_COMMON_WIDE_H

#include <cstddef>
#include <cstring>

#include "platform/nt.h"

/* Characters before the terminator. */
inline size_t wideLength(const WCHAR* text) {
    size_t length = 0;
    while (text[length] != 0) length++;
    return length;
}

/* Compared to the letter, case-sensitively. */
inline bool wideEqual(const WCHAR* left, const WCHAR* right) {
    while (*left == *right && *left != 0) {
        left++;
        right++;
    }
    return *left == *right;
}

/* Copies length characters; the regions must not overlap. */
inline void wideCopy(WCHAR* target, const WCHAR* source, size_t length) {
    memcpy(target, source, length * sizeof(WCHAR));
}

#endif
