/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "companion/results/report_parts.h"

#include "companion/audit/audit_words.h"
#include "companion/results/report.h"
#include "platform/offline/base/unicode.h"

namespace companion {

void PageWriter::open(const char* title, const std::string& note) const {
    put(std::string("<section><h2>") + title + "</h2>\n");
    if (!note.empty()) put("<p class=\"note\">" + note + "</p>\n");
}

size_t characterAt(const std::string& text, size_t at) {
    while (at > 0 && (static_cast<uint8_t>(text[at]) & 0xC0) == 0x80) at--;
    return at;
}

std::string number(uint64_t value) {
    std::string text = placesText(value);
    return text.substr(0, text.find(' '));
}

std::string counted(uint64_t value, const char* one, const char* many) {
    return number(value) + " " + (value == 1 ? one : many);
}

std::string htmlText(const std::string& text) {
    constexpr size_t longest = 1200, head = 800, tail = 300; /* bytes */
    std::string plain = offline::printable(text);
    if (plain.size() > longest) {
        const size_t from = characterAt(plain, head), to = characterAt(plain, plain.size() - tail);
        plain.replace(from, to - from, " [... " + number(to - from) + " bytes left out ...] ");
    }
    std::string html;
    for (const char character : plain) {
        switch (character) {
            case '&':
                html += "&amp;";
                break;
            case '<':
                html += "&lt;";
                break;
            case '>':
                html += "&gt;";
                break;
            case '"':
                html += "&quot;";
                break;
            case '\'':
                html += "&#39;";
                break;
            default:
                html += character;
        }
    }
    return html;
}

} /* namespace companion */
