/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/descriptor/sid_format.h"

#include <cctype>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>

#include "platform/offline/base/bytes.h"

namespace offline {
namespace {

uint64_t authorityOf(Bytes sid) {
    uint64_t authority = 0;
    for (size_t i = 2; i < sidHead; i++) authority = authority << 8 | sid[i];
    return authority;
}

/* Takes "-" and a number off the head of the text: decimal, or hexadecimal after "0x". */
bool takeNumber(const char*& text, uint64_t highest, uint64_t& number) {
    if (*text++ != '-') return false;
    const int base = text[0] == '0' && (text[1] == 'x' || text[1] == 'X') ? 16 : 10;
    if (base == 16) text += 2;
    if (isxdigit(static_cast<unsigned char>(*text)) == 0)
        return false;  // strtoull would take spaces and signs
    char* end = nullptr;
    number = strtoull(text, &end, base);
    if (end == text) return false;
    text = end;
    return number <= highest;
}

std::vector<uint8_t> parse(const char* text) {
    uint64_t number = 0;
    if (*text != 'S' && *text != 's') return {};
    text++;
    if (!takeNumber(text, sidRevision, number) || number != sidRevision) return {};
    if (!takeNumber(text, 0xFFFFFFFFFFFFu, number)) return {};
    std::vector<uint8_t> sid = {sidRevision, 0};
    for (int shift = 40; shift >= 0; shift -= 8) sid.push_back(static_cast<uint8_t>(number >> shift));
    while (*text != 0) {
        if (sid[1] == mostSubAuthorities || !takeNumber(text, UINT32_MAX, number)) return {};
        for (int shift = 0; shift < 32; shift += 8) sid.push_back(static_cast<uint8_t>(number >> shift));
        sid[1]++;
    }
    return sid;
}

} /* namespace */

size_t sidLength(Bytes sid) {
    if (sid.size() < sidHead || sid[0] != sidRevision || sid[1] > mostSubAuthorities) return 0;
    const size_t length = sidHead + size_t{sid[1]} * 4;
    return length <= sid.size() ? length : 0;
}

size_t formatSid(Bytes sid, SidText& text) {
    const size_t length = sidLength(sid);
    if (length == 0) return 0;
    const uint64_t authority = authorityOf(sid);
    char* const out = text.characters;
    const bool decimal = authority <= UINT32_MAX;
    auto used = static_cast<size_t>(
        snprintf(out, sizeof text, decimal ? "S-1-%" PRIu64 : "S-1-0x%012" PRIx64, authority));
    for (size_t at = sidHead; at < length; at += 4) {
        used += static_cast<size_t>(
            snprintf(out + used, sizeof text - used, "-%" PRIu32, numberAt<uint32_t>(sid, at)));
    }
    return used;
}

std::string sidToText(Bytes sid) {
    SidText text = {};
    const size_t length = formatSid(sid, text);
    return {text.characters, length};
}

std::vector<uint8_t> sidFromText(const std::string& text) {
    if (text.find('\0') != std::string::npos) return {};
    return parse(text.c_str());
}

} /* namespace offline */
