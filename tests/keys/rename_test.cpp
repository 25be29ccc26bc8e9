/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Renaming in the key walk. */
#include "tests/support/small_system.h"

namespace offline {
namespace {

constexpr uint32_t namesOnly = SID_RECURSIVE | SID_REPLACE_NAMES;
const std::string oldKey = "k\\OLD", newKey = "k\\NEW";

struct Names : PrivilegedSystem {
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
        const char *before, *after, *exact;
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
    // A key can't be copied onto itself, and need not be.
    const std::string before = tree("k");
    const uint8_t* const same = newSid.data();
    EXPECT_EQ(sidReplaceInKey(at("k"), namesOnly, nullptr, same, 24, same, 24), 0u);
    EXPECT_EQ(tree("k"), before);
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
        describe(path, allOf(oldText));
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
        EXPECT_TRUE(holds(path, oldSid) == 0 && holds(path, newSid) == 3);
    EXPECT_EQ(tree("aim"), "below");
}

/* Whatever call fails once, or whatever allocation: no key and no value is lost, what is not done is told,
 * and another run completes it. */
TEST_F(Names, AnySingleFailure) {
    const ByteVector before = bytesOf(wide("OLD")), after = bytesOf(wide("NEW"));
    const auto build = [&] {
        clear("k");
        grow("k k\\OLD k\\OLD\\s");
        makeLink(wide(oldKey) + u"\\link", full(u"aim"));
        for (const std::string& path : {oldKey, oldKey + "\\s"}) {
            set(path, "v", REG_SZ, before);
            describe(path, allOf(oldText));
        }
    };
    const auto treat = [&] { return run(namesOnly | SID_REPLACE_SD | SID_REPLACE_VALUES); };
    const auto isComplete = [&](bool taken) {
        bool complete = tree("k") == "NEW(link@ s)";
        for (const std::string& path : {newKey, newKey + "\\s"}) {
            complete = complete && get(path, "v") == after;
            // A key that had to be taken gets its descriptor back as it was, or is renamed without it.
            complete = complete && (taken || (holds(path, oldSid) == 0 && holds(path, newSid) == 3));
        }
        return complete;
    };
    const auto checkAfter = [&](const std::string& told, const std::string& what) {
        SCOPED_TRACE(what + ": " + told);
        const bool olds = there(oldKey + "\\s"), taken = told.find("Taking ownership") != told.npos;
        for (const std::string& path : {olds ? oldKey : newKey, (olds ? oldKey : newKey) + "\\s"}) {
            const ByteVector value = get(path, "v");
            EXPECT_TRUE(value == before || value == after);
        }
        EXPECT_TRUE(there(oldKey + "\\link") || there(newKey + "\\link"));
        EXPECT_TRUE(!there(oldKey) || !there(newKey) || told.find("failed") != told.npos);
        const bool quiet = told.find("! ") == told.npos && told.find("WARN") == told.npos;
        EXPECT_TRUE(!quiet || isComplete(taken));
        treat();
        EXPECT_TRUE(taken || isComplete(told.find("WARN") != told.npos)) << tree("k");
    };
    grow("aim");
    for (const std::string call :
         {"ZwOpenKey", "ZwCreateKey", "ZwClose", "ZwQueryKey", "ZwEnumerateKey", "ZwQueryValueKey",
          "ZwEnumerateValueKey", "ZwSetValueKey", "ZwDeleteKey", "RegGetKeySecurity", "RegSetKeySecurity"}) {
        const LONG unspecific = call[0] == 'Z' ? LONG{STATUS_UNSUCCESSFUL} : 31;
        for (const LONG code : {unspecific, call[0] == 'Z' ? LONG{STATUS_ACCESS_DENIED} : 5}) {
            int made = 0;
            const int first = call == "ZwOpenKey" ? 1 : 0;  // after the test's own
            for (int skipped = first; skipped == first || skipped < made; skipped++) {
                build();
                faults = {{call, "", code, skipped, 1}};
                const std::string told = treat();
                made = callsMade[call];
                faults.clear();
                checkAfter(told, text("%s %x after %d", call.c_str(), code, skipped));
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
