/* What the tool says, and how it is told: text, log lines, options. */
#include "sidchng/sidflags.h"
#include "tests/engine/scripted.h"
#include "tool/run.h"

using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

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
    const struct {
        std::u16string counted; /* in a block of exactly this size */
        std::string expected;
    } rows[] = {
        {{0xD83D, 0xDE00}, "\xF0\x9F\x98\x80"},
        {{0xD83D}, unknown},
        {{0xDE00, 0xD83D}, unknown + unknown},
        {{0xDE00, 0xDE00}, unknown + unknown},
        {{0xD83D, 'x'}, unknown + "x"},
        {{0xD83D, 0xD83D, 0xDE00}, unknown + "\xF0\x9F\x98\x80"},
        {{0xDBFF, 0xDFFF}, "\xF4\x8F\xBF\xBF"},
        {{'a', 0, 'b'}, "a" + unknown + "b"},
        {{}, ""},
    };
    for (const auto& row : rows) {
        std::vector<WCHAR> block(row.counted.begin(), row.counted.end());
        const USHORT length = static_cast<USHORT>(2 * block.size());
        const UNICODE_STRING string = {length, length, block.data()};
        EXPECT_EQ(text("[%wZ]", &string), "[" + row.expected + "]");
        if (length == 0) continue;
        const UNICODE_STRING odd = {static_cast<USHORT>(length - 1), length, block.data()};
        EXPECT_EQ(text("%wZ", &odd).find('\0'), std::string::npos);
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
            CaptureStderr();
            logToConsole("common/memory", "ombraMalloc", 17, row.level, 0, "%d of %ws", 5, u"x");
            const std::string line = std::string(row.word) + " [common/memory:17] ombraMalloc 5 of x\n";
            EXPECT_EQ(GetCapturedStderr(), verbosity >= row.gate ? line : "") << verbosity;
        }
    }
    verbosity = 0;
}

TEST(Options, LettersOrderAndErrors) {
    const std::string usage =
        "Tarvane SID change tool\nUsage:\n  quillet -[f][r][s][d][q][v][h]\nOptions:\n"
        "  -f       perform fast registry scan\n  -b       reboot on completion\n"
        "  -r       shutdown on completion\n  -s       simulate dry run, do not change anything\n"
        "  -q       quiet mode\n  -v[v]    verbose mode\n  -h       this help\n";
    const struct {
        std::vector<std::u16string> arguments;
        std::string set; /* the letters that have had their effect */
        optionsOutcome outcome;
        int verbosity = 0;
        std::string invalid = {};
    } rows[] = {
        {{}, "", OPTIONS_RUN},
        {{u"-f"}, "f", OPTIONS_RUN},
        {{u"-fbrs"}, "fbrs", OPTIONS_RUN},
        {{u"-f", u"-", u"-s", u"-f"}, "fs", OPTIONS_RUN},
        {{u"-qv"}, "", OPTIONS_RUN, 0},
        {{u"-qq"}, "", OPTIONS_RUN, -2},
        {{u"-vvv", u"-q"}, "", OPTIONS_RUN, 2},
        {{u"-h"}, "", OPTIONS_HELP},
        {{u"-vh"}, "", OPTIONS_HELP, 1},
        {{u"-s", u"-h"}, "s", OPTIONS_HELP},
        {{u"-hz", u"x"}, "", OPTIONS_HELP},
        {{u"-h", u"-v"}, "", OPTIONS_HELP, 0},
        {{u"-zh"}, "", OPTIONS_INVALID, 0, "-zh"},
        {{u"-sd"}, "s", OPTIONS_INVALID, 0, "-sd"},
        {{u"-F"}, "", OPTIONS_INVALID, 0, "-F"},
        {{u"-f", u"file\u20AC", u"-h"}, "f", OPTIONS_INVALID, 0, "file\xE2\x82\xAC"},
        {{u"--"}, "", OPTIONS_INVALID, 0, "--"},
        {{u"-v-"}, "", OPTIONS_INVALID, 1, "-v-"},
        {{u""}, "", OPTIONS_INVALID, 0, ""},
    };
    for (const auto& row : rows) {
        std::vector<std::u16string> all = row.arguments;
        all.insert(all.begin(), u"-z");  // the program's name is no option
        std::vector<WCHAR*> argv(all.size());
        for (size_t i = 0; i < all.size(); i++) argv[i] = all[i].data();
        runState run = {};
        run.sidFlags = 0x1004;
        verbosity = 0;
        CaptureStdout();
        CaptureStderr();
        EXPECT_EQ(parseOptions(&run, static_cast<int>(argv.size()), argv.data()), row.outcome);
        const bool failed = row.outcome == OPTIONS_INVALID;
        EXPECT_EQ(GetCapturedStderr(), failed ? "invalid option: " + row.invalid + "\n" : "");
        EXPECT_EQ(GetCapturedStdout(), row.outcome == OPTIONS_RUN ? "" : usage);
        const std::string set = std::string(run.fastScan ? "f" : "") + (run.rebootWhenDone ? "b" : "") +
                                (run.powerOffWhenDone ? "r" : "") + (run.sidFlags == 0x11004 ? "s" : "");
        EXPECT_EQ(set, row.set);
        EXPECT_EQ(verbosity, row.verbosity);
    }
    verbosity = 0;
}
