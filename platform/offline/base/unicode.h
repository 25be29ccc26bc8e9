/* SPDX-License-Identifier: GPL-2.0-or-later */
/* UTF-8 and UTF-16, counted strings, and the platform's folding of letters. */
#ifndef QUILLET_OFFLINE_BASE_UNICODE_H
#define QUILLET_OFFLINE_BASE_UNICODE_H

#include <string>
#include <string_view>

#include "platform/nt.h"

namespace offline {

/* Bytes that are no UTF-8 become U+FFFD, one for each byte. */
std::u16string toUtf16(std::string_view utf8);

/* An unpaired surrogate becomes U+FFFD. */
std::string toUtf8(std::u16string_view utf16);

/* Whether a character does something to a terminal instead of standing there: control characters (C0, DEL,
 * C1), separators of lines, and marks that turn the direction of the text around them. */
bool isUnprintable(char32_t point);

/* The text for a person to read, on one line and with nothing in it that a terminal would obey: what can't be
 * shown stands there as "<U+001B>", a byte that is no UTF-8 as "<0x9B>", and a text that looks like one of
 * these with its "<" as "<U+003C>", so that each form means one thing. All that comes from a disk or a
 * command line passes through here before it is printed. */
std::string printable(std::string_view utf8);

/* The platform's upper case of one UTF-16 code unit, over the whole Basic Multilingual Plane; surrogates
 * stay. */
char16_t upcase(char16_t unit);

/* Compares as the platform orders names: by upcased code units, the shorter first. Below, at or above 0. */
int compareFolded(std::u16string_view left, std::u16string_view right);

inline bool equalFolded(std::u16string_view left, std::u16string_view right) {
    return left.size() == right.size() && compareFolded(left, right) == 0;
}

/* The characters of a counted string; an odd last byte is not one. */
inline std::u16string_view view(const UNICODE_STRING* text) {
    if (text == nullptr || text->Buffer == nullptr) return {};
    return {text->Buffer, text->Length / sizeof(WCHAR)};
}

} /* namespace offline */

#endif
