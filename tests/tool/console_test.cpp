/* SPDX-License-Identifier: GPL-2.0-or-later */
/* What the tool says, and how it is told: text and log lines. */
#include <sys/socket.h>
#include <unistd.h>

#include <array>

#include "tests/support/watched.h"
#include "tool/run.h"

/* So many characters that can't be shown. */
static std::string unknown(int count) {
    return count == 0 ? "" : "\uFFFD" + unknown(count - 1);
}

TEST(Text, EachDirective) {
    const int32_t denied = STATUS_ACCESS_DENIED;
    const struct {
        std::string shown, expected;
    } rows[] = {
        {text("%d %d %d", 0, -1, INT32_MIN), "0 -1 -2147483648"},
        {text("%u", 4000000000u), "4000000000"},
        {text("%#X %#x %#x %x", denied, 0xAB, 0, denied), "0XC0000022 0xab 0 c0000022"},
        {text("%02x%02x%08X", 5, 0xAB, denied), "05abC0000022"},
        {text("%08X|%4d|%04d|%-", 0x12, -5, -5), "00000012|  -5|-005|-"},
        {text("%Id %Id", INT64_MIN, int64_t{5}), "-9223372036854775808 5"},
        {text("%#Ix", uint64_t{0xFFFFFFFF80000001}), "0xffffffff80000001"},
        {text("%p %p", reinterpret_cast<void*>(0xDEADBEEF01), nullptr), "0xdeadbeef01 0x0"},
        {text("%s|%hs|100%%", "narrow", "half"), "narrow|half|100%"},
        {text("%s|%ws|%wZ", nullptr, nullptr, nullptr), "(null)|(null)|(null)"},
        {text("%ws", u"a\u00E9\u20AC\U0001F600"), "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"},
        {text("%ws", u"\u07FF\uFFFF \t~\u00A0\u061B\u200D\u2027\u202F\u2065\u206A"),
         "\u07FF\uFFFF \t~\u00A0\u061B\u200D\u2027\u202F\u2065\u206A"},
        {text("%ws", u"\x1B\n\x1F\x7F\x80\x9F\u061C\u200E\u200F\u2028\u202E\u2066\u2069"), unknown(13)},
        {text("%"), "%"},
    };
    for (const auto& row : rows) EXPECT_EQ(row.shown, row.expected);
}

TEST(Text, CountedStringsWithHalvesOfPairs) {
    const std::pair<std::u16string, std::string> rows[] = {
        {{0xD83D, 0xDE00}, "\xF0\x9F\x98\x80"},
        {{0xD83D}, unknown(1)},
        {{0xDFFF, 0xD800}, unknown(2)},
        {{0xD83D, 0xD83D, 0xDE00}, unknown(1) + "\xF0\x9F\x98\x80"},
        {{0xDBFF, 0xDFFF}, "\xF4\x8F\xBF\xBF"},
        {{'a', 0, 'b'}, "a" + unknown(1) + "b"},
        {{}, ""},
    };
    for (const auto& [characters, expected] : rows) {
        std::vector<WCHAR> block(characters.begin(), characters.end());  // of exactly this size
        const USHORT length = static_cast<USHORT>(2 * block.size());
        const UNICODE_STRING string = {length, length, block.data()};
        EXPECT_EQ(text("[%wZ]", &string), "[" + expected + "]");
    }
}

/* Each write to this stream is a packet of its own. */
TEST(LogSink, ALineIsOneWriteAndNoWriteEndsWithinACharacter) {
    std::array<int, 2> ends = {};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends.data()), 0);
    const int kept = dup(2);
    const std::u16string three(5000, u'\u20AC');
    std::u16string four;
    while (four.size() < 10000) four += u"\U0001F600";
    const std::pair<int, std::u16string> rows[] = {
        {-1, three}, {2, three},       {1, three},        {0, three},
        {0, four},   {0, u"a" + four}, {0, u"ab" + four}, {0, u"abc" + four},
    };
    for (const auto& [allocations, filler] : rows) {
        dup2(ends[0], 2);
        allocationsLeft = allocations;
        logToConsole("regtk/regtk_open", "regOpenKey", 17, 3, 0, "%ws|%d", filler.c_str(), 7);
        allocationsLeft = -1;
        dup2(kept, 2);
        std::string line, packet(1 << 16, 0);
        int packets = 0;
        while (line.empty() || line.back() != '\n') {
            const ssize_t size = recv(ends[1], packet.data(), packet.size(), MSG_DONTWAIT);
            ASSERT_GT(size, 0);
            EXPECT_NE(packet[0] & 0xC0, 0x80);
            line.append(packet, 0, static_cast<size_t>(size));
            packets++;
        }
        EXPECT_EQ(line, text("ERROR    [regtk/regtk_open:17] regOpenKey %ws|7\n", filler.c_str()));
        EXPECT_EQ(packets == 1, allocations == -1) << packets;
    }
    for (const int end : {kept, ends[0], ends[1]}) close(end);
}
