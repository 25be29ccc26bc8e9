/* What the tool says, and how it is told: text and log lines. */
#include "tests/engine/scripted.h"
#include "tool/run.h"

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
        {text("%p %p", fakeHandle(0xDEADBEEF01), nullptr), "0xdeadbeef01 0x0"},
        {text("%s|%hs|100%%", "narrow", "half"), "narrow|half|100%"},
        {text("%s|%ws|%wZ", nullptr, nullptr, nullptr), "(null)|(null)|(null)"},
        {text("%ws", u"a\u00E9\u20AC\U0001F600"), "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"},
        {text("%ws", u"\u007F\n\x1F \u07FF\uFFFF"),
         "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD \xDF\xBF\xEF\xBF\xBF"},
        {text("%"), "%"},
    };
    for (const auto& row : rows) EXPECT_EQ(row.shown, row.expected);
}

TEST(Text, CountedStringsWithHalvesOfPairs) {
    const std::string unknown = "\xEF\xBF\xBD";
    const std::pair<std::u16string, std::string> rows[] = {
        {{0xD83D, 0xDE00}, "\xF0\x9F\x98\x80"},
        {{0xD83D}, unknown},
        {{0xDFFF, 0xD800}, unknown + unknown},
        {{0xD83D, 0xD83D, 0xDE00}, unknown + "\xF0\x9F\x98\x80"},
        {{0xDBFF, 0xDFFF}, "\xF4\x8F\xBF\xBF"},
        {{'a', 0, 'b'}, "a" + unknown + "b"},
        {{}, ""},
    };
    for (const auto& [characters, expected] : rows) {
        std::vector<WCHAR> block(characters.begin(), characters.end());  // of exactly this size
        const USHORT length = static_cast<USHORT>(2 * block.size());
        const UNICODE_STRING string = {length, length, block.data()};
        EXPECT_EQ(text("[%wZ]", &string), "[" + expected + "]");
    }
    const std::u16string filler(3000, u'\u20AC');  // longer than any one block of output
    EXPECT_EQ(text("%ws|%d", filler.c_str(), 7).size(), 3 * 3000 + 2u);
}

TEST(LogSink, LevelsPassFromTheirVerbosityOn) {
    const struct {
        int level, gate; /* the lowest verbosity that lets it pass */
        const char* word;
    } rows[] = {
        {1, -9, "CRITICAL"}, {2, -9, "ALERT   "}, {3, -9, "ERROR   "}, {4, 0, "WARN    "},
        {5, 1, "NOTICE  "},  {6, 1, "INFO    "},  {7, 2, "DEBUG   "},  {8, 2, "TRACE   "},
        {9, -9, "UNKNOWN "}, {0, -9, "UNKNOWN "},
    };
    for (const auto& row : rows) {
        for (verbosity = -2; verbosity <= 3; verbosity++) {
            testing::internal::CaptureStderr();
            logToConsole("common/memory", "ombraMalloc", 17, row.level, 0, "%d of %ws", 5, u"x");
            const std::string line = std::string(row.word) + " [common/memory:17] ombraMalloc 5 of x\n";
            EXPECT_EQ(testing::internal::GetCapturedStderr(), verbosity >= row.gate ? line : "") << verbosity;
        }
    }
    verbosity = 0;
}
