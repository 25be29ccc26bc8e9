/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Values and descriptors of keys: what is rewritten, what is left, what is told. */
#include "sidchng/reg.h"
#include "tests/support/small_system.h"

namespace offline {
namespace {

struct Values : PrivilegedSystem {
    std::string run(uint32_t flags = SID_REPLACE_VALUES, const WCHAR* const* names = nullptr) {
        return outcome({{"DEBUG regReplaceSIDInValues: Replaced old SID in value  \\", ""},
                        {"DEBUG regReplaceSIDInValue: Replaced old SID in value  \\", "one "},
                        {"INFO regReplaceSIDInValues: Found old SID in value  \\", "found "},
                        {"INFO regReplaceSIDInValue: Found old SID in value  \\", "found one "},
                        {" (simulation mode)", ""},
                        {"ERROR regReplaceSIDInValues: Win API call", "!"},
                        {"ERROR regReplaceSIDInValue: Win API call", "! one"},
                        {"ERROR sidQueryKeySD: Win API call", "!"},
                        {" returned", ""}},
                       [&] { return replace("k", flags, names); });
    }
    void SetUp() override {
        PrivilegedSystem::SetUp();
        grow("k");
    }
};

const std::u16string nul(1, u'\0');
ByteVector operator+(ByteVector one, const ByteVector& other) {
    put(one, other);
    return one;
}
/* Text that begins with the old SID, and with the new one in its place. */
ByteVector was(const std::u16string& tail = {}) {
    return bytesOf(wide("OLD") + tail);
}
ByteVector is(const std::u16string& tail = {}) {
    return bytesOf(wide("NEW") + tail);
}

/* By type and shape, each in prefix mode and in exact mode. */
TEST_F(Values, TypesAndShapes) {
    const ByteVector noise = {1, 5, 0, 0, 21}, odd = {'z'}, rid9 = sidFromText(oldText + "-9"),
                     cut(oldSid.begin() + 1, oldSid.end());
    const std::u16string oldWide = wide("OLD"), newWide = wide("NEW");
    const std::u16string other = u"S-1-5-21-1-2-3-4" + nul, most = u"-" + std::u16string(32725, 'y');
    // clang-format off
    const struct {
        const char* what; ULONG type; ByteVector before;
        std::vector<ByteVector> after; /* left alone; or by both modes; or by prefix mode and by exact mode */
    } rows[] = {
        {"the SID", REG_SZ, was(), {is()}},
        {"with a tail", REG_SZ, was(u"-1001_Classes" + nul),
         {is(u"-1001_Classes" + nul), was(u"-1001_Classes" + nul)}},
        {"a hyphen after", REG_SZ, was(u"-"), {is(u"-"), was(u"-")}},
        {"another number", REG_SZ, was(u"0-1"), {}},
        {"not at the head", REG_SZ, bytesOf(u" " + oldWide), {}},
        {"another case", REG_SZ, bytesOf(u"s" + oldWide.substr(1)), {}},
        {"one character short", REG_SZ, bytesOf(oldWide.substr(0, oldWide.size() - 1)), {}},
        {"odd tail", REG_SZ, was(u"-1") + odd, {is(u"-1") + odd, was(u"-1") + odd}},
        {"half a character after", REG_SZ, was() + odd, {}},
        {"half a hyphen after", REG_SZ, was() + ByteVector{'-'}, {}},
        {"65,535 afterwards", REG_SZ, was(most) + odd, {is(most) + odd, was(most) + odd}},
        {"65,536 afterwards", REG_SZ, was(most + u"y"), {}},
        {"expandable", REG_EXPAND_SZ, was(u"-1"), {}},
        {"link", REG_LINK, was(), {}},
        {"four bytes inline", REG_BINARY, {1, 5, 0, 0}, {}},
        {"SIDs", REG_BINARY, noise + rid9 + oldSid,
         {noise + sidFromText(newText + "-9") + newSid, noise + rid9 + newSid}},
        {"SIDs of no type", REG_NONE, oldSid + oldSid, {newSid + newSid}},
        {"65,536", REG_BINARY, ByteVector(65512) + oldSid, {ByteVector(65512) + newSid}},
        {"1 MiB", REG_NONE, oldSid + ByteVector(1048528) + oldSid, {newSid + ByteVector(1048528) + newSid}},
        {"one byte", REG_MULTI_SZ, odd, {}},
        {"first and third", REG_MULTI_SZ, was(nul + other + oldWide + u"-7" + nul + nul),
         {is(nul + other + newWide + u"-7" + nul + nul), is(nul + other + oldWide + u"-7" + nul + nul)}},
        {"after an empty one", REG_MULTI_SZ, bytesOf(nul + nul + oldWide + nul + oldWide + nul),
         {bytesOf(nul + nul + newWide + nul + newWide + nul)}},
        {"unended", REG_MULTI_SZ, bytesOf(u"a" + nul + oldWide), {bytesOf(u"a" + nul + newWide)}},
        {"odd end", REG_MULTI_SZ, was(nul + oldWide + u"-1") + odd,
         {is(nul + newWide + u"-1") + odd, is(nul + oldWide + u"-1") + odd}},
        {"odd after a NUL", REG_MULTI_SZ, was(nul) + odd, {is(nul) + odd}},
        {"200,000 in all", REG_MULTI_SZ, was(nul) + ByteVector(200000) + was(nul),
         {is(nul) + ByteVector(200000) + is(nul)}},
    };
    // clang-format on
    for (const auto& row : rows) {
        for (const uint32_t exact : {0u, 0u + SID_EXACT}) {
            const ByteVector expected = row.after.empty() ? row.before
                                        : exact           ? row.after.back()
                                                          : row.after[0];
            set("k", "v", row.type, row.before);
            run(SID_REPLACE_VALUES | SID_SIMULATE | exact);
            EXPECT_TRUE(get("k", "v") == row.before) << row.what;
            run(SID_REPLACE_VALUES | exact);
            EXPECT_TRUE(get("k", "v") == expected) << row.what << (exact ? ", exact" : "");
            EXPECT_EQ(callsMade["ZwSetValueKey"], expected == row.before ? 0 : 1) << row.what;
        }
    }
}

/* A string that no counted string can hold is left; its neighbours are treated. Where it holds the old SID
 * that is reported, by its path and its head. */
TEST_F(Values, StringsTooLong) {
    const std::u16string tail = u"-" + std::u16string(32760, 'y');
    const ByteVector held = was(tail.substr(0, 32727)), foreign = bytesOf(u"x" + wide("OLD") + tail);
    const auto left = [](const char* bytes) {
        return std::string("WARN regReplaceSIDInValues: Too long a string with the old SID (") + bytes +
               " bytes), left alone in value  \\v: OLD-" + std::string(59, 'y') + "..., ";
    };
    const struct {
        ULONG type;
        ByteVector before, after;
        std::string told;
    } rows[] = {
        {REG_MULTI_SZ, was(tail + nul + wide("OLD")), was(tail + nul + wide("NEW")), left("65562") + "v, 0"},
        {REG_MULTI_SZ, held, held, left("65494") + "0"},
        {REG_SZ, held, held, left("65494") + "0"},
        {REG_SZ, foreign, foreign, "0"},
        {REG_MULTI_SZ, foreign, foreign, "0"},
        {REG_EXPAND_SZ, held, held, "0"},
    };
    for (const auto& row : rows) {
        set("k", "v", row.type, row.before);
        EXPECT_EQ(run(), row.told);
        EXPECT_TRUE(get("k", "v") == row.after);
    }
    set("k", "v", REG_SZ, held);
    grow("k\\OLD k\\OLD-1 k\\a");  // each rename has the siblings before it looked at anew
    set("k\\a", "v", REG_SZ, held);
    const std::string told = run(SID_RECURSIVE | SID_REPLACE_NAMES | SID_REPLACE_VALUES);
    for (const char* place : {" \\v: OLD", " a\\v: OLD"}) {
        const size_t at = told.find(place);
        EXPECT_TRUE(at != told.npos && told.find(place, at + 1) == told.npos) << place << told;
    }
    EXPECT_EQ(tree("k"), "a NEW NEW-1");
}

TEST_F(Values, MessagesAndFailures) {
    const WCHAR* const none[] = {nullptr};
    const WCHAR* const listed[] = {u"b", u"missing", u"c", nullptr};
    const std::string denied = "ZwSetValueKey -1073741790 for \\";
    const Fault setFails = {"ZwSetValueKey", "", STATUS_ACCESS_DENIED, 0, 1};
    const Fault unread = {"RegGetKeySecurity", "", ERROR_ACCESS_DENIED};
    // clang-format off
    const struct {
        uint32_t flags; const WCHAR* const* names; std::string expected; const char* written;
        std::vector<Fault> faults = {};
    } rows[] = {
        {0, nullptr, "a, b, c, 0", "abc"},
        {SID_SIMULATE, nullptr, "found a, found b, found c, 0", ""},
        {0, none, "0", ""},
        {0, listed, "one b, one c, 0", "bc"},
        {SID_SIMULATE, listed, "found one b, found one c, 0", ""},
        {0, nullptr, "a, ! " + denied + "b, 5", "a", {{"ZwSetValueKey", "", STATUS_ACCESS_DENIED, 1, 1}}},
        {0, listed, "! one " + denied + "b, one c, 5", "c", {setFails}},
        {0, listed, "! one ZwQueryValueKey -1073741823 for \\b, ! one " + denied + "c, 5", "",
         {{"ZwQueryValueKey", "", STATUS_UNSUCCESSFUL, 0, 1}, setFails}},
        {0, nullptr, "a, ! ZwEnumerateValueKey -1073741823 for , 31", "a",
         {{"ZwEnumerateValueKey", "", STATUS_UNSUCCESSFUL, 1}}},
        {SID_REPLACE_SD, nullptr, "! RegGetKeySecurity 5 for , ! ZwEnumerateValueKey -1073741823 for , 31",
         "",
         {{"ZwEnumerateValueKey", "", STATUS_UNSUCCESSFUL}, unread}},
        {SID_REPLACE_SD, none, "! RegGetKeySecurity 5 for , 5", "", {unread}},
        {0, none, "ERROR sidCtxInit: Win API call ConvertSidToStringSid 1359, 1359", "",
         {{"ConvertSidToStringSidW", "", silently, 1}}},
    };
    // clang-format on
    for (const auto& row : rows) {
        for (const char* name : {"a", "b", "c"}) set("k", name, REG_BINARY, oldSid);
        faults = row.faults;
        EXPECT_EQ(run(SID_REPLACE_VALUES | row.flags, row.names), row.expected);
        const int reads = callsMade["ZwQueryValueKey"] + callsMade["ZwEnumerateValueKey"];
        EXPECT_EQ(reads == 0, row.names == none);
        std::string written;
        for (const char* name : {"a", "b", "c"}) written += get("k", name) == newSid ? name : "";
        EXPECT_EQ(written, row.written);
        faults.clear();
    }
}

TEST_F(Values, DescriptorsReadAndWritten) {
    const ByteVector both = allOf(oldText + "-5"), bothNew = allOf(newText + "-5");
    const auto large = [](const std::string& who) {
        return descriptor(admins, admins, {}, acl(std::vector<Image>(20, allowed(who))));
    };
    const std::string found = "INFO sidReplaceInKeySD: Found old SID in key SD , 0 ";
    const std::string failed = "ERROR sidReplaceInKeySD: Failed to replace old SID in key SD , 1359 ";
    // clang-format off
    const struct {
        ByteVector before, after;
        std::string expected; /* messages, code, reads, writes, and how often the success is told */
        std::vector<Fault> faults = {};
        uint32_t flags = 0;
    } rows[] = {
        {both, bothNew, "0 3 2 2"},
        {both, both, found + "1 0 0", {}, SID_SIMULATE},
        {large(oldText), large(newText), "0 3 1 1"},
        {both, both, "! RegGetKeySecurity 5 for , 5 1 0 0", {{"RegGetKeySecurity", "", ERROR_ACCESS_DENIED}}},
        {both, both, "! RegGetKeySecurity 122 for , 122 1 0 0",
         {{"RegGetKeySecurity", "", ERROR_INSUFFICIENT_BUFFER}}},
        {both, both, "ERROR sidReplaceInKeySD: Win API call RegSetKeySecurity 5 for , 5 1 1 0",
         {{"RegSetKeySecurity", "", ERROR_ACCESS_DENIED}}},
        {both, both, failed + "3 2 2", {{"RegSetKeySecurity", "", 0}}},
    };
    // clang-format on
    for (const auto& row : rows) {
        describe("k", row.before);
        faults = row.faults;
        std::string line = run(SID_REPLACE_SD | row.flags);
        const std::string done = "DEBUG sidReplaceInKeySD: Replaced old SID in key SD ";
        line += text(" %d %d %d", callsMade["RegGetKeySecurity"], callsMade["RegSetKeySecurity"],
                     static_cast<int>(std::count(events.begin(), events.end(), done)));
        EXPECT_EQ(line, row.expected);
        EXPECT_EQ(descriptorOf("k"), row.after);
    }
}

} /* namespace */
} /* namespace offline */
