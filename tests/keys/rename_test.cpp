/* Renaming in the key walk. */
#include "tests/keys/keys_fixture.h"

namespace offline {
namespace {

constexpr uint32_t namesOnly = SID_RECURSIVE | SID_REPLACE_NAMES;
const std::string oldKey = "k\\" + oldText, newKey = "k\\" + newText;

struct Names : Keys {
    std::string run(uint32_t flags = namesOnly) {
        return outcome(
            {{"DEBUG regReplaceSIDCallback: Replaced old SID in name  ", "name"},
             {"DEBUG regReplaceSIDInValues: Replaced old SID in value ", "value"},
             {"INFO regReplaceSIDCallback: Found old SID in name   OLD (simulation mode)", "name found"},
             {"ERROR regReplaceSIDCallback: Failed to rename key   OLD", "failed"},
             {"Native API call ", ""},
             {" returned", ""},
             {"ERROR ", "! "},
             {"DEBUG _doOpenCreateKey: ZwOpenKey 0XC0000034 for link, access=0x10000, ", ""}},
            [&] { return replace("k", flags); });  // at the new place
    }
};

TEST_F(Names, WhichNames) {
    const struct {
        const char* before;
        const char* after;
        const char* exact;
    } rows[] = {
        {"k\\OLD", "NEW", "NEW"},
        {"k\\OLD-500 k\\OLD-500\\OLD k\\OLD-500\\OLD\\OLD-1", "NEW-500(NEW(NEW-1))", "OLD-500(NEW(OLD-1))"},
        {"k\\OLD1 k\\xOLD k\\OLD_Classes", "OLD1 OLD_Classes xOLD", "OLD1 OLD_Classes xOLD"},
        {"k\\OLD k\\OLD-1 k\\OLD-2 k\\a k\\z k\\z\\OLD", "a NEW NEW-1 NEW-2 z(NEW)",
         "a OLD-1 OLD-2 NEW z(NEW)"},
    };
    for (const auto& row : rows) {
        for (const uint32_t flags : {namesOnly, namesOnly | SID_EXACT}) {
            clear("k");
            grow("k " + std::string(row.before));
            const std::string before = tree("k");
            run(flags | SID_SIMULATE);
            EXPECT_EQ(callsMade["ZwCreateKey"] + callsMade["ZwDeleteKey"], 0);
            run(SID_REPLACE_NAMES);
            EXPECT_EQ(tree("k"), before);
            EXPECT_TRUE(run(flags).ends_with("0"));
            EXPECT_EQ(tree("k"), (flags & SID_EXACT) != 0 ? row.exact : row.after);
        }
    }
}

/* Class, values, descriptor, subtree and links come along, and are then treated under the new name; siblings
 * are looked at again without a write. A link is renamed as itself, a key of the new name takes the old one's
 * tree in. */
TEST_F(Names, WhatComesAlong) {
    grow("aim aim\\below k k\\a");
    create(wide(oldKey), {.className = u"Its class"});
    grow("k\\OLD\\sub " + newKey + "-1 " + newKey + "-1\\c k\\OLD-1 k\\OLD-1\\b");
    makeLink(wide(oldKey) + u"\\link", full(u"aim"));
    makeLink(wide(oldKey) + u"-2", full(u"aim"));
    grow("k\\OLD-3 k\\OLD-3\\c");  // a link's value does not make a link
    set(oldKey + "-3", "SymbolicLinkValue", REG_LINK, bytesOf(full(u"aim")));
    create(wide(oldKey) + u"-4", {.options = REG_OPTION_CREATE_LINK});  // without a target
    for (const std::string& path : {std::string("k\\a"), oldKey, oldKey + "\\sub"}) {
        set(path, "v", REG_BINARY, oldSid);
        describe(path, image({oldSid, administrators, std::vector<Ace>{{0, oldSid}}, {}}));
    }
    for (const std::string& path : {oldKey, newKey}) set(path + "-1", "v", REG_SZ, bytesOf(wide(path)));
    set(newKey + "-1", "w", REG_SZ, bytesOf(u"stays"));
    const std::string told = run(namesOnly | SID_REPLACE_VALUES | SID_SIMULATE);
    EXPECT_NE(told.find("name found, INFO regReplaceSIDInValues: Found"), told.npos) << told;
    EXPECT_EQ(run(namesOnly | SID_REPLACE_SD | SID_REPLACE_VALUES),
              "value a\\v, name OLD, name OLD-1, name OLD-2, name OLD-3, name OLD-4, value NEW\\v, value "
              "NEW\\sub\\v, 0");
    EXPECT_EQ(tree("k"), "a NEW(link@ sub) NEW-1(b c) NEW-2@ NEW-3(c) NEW-4@");
    EXPECT_EQ(classOf(newKey), "Its class");
    EXPECT_EQ(get(newKey + "\\sub", "v"), newSid);
    EXPECT_EQ(get(newKey + "-1", "v"), bytesOf(wide(oldKey)));
    EXPECT_EQ(get(newKey + "-1", "w"), bytesOf(u"stays"));
    for (const char* link : {"\\link", "-2", "-3"})
        EXPECT_EQ(get(newKey + link, "SymbolicLinkValue"), bytesOf(full(u"aim")));
    for (const std::string& path : {newKey, newKey + "\\sub"})
        EXPECT_TRUE(holds(path, oldSid) == 0 && holds(path, newSid) == 2);
    EXPECT_EQ(tree("aim"), "below");
}

/* A step that fails leaves what had been done, never less than the old tree or a complete new one. */
TEST_F(Names, Failures) {
    constexpr LONG failure = STATUS_UNSUCCESSFUL;
    // clang-format off
    const struct {
        Fault fault; const char* after; std::string message;
        bool secured = false; /* the new key has the old one's descriptor */
    } rows[] = {
        {{"ZwOpenKey", oldText, failure, 1, 1}, "OLD(s(t)) z",
         "_doOpenCreateKey: ZwOpenKey 0XC0000001 for OLD, access=0x1020019"},
        {{"RegGetKeySecurity", oldText, 87, 0, 1}, "OLD(s(t)) z",
         "regGetKeySec: Win API call RegGetKeySecurity 87"},
        {{"ZwCreateKey", newText, STATUS_ACCESS_DENIED, 0, 1}, "OLD(s(t)) z",
         "_doOpenCreateKey: ZwCreateKey 0XC0000022 for NEW, access=0xe0006"},
        {{"ZwCreateKey", "t", failure}, "OLD(s(t)) NEW(s) z",
         "_doOpenCreateKey: ZwCreateKey 0XC0000001 for t, access=0xe0006"},
        {{"ZwSetValueKey", newText, failure}, "OLD(s(t)) NEW(s(t)) z",
         "_regCopyKValues: ZwSetValueKey 0XC0000001 for v"},
        {{"RegSetKeySecurity", newText, 87, 0, 1}, "OLD(s(t)) NEW(s(t)) z",
         "regSetKeySec: Win API call RegSetKeySecurity 87"},
        {{"ZwDeleteKey", "t", failure}, "OLD(s(t)) NEW(s(t)) z",
         "regScanDeleteCallback: ZwDeleteKey 0XC0000121 for s", true},
        {{"ZwDeleteKey", oldText, failure}, "OLD NEW(s(t)) z",
         "regDeleteKeyU: ZwDeleteKey 0XC0000001 for OLD", true},
    };
    // clang-format on
    for (const auto& row : rows) {
        clear("k");
        grow("k k\\OLD k\\OLD\\s k\\OLD\\s\\t k\\z");
        for (const std::string& path : {oldKey, std::string("k\\z")}) set(path, "v", REG_BINARY, oldSid);
        describe(oldKey, systemOnly());
        refuse({row.fault});
        const std::string told = run(), expected = "! " + row.message + ", failed, ";
        EXPECT_NE(told.find(expected), told.npos) << told << expected;
        refuse({});
        EXPECT_EQ(tree("k"), row.after);
        EXPECT_EQ(there(newKey) && descriptor(newKey) == systemOnly(), row.secured) << row.message;
        EXPECT_EQ(get(oldKey, "v"), oldSid);
        EXPECT_EQ(run(namesOnly | SID_REPLACE_VALUES).back(), '0');
        EXPECT_EQ(tree("k"), "NEW(s(t)) z");
        EXPECT_TRUE(get(newKey, "v") == newSid && get("k\\z", "v") == newSid);
    }
}

/* A key can't be copied onto itself. */
TEST_F(Names, TheSameName) {
    grow("k k\\OLD k\\OLD\\s");
    const uint8_t* const same = oldSid.data();
    EXPECT_EQ(sidReplaceInKey(at("k"), namesOnly, nullptr, same, 24, same, 24), 0u);
    EXPECT_EQ(tree("k"), "OLD(s)");
}

/* Whatever call fails once, or whatever allocation: no key and no value is lost, and what is not done is
 * told.
 */
TEST_F(Names, AnySingleFailure) {
    const ByteVector described = image({oldSid, administrators, std::vector<Ace>{{0, oldSid}}, {}});
    const auto build = [&] {
        clear("k");
        grow("k k\\OLD k\\OLD\\s");
        makeLink(wide(oldKey) + u"\\link", full(u"aim"));
        for (const std::string& path : {oldKey, oldKey + "\\s"}) {
            set(path, "v", REG_SZ, bytesOf(wide(oldText)));
            describe(path, described);
        }
        events.clear();
        callsMade.clear();
        for (; !handles.empty(); handles.pop_back()) ZwClose(handles.back());
    };
    const auto treat = [&] { return run(namesOnly | SID_REPLACE_SD | SID_REPLACE_VALUES); };
    const auto checkAfter = [&](const std::string& told, const std::string& what) {
        SCOPED_TRACE(what + ": " + told);
        const std::string left = there(oldKey + "\\s") ? oldKey : newKey;
        for (const std::string& path : {left, left + "\\s"}) {
            const ByteVector value = get(path, "v");
            EXPECT_TRUE(value == bytesOf(wide(oldText)) || value == bytesOf(wide(newText)));
        }
        EXPECT_TRUE(there(oldKey + "\\link") || there(newKey + "\\link"));
        // A key that had to be taken gets its descriptor back as it was, or is renamed without it.
        const bool taken = told.find("Taking ownership") != told.npos;
        const bool quiet = told.find("! ") == told.npos && told.find("WARN") == told.npos;
        if (!quiet) return;
        EXPECT_EQ(tree("k"), "NEW(link@ s)");
        for (const std::string& path : {newKey, newKey + "\\s"}) {
            EXPECT_EQ(get(path, "v"), bytesOf(wide(newText)));
            EXPECT_TRUE(taken || (holds(path, oldSid) == 0 && holds(path, newSid) == 2));
        }
    };
    grow("aim");
    for (const char* call :
         {"ZwOpenKey", "ZwCreateKey", "ZwClose", "ZwQueryKey", "ZwEnumerateKey", "ZwQueryValueKey",
          "ZwEnumerateValueKey", "ZwSetValueKey", "ZwDeleteKey", "RegGetKeySecurity", "RegSetKeySecurity"}) {
        const bool native = call[0] == 'Z';
        for (const LONG code :
             {native ? LONG{STATUS_UNSUCCESSFUL} : 31, native ? LONG{STATUS_ACCESS_DENIED} : 5}) {
            int made = 0;
            const int first = std::string_view(call) == "ZwOpenKey" ? 1 : 0;  // after the test's own
            for (int after = first; after == first || after < made; after++) {
                build();
                refuse({{call, "", code, after, 1}});
                const std::string told = treat();
                made = callsMade[call];
                refuse({});
                checkAfter(told, text("%s %x after %d", call, code, after));
            }
            EXPECT_GT(made, first) << call;
        }
    }
    int i = 0;
    for (bool complete = false; !complete; i++) {
        build();
        allocationsLeft = i;
        const std::string told = treat();
        complete = allocationsLeft > 0;
        allocationsLeft = -1;
        checkAfter(told, text("allocation %d", i));
    }
    EXPECT_GT(i, 8);
}

} /* namespace */
} /* namespace offline */
