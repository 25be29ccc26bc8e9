/* SIDs, their text, and the calls that make it. */
#include <cctype>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "platform/offline/base/status.h"
#include "platform/offline/security/parts.h"

namespace offline {
namespace {

/* Revision, number of sub-authorities, authority (6 bytes, the highest first), sub-authorities (4 bytes
 * each). */
constexpr size_t headSize = 8;
constexpr uint8_t sidRevision = 1;
constexpr size_t mostSubAuthorities = 15;

/* "S-1-", an authority of at most 14 characters, and "-4294967295" for each sub-authority. */
constexpr size_t longestText = 4 + 14 + mostSubAuthorities * 11;
struct SidText {
    char characters[longestText + 1];
};

uint64_t authorityOf(Bytes sid) {
    uint64_t authority = 0;
    for (size_t i = 2; i < headSize; i++) authority = authority << 8 | sid[i];
    return authority;
}

/* Bytes of the text without its end; 0 when it is no SID. */
size_t format(Bytes sid, SidText& text) {
    const size_t length = sidLength(sid);
    if (length == 0) return 0;
    const uint64_t authority = authorityOf(sid);
    char* const out = text.characters;
    const bool decimal = authority <= UINT32_MAX;
    auto used = static_cast<size_t>(
        snprintf(out, sizeof text, decimal ? "S-1-%" PRIu64 : "S-1-0x%012" PRIx64, authority));
    for (size_t at = headSize; at < length; at += 4) {
        used += static_cast<size_t>(snprintf(out + used, sizeof text - used, "-%" PRIu32, read32(&sid[at])));
    }
    return used;
}

/* Takes "-" and a number off the head of the text: decimal, or hexadecimal behind "0x". */
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
    if (sid.size() < headSize || sid[0] != sidRevision || sid[1] > mostSubAuthorities) return 0;
    const size_t length = headSize + size_t{sid[1]} * 4;
    return length <= sid.size() ? length : 0;
}

std::string sidToText(Bytes sid) {
    SidText text = {};
    const size_t length = format(sid, text);
    try {
        return {text.characters, length};
    } catch (const std::bad_alloc&) {
        return {};
    }
}

std::vector<uint8_t> sidFromText(const std::string& text) {
    if (text.find('\0') != std::string::npos) return {};
    try {
        return parse(text.c_str());
    } catch (const std::bad_alloc&) {
        return {};
    }
}

namespace {

/* The text in a block of its own for the caller, who gives it to LocalFree. */
template <typename Character>
NTSTATUS allocateText(PSID sid, Character** result) {
    if (sid == nullptr || result == nullptr) return STATUS_INVALID_PARAMETER;
    SidText text = {};
    const size_t length = format({static_cast<const uint8_t*>(sid), longestSid}, text);
    if (length == 0) return STATUS_INVALID_SID;
    auto* block = static_cast<Character*>(malloc((length + 1) * sizeof(Character)));
    if (block == nullptr) return STATUS_NO_MEMORY;
    for (size_t i = 0; i <= length; i++) block[i] = static_cast<Character>(text.characters[i]);
    *result = block;
    return STATUS_SUCCESS;
}

} /* namespace */
} /* namespace offline */

BOOL ConvertSidToStringSidA(PSID sid, LPSTR* text) {
    return offline::booleanResult(offline::allocateText(sid, text));
}

BOOL ConvertSidToStringSidW(PSID sid, LPWSTR* text) {
    return offline::booleanResult(offline::allocateText(sid, text));
}

HLOCAL LocalFree(HLOCAL block) {
    free(block);
    return nullptr;
}
