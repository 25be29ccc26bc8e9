/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "companion/results/json.h"

#include <array>
#include <cstdio>

#include "platform/offline/base/unicode.h"

namespace companion {

/* What was written last decides whether a comma is due. */
void JsonWriter::separate() {
    constexpr size_t enough = 1 << 16; /* bytes */
    if (text.size() > enough) {
        fwrite(text.data(), 1, text.size() - 1, out);
        text.erase(0, text.size() - 1);
    }
    const char last = text.empty() ? '{' : text.back();
    if (last != '{' && last != '[' && last != ':') text += ',';
}

/* What is no UTF-8, as the name of a file can be, is replaced, so that all of it is JSON. What a terminal
 * would obey is escaped as well: it means the same, and JSON is looked at on terminals too. */
void JsonWriter::quote(std::string_view value) {
    text += '"';
    std::u16string plain;
    for (const char16_t unit : offline::toUtf16(value)) {
        const bool quoted = unit == u'"' || unit == u'\\';
        if (!quoted && !offline::isUnprintable(unit)) {
            plain += unit;
            continue;
        }
        text += offline::toUtf8(plain);
        plain.clear();
        std::array<char, 8> escape = {};
        snprintf(escape.data(), escape.size(), quoted ? "\\%c" : "\\u%04x", static_cast<unsigned>(unit));
        text += escape.data();
    }
    text += offline::toUtf8(plain);
    text += '"';
}

void JsonWriter::member(std::string_view name) {
    separate();
    quote(name);
    text += ':';
}

void JsonWriter::open(char bracket) {
    separate();
    text += bracket;
}

void JsonWriter::open(std::string_view name, char bracket) {
    member(name);
    text += bracket;
}

void JsonWriter::close(char bracket) {
    text += bracket;
}

void JsonWriter::finish() {
    text += '\n';
    fwrite(text.data(), 1, text.size(), out);
    text.clear();
}

void JsonWriter::item(std::string_view value) {
    separate();
    quote(value);
}

void JsonWriter::put(std::string_view name, std::string_view value) {
    member(name);
    quote(value);
}

void JsonWriter::put(std::string_view name, uint64_t value) {
    member(name);
    text += std::to_string(value);
}

void JsonWriter::put(std::string_view name, int value) {
    member(name);
    text += std::to_string(value);
}

void JsonWriter::putNull(std::string_view name) {
    member(name);
    text += "null";
}

void JsonWriter::putKnown(std::string_view name, std::string_view value) {
    if (value.empty()) {
        putNull(name);
    } else {
        put(name, value);
    }
}

void JsonWriter::put(std::string_view name, bool value) {
    member(name);
    text += value ? "true" : "false";
}

} /* namespace companion */
