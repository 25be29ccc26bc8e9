/* Values: what is rewritten, what is left, what is told. */
#include "tests/keys/keys.h"

namespace offline {
namespace {

struct Values : Keys {
    std::string run(uint32_t flags = SID_REPLACE_VALUES, const WCHAR* const* names = nullptr) {
        const DWORD error = replace("k", flags, names);
        std::string line;
        for (const std::string& event : events) {
            if (!event.starts_with("DEBUG sidReplace")) line += event + "; ";
        }
        return readable(line) + std::to_string(error);
    }
    void SetUp() override {
        Keys::SetUp();
        grow("k");
    }
};

const std::u16string oldWide = wide(oldText), newWide = wide(newText);
const std::u16string nul(1, u'\0');
Bytes operator+(Bytes one, const Bytes& other) {
    one.insert(one.end(), other.begin(), other.end());
    return one;
}
Bytes chars(const std::u16string& text) {
    return bytesOf(text);
}

/* By type and shape, each in prefix mode and, where it differs, in exact mode. */
TEST_F(Values, TypesAndShapes) {
    const Bytes noise = {1, 5, 0, 0, 21}, odd = {'z'};
    const auto text = [](const std::u16string& tail) { return chars(oldWide + tail); };
    const auto rewritten = [](const std::u16string& tail) { return chars(newWide + tail); };
    const std::u16string other = u"S-1-5-21-1-2-3-4" + nul;
    const struct {
        const char* what;
        ULONG type;
        Bytes before;
        Bytes prefix; /* what prefix mode makes of it */
        Bytes exact;
    } rows[] = {
        {"nothing", REG_SZ, {}, {}, {}},
        {"the SID", REG_SZ, text(u""), rewritten(u""), rewritten(u"")},
        {"terminated", REG_SZ, text(nul), text(nul), text(nul)},
        {"with a tail", REG_SZ, text(u"-500" + nul), rewritten(u"-500" + nul), text(u"-500" + nul)},
        {"another number", REG_SZ, text(u"0-1"), text(u"0-1"), text(u"0-1")},
        {"not at the head", REG_SZ, chars(u" " + oldWide), chars(u" " + oldWide), chars(u" " + oldWide)},
        {"odd tail", REG_SZ, text(u"-1") + odd, rewritten(u"-1") + odd, text(u"-1") + odd},
        {"half a character behind", REG_SZ, text(u"") + odd, text(u"") + odd, text(u"") + odd},
        {"longest", REG_SZ, text(u"-" + std::u16string(32725, 'y')),
         rewritten(u"-" + std::u16string(32725, 'y')), text(u"-" + std::u16string(32725, 'y'))},
        {"expandable", REG_EXPAND_SZ, text(u"-1"), text(u"-1"), text(u"-1")},
        {"link", REG_LINK, text(u""), text(u""), text(u"")},
        {"a number for a type", 500, oldSid, oldSid, oldSid},
        {"four bytes", REG_DWORD, {1, 5, 0, 0}, {1, 5, 0, 0}, {1, 5, 0, 0}},
        {"four bytes inline", REG_BINARY, {1, 5, 0, 0}, {1, 5, 0, 0}, {1, 5, 0, 0}},
        {"SIDs", REG_BINARY, noise + derived(oldSid, 9) + noise + oldSid,
         noise + derived(newSid, 9) + noise + newSid, noise + derived(oldSid, 9) + noise + newSid},
        {"SIDs of no type", REG_NONE, oldSid + oldSid, newSid + newSid, newSid + newSid},
        {"cut SID", REG_BINARY, Bytes(oldSid.begin(), oldSid.end() - 1),
         Bytes(oldSid.begin(), oldSid.end() - 1), Bytes(oldSid.begin(), oldSid.end() - 1)},
        {"65,535", REG_BINARY, Bytes(65511) + oldSid, Bytes(65511) + newSid, Bytes(65511) + newSid},
        {"65,536", REG_BINARY, Bytes(65512) + oldSid, Bytes(65512) + newSid, Bytes(65512) + newSid},
        {"1 MiB", REG_NONE, oldSid + Bytes(1048528) + oldSid, newSid + Bytes(1048528) + newSid,
         newSid + Bytes(1048528) + newSid},
        {"one byte", REG_MULTI_SZ, odd, odd, odd},
        {"a NUL", REG_MULTI_SZ, chars(nul), chars(nul), chars(nul)},
        {"first and third", REG_MULTI_SZ, text(nul + other + oldWide + u"-7" + nul + nul),
         rewritten(nul + other + newWide + u"-7" + nul + nul),
         rewritten(nul + other + oldWide + u"-7" + nul + nul)},
        {"behind an empty one", REG_MULTI_SZ, chars(nul + nul + oldWide + nul + oldWide + nul),
         chars(nul + nul + newWide + nul + newWide + nul), chars(nul + nul + newWide + nul + newWide + nul)},
        {"unended", REG_MULTI_SZ, chars(u"a" + nul + oldWide), chars(u"a" + nul + newWide),
         chars(u"a" + nul + newWide)},
        {"odd end", REG_MULTI_SZ, text(nul + oldWide + u"-1") + odd, rewritten(nul + newWide + u"-1") + odd,
         rewritten(nul + oldWide + u"-1") + odd},
        {"odd behind a NUL", REG_MULTI_SZ, text(nul) + odd, rewritten(nul) + odd, rewritten(nul) + odd},
        {"200,000 in all", REG_MULTI_SZ, text(nul) + Bytes(200000) + text(nul),
         rewritten(nul) + Bytes(200000) + rewritten(nul), rewritten(nul) + Bytes(200000) + rewritten(nul)},
    };
    for (const auto& row : rows) {
        for (const bool exact : {false, true}) {
            set("k", "v", row.type, row.before);
            run(SID_REPLACE_VALUES | (exact ? SID_EXACT : 0u));
            const Bytes& expected = exact ? row.exact : row.prefix;
            EXPECT_TRUE(get("k", "v") == expected) << row.what << (exact ? ", exact" : "");
            EXPECT_EQ(callsMade["ZwSetValueKey"], expected == row.before ? 0 : 1) << row.what;
            set("k", "v", row.type, row.before);
            run(SID_REPLACE_VALUES | SID_SIMULATE | (exact ? SID_EXACT : 0u));
            EXPECT_TRUE(get("k", "v") == row.before) << row.what;
        }
    }
}

/* Both SIDs change places, so that strings shrink: the old buffer is larger than what it then holds. */
TEST_F(Values, ShrinkingStrings) {
    const Bytes before = chars(newWide + nul + u"keep" + nul + newWide + u"-9" + nul + nul);
    set("k", "v", REG_MULTI_SZ, before);
    set("k", "w", REG_MULTI_SZ, chars(newWide + nul));
    const HANDLE key = at("k");
    ASSERT_EQ(sidReplaceInKey(key, SID_REPLACE_VALUES, nullptr, newSid.data(), 24, oldSid.data(), 24), 0u);
    EXPECT_EQ(get("k", "v"), chars(oldWide + nul + u"keep" + nul + oldWide + u"-9" + nul + nul));
    EXPECT_EQ(get("k", "w"), chars(oldWide + nul));
    EXPECT_EQ(sidReplaceInKey(key, SID_REPLACE_VALUES, nullptr, newSid.data(), 24, oldSid.data(), 20),
              DWORD{ERROR_INVALID_PARAMETER});
}

/* A string that no counted string can hold is left, with a word; its neighbours are treated. */
TEST_F(Values, StringsTooLong) {
    const std::u16string tail = u"-" + std::u16string(32760, 'y');
    const struct {
        ULONG type;
        Bytes before, after;
        const char* expected;
    } rows[] = {
        {REG_SZ, chars(oldWide + tail), chars(oldWide + tail),
         "WARN regReplaceSIDInData: Too long a string (65562 bytes), left alone; 0"},
        {REG_MULTI_SZ, chars(oldWide + tail + nul + oldWide + nul),
         chars(oldWide + tail + nul + newWide + nul),
         "WARN regReplaceSIDInData: Too long a string (65562 bytes), left alone; "
         "DEBUG regReplaceSIDInValues: Replaced old SID in value  \\v; 0"},
    };
    for (const auto& row : rows) {
        set("k", "v", row.type, row.before);
        EXPECT_EQ(run(), row.expected);
        EXPECT_TRUE(get("k", "v") == row.after);
    }
    const std::u16string nearly = oldWide + u"-" + std::u16string(32740, 'y');
    set("k", "v", REG_SZ, chars(nearly));
    EXPECT_TRUE(run().starts_with("WARN sidReplaceInName: Too long a name with the new SID (65564 bytes), "));
    EXPECT_TRUE(get("k", "v") == chars(nearly));
}

TEST_F(Values, MessagesAndFailures) {
    const std::string all = "regReplaceSIDInValues: ", one = "regReplaceSIDInValue: ";
    const std::string set2 = "Win API call ZwSetValueKey returned -1073741790 for \\";
    const WCHAR* const none[] = {nullptr};
    const WCHAR* const listed[] = {u"b", u"missing", u"c", nullptr};
    const struct {
        std::vector<Fault> faults;
        uint32_t flags;
        const WCHAR* const* names;
        std::string expected;
        const char* written;
    } rows[] = {
        {{},
         0,
         nullptr,
         "DEBUG " + all + "Replaced old SID in value  \\a; DEBUG " + all +
             "Replaced old SID in value  \\b; DEBUG " + all + "Replaced old SID in value  \\c; 0",
         "abc"},
        {{},
         SID_SIMULATE,
         nullptr,
         "INFO " + all + "Found old SID in value  \\a (simulation mode); INFO " + all +
             "Found old SID in value  \\b (simulation mode); INFO " + all +
             "Found old SID in value  \\c (simulation mode); 0",
         ""},
        {{}, 0, none, "0", ""},
        {{},
         0,
         listed,
         "DEBUG " + one + "Replaced old SID in value  \\b; DEBUG " + one +
             "Replaced old SID in value  \\c; 0",
         "bc"},
        {{},
         SID_SIMULATE,
         listed,
         "INFO " + one + "Found old SID in value  \\b (simulation mode); INFO " + one +
             "Found old SID in value  \\c (simulation mode); 0",
         ""},
        {{{"ZwSetValueKey", "", STATUS_ACCESS_DENIED, 1, 1}},
         0,
         nullptr,
         "DEBUG " + all + "Replaced old SID in value  \\a; ERROR " + all + set2 + "b; 5",
         "a"},
        {{{"ZwSetValueKey", "", STATUS_ACCESS_DENIED, 0, 1}},
         0,
         listed,
         "ERROR " + one + set2 + "b; DEBUG " + one + "Replaced old SID in value  \\c; 5",
         "c"},
        {{{"ZwQueryValueKey", "", STATUS_UNSUCCESSFUL, 0, 1}, {"ZwSetValueKey", "", STATUS_ACCESS_DENIED}},
         0,
         listed,
         "ERROR " + one + "Win API call ZwQueryValueKey returned -1073741823 for \\b; ERROR " + one + set2 +
             "c; 5",
         ""},
        {{{"ZwEnumerateValueKey", "", STATUS_UNSUCCESSFUL, 1}},
         0,
         nullptr,
         "DEBUG " + all + "Replaced old SID in value  \\a; ERROR " + all +
             "Win API call ZwEnumerateValueKey returned -1073741823 for ; 31",
         "a"},
        {{{"ZwEnumerateValueKey", "", STATUS_UNSUCCESSFUL}, {"RegGetKeySecurity", "", ERROR_ACCESS_DENIED}},
         SID_REPLACE_SD,
         nullptr,
         "ERROR sidQueryKeySD: Win API call RegGetKeySecurity returned 5 for ; ERROR " + all +
             "Win API call ZwEnumerateValueKey returned -1073741823 for ; 31",
         ""},
        {{{"RegGetKeySecurity", "", ERROR_ACCESS_DENIED}},
         SID_REPLACE_SD,
         none,
         "ERROR sidQueryKeySD: Win API call RegGetKeySecurity returned 5 for ; 5",
         ""},
    };
    for (const auto& row : rows) {
        for (const char* name : {"a", "b", "c"}) set("k", name, REG_BINARY, oldSid);
        for (const Fault& fault : row.faults) refuse(fault);
        EXPECT_EQ(run(SID_REPLACE_VALUES | row.flags, row.names), row.expected);
        const int reads = callsMade["ZwQueryValueKey"] + callsMade["ZwEnumerateValueKey"];
        EXPECT_EQ(reads == 0, row.names == none);
        forgetFaults();
        std::string written;
        for (const char* name : {"a", "b", "c"}) written += get("k", name) == newSid ? name : "";
        EXPECT_EQ(written, row.written);
    }
}

/* No memory for a value's record, its string or its multi-string: 8, and nothing of it is written. */
TEST_F(Values, NoMemory) {
    const Bytes before = chars(oldWide + u"-" + std::u16string(400, 'y') + nul);
    set("k", "v", REG_MULTI_SZ, before);
    allocationsLeft = 1000;
    EXPECT_TRUE(run(SID_REPLACE_VALUES | SID_SIMULATE).ends_with("; 0"));
    const int needed = 1000 - allocationsLeft;
    for (int i = 0; i < needed; i++) {
        allocationsLeft = i;
        EXPECT_TRUE(run().ends_with("; 8")) << i;
        EXPECT_EQ(callsMade["ZwSetValueKey"], 0);
    }
    allocationsLeft = -1;
    EXPECT_EQ(get("k", "v"), before);
}

/* The walk goes on behind a failing key, whose subtree is treated as well; the result is the scan's. */
TEST_F(Values, Walk) {
    const struct {
        Fault fault;
        const char* written;
    } rows[] = {
        {{"none"}, "k k\\a k\\a\\x k\\b "},
        {{"ZwSetValueKey", "a", STATUS_ACCESS_DENIED}, "k k\\a\\x k\\b "},
        {{"ZwOpenKey", "a", STATUS_UNSUCCESSFUL, 1, 1}, "k k\\a\\x k\\b "},
        {{"ZwSetValueKey", "k", STATUS_ACCESS_DENIED}, "k\\a k\\a\\x k\\b "},
        {{"ZwEnumerateKey", "a", STATUS_UNSUCCESSFUL}, "k k\\a "},
    };
    const std::vector<std::string> paths = {"k", "k\\a", "k\\a\\x", "k\\b"};
    grow("k k\\a k\\a\\x k\\b");
    for (const auto& row : rows) {
        for (const std::string& path : paths) set(path, "v", REG_BINARY, oldSid);
        refuse(row.fault);
        EXPECT_EQ(replace("k", SID_RECURSIVE | SID_REPLACE_VALUES),
                  row.fault.call == "ZwEnumerateKey" ? 31u : 0u);
        forgetFaults();
        std::string written;
        for (const std::string& path : paths) written += get(path, "v") == newSid ? path + " " : "";
        EXPECT_EQ(written, row.written);
    }
}

} /* namespace */
} /* namespace offline */
