/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/base/unicode.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <utility>

#include "platform/offline/base/upcase.h"

namespace offline {
namespace {

constexpr char16_t replacement = 0xFFFD;

bool isHigh(char16_t unit) {
    return unit >= 0xD800 && unit <= 0xDBFF;
}
bool isLow(char16_t unit) {
    return unit >= 0xDC00 && unit <= 0xDFFF;
}

/* The code point at the head of the text and its length in bytes; length 0 when the bytes are no UTF-8. */
size_t decode(std::string_view text, char32_t* point) {
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(0);
    if (lead < 0x80) {
        *point = lead;
        return 1;
    }
    const size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    if (lead < 0xC2 || lead > 0xF4 || text.size() < length) return 0;
    *point = lead & (0x7Fu >> length);
    for (size_t i = 1; i < length; i++) {
        if ((byte(i) & 0xC0) != 0x80) return 0;
        *point = *point << 6 | (byte(i) & 0x3Fu);
    }
    const bool tooLong = (length == 3 && *point < 0x800) || (length == 4 && *point < 0x10000);
    const bool surrogate = *point >= 0xD800 && *point <= 0xDFFF;
    return tooLong || surrogate || *point > 0x10FFFF ? 0 : length;
}

void encode(char32_t point, std::string& out) {
    if (point < 0x80) {
        out += static_cast<char>(point);
    } else if (point < 0x800) {
        out += static_cast<char>(0xC0 | point >> 6);
        out += static_cast<char>(0x80 | (point & 0x3F));
    } else if (point < 0x10000) {
        out += static_cast<char>(0xE0 | point >> 12);
        out += static_cast<char>(0x80 | (point >> 6 & 0x3F));
        out += static_cast<char>(0x80 | (point & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | point >> 18);
        out += static_cast<char>(0x80 | (point >> 12 & 0x3F));
        out += static_cast<char>(0x80 | (point >> 6 & 0x3F));
        out += static_cast<char>(0x80 | (point & 0x3F));
    }
}

std::string escaped(const char* format, unsigned number) {
    std::array<char, 16> text = {};
    snprintf(text.data(), text.size(), format, number);
    return text.data();
}

bool looksEscaped(std::string_view text) {
    return text.starts_with("<U+") || text.starts_with("<0x");
}

} /* namespace */

std::u16string toUtf16(std::string_view utf8) {
    std::u16string out;
    out.reserve(utf8.size());
    while (!utf8.empty()) {
        char32_t point = 0;
        const size_t length = decode(utf8, &point);
        utf8.remove_prefix(length == 0 ? 1 : length);
        if (length == 0) {
            out += replacement;
        } else if (point < 0x10000) {
            out += static_cast<char16_t>(point);
        } else {
            out += static_cast<char16_t>(0xD800 + ((point - 0x10000) >> 10));
            out += static_cast<char16_t>(0xDC00 + ((point - 0x10000) & 0x3FF));
        }
    }
    return out;
}

std::string toUtf8(std::u16string_view utf16) {
    std::string out;
    out.reserve(utf16.size());
    for (size_t i = 0; i < utf16.size(); i++) {
        char32_t point = utf16[i];
        if (isHigh(utf16[i]) && i + 1 < utf16.size() && isLow(utf16[i + 1])) {
            point = 0x10000 + ((point - 0xD800) << 10) + (utf16[i + 1] - 0xDC00u);
            i++;
        } else if (isHigh(utf16[i]) || isLow(utf16[i])) {
            point = replacement;
        }
        encode(point, out);
    }
    return out;
}

bool isUnprintable(char32_t point) {
    static constexpr std::pair<char32_t, char32_t> ranges[] = {
        {0x00, 0x1F},     {0x7F, 0x9F},     {0x061C, 0x061C}, {0x200E, 0x200F},
        {0x2028, 0x2029}, {0x202A, 0x202E}, {0x2066, 0x2069}};
    return std::any_of(std::begin(ranges), std::end(ranges),
                       [point](const auto& range) { return point >= range.first && point <= range.second; });
}

std::string printable(std::string_view utf8) {
    std::string out;
    out.reserve(utf8.size());
    while (!utf8.empty()) {
        char32_t point = 0;
        const size_t length = decode(utf8, &point);
        if (length == 0) {
            out += escaped("<0x%02X>", static_cast<unsigned char>(utf8.front()));
        } else if (isUnprintable(point) || looksEscaped(utf8)) {
            out += escaped("<U+%04X>", static_cast<unsigned>(point));
        } else {
            out += utf8.substr(0, length);
        }
        utf8.remove_prefix(length == 0 ? 1 : length);
    }
    return out;
}

char16_t upcase(char16_t unit) {
    return upcaseTable()[unit];
}

int compareFolded(std::u16string_view left, std::u16string_view right) {
    const UpcaseTable& upper = upcaseTable();
    const size_t common = left.size() < right.size() ? left.size() : right.size();
    for (size_t i = 0; i < common; i++) {
        const int difference = static_cast<int>(upper[left[i]]) - static_cast<int>(upper[right[i]]);
        if (difference != 0) return difference;
    }
    return left.size() == right.size() ? 0 : left.size() < right.size() ? -1 : 1;
}

} /* namespace offline */

VOID RtlInitUnicodeString(PUNICODE_STRING target, PCWSTR source) {
    constexpr size_t longest = (UINT16_MAX & ~size_t{1}) - sizeof(WCHAR);
    size_t bytes = 0;
    if (source != nullptr) {
        while (bytes < longest && source[bytes / sizeof(WCHAR)] != 0) bytes += sizeof(WCHAR);
    }
    target->Length = static_cast<USHORT>(bytes);
    target->MaximumLength = static_cast<USHORT>(source == nullptr ? 0 : bytes + sizeof(WCHAR));
    target->Buffer = const_cast<PWSTR>(source);
}

NTSTATUS RtlAppendUnicodeStringToString(PUNICODE_STRING target, const UNICODE_STRING* source) {
    if (source->Length == 0) return STATUS_SUCCESS;
    const size_t total = size_t{target->Length} + source->Length;
    if (total > target->MaximumLength) return STATUS_BUFFER_TOO_SMALL;
    memmove(reinterpret_cast<char*>(target->Buffer) + target->Length, source->Buffer, source->Length);
    target->Length = static_cast<USHORT>(total);
    if (total + sizeof(WCHAR) <= target->MaximumLength) target->Buffer[total / sizeof(WCHAR)] = 0;
    return STATUS_SUCCESS;
}
