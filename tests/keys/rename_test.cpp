/* Renaming in the key walk. */
#include "tests/keys/keys.h"

namespace offline {
namespace {

constexpr uint32_t namesOnly = SID_RECURSIVE | SID_REPLACE_NAMES;

struct Names : Keys {
    std::string run(uint32_t flags = namesOnly) {
        const DWORD error = replace("k", flags);
        std::string line;
        for (const std::string& event : events) {
            if (!event.starts_with("DEBUG sidReplace") && !event.starts_with("DEBUG _do"))
                line += event + "; ";
        }
        return readable(line) + std::to_string(error);
    }
    /* Keys below k, "OLD" for the old SID. */
    void growNamed(std::string paths) {
        for (size_t i = 0; (i = paths.find("OLD", i)) != std::string::npos;) paths.replace(i, 3, oldText);
        grow("k");
        grow(paths);
    }
    void clear() {
        const HANDLE root = at("");
        const UNICODE_STRING name = counted(u"k");
        ASSERT_EQ(regDeleteKeyU(root, &name, REG_RECURSIVE | REG_IGNORE_MISSING), 0u);
    }
};

const std::string oldKey = "k\\" + oldText, newKey = "k\\" + newText;

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
        for (const bool exact : {false, true}) {
            clear();
            growNamed(row.before);
            EXPECT_TRUE(run(namesOnly | (exact ? SID_EXACT : 0u)).ends_with("0"));
            EXPECT_EQ(tree("k"), exact ? row.exact : row.after);
        }
        clear();
        growNamed(row.before);
        const std::string before = tree("k");
        run(namesOnly | SID_SIMULATE);
        EXPECT_EQ(callsMade["ZwCreateKey"] + callsMade["ZwDeleteKey"], 0);
        run(SID_REPLACE_NAMES);
        EXPECT_EQ(tree("k"), before);
    }
}

/* Class, values, descriptor, subtree and links come along, and are then treated under the new name; siblings
 * are looked at again without a write. */
TEST_F(Names, WhatComesAlong) {
    growNamed("k\\a");
    create(wide(oldKey), {.className = u"Its class"});
    growNamed("k\\OLD\\sub");
    makeLink(wide(oldKey) + u"\\link", full(u"aim"));
    growNamed("aim aim\\below");
    for (const std::string& path : {std::string("k\\a"), oldKey, oldKey + "\\sub"}) {
        set(path, "v", REG_BINARY, oldSid);
        describe(path, image({oldSid, administrators, std::vector<Ace>{{0, oldSid}}, {}}));
    }
    EXPECT_EQ(run(namesOnly | SID_REPLACE_SD | SID_REPLACE_VALUES),
              "DEBUG regReplaceSIDInValues: Replaced old SID in value  a\\v; "
              "DEBUG regReplaceSIDCallback: Replaced old SID in name   OLD; "
              "DEBUG regReplaceSIDInValues: Replaced old SID in value  NEW\\v; "
              "DEBUG regReplaceSIDInValues: Replaced old SID in value  NEW\\sub\\v; 0");
    EXPECT_EQ(tree("k"), "a NEW(link@ sub)");
    EXPECT_EQ(classOf(newKey), "Its class");
    EXPECT_EQ(get(newKey + "\\sub", "v"), newSid);
    EXPECT_EQ(get(newKey + "\\link", "SymbolicLinkValue"), bytesOf(full(u"aim")));
    for (const std::string& path : {newKey, newKey + "\\sub"}) {
        EXPECT_EQ(holds(path, oldSid), 0);
        EXPECT_EQ(holds(path, newSid), 2);
    }
    EXPECT_EQ(tree("aim"), "below");
}

TEST_F(Names, Link) {
    growNamed("aim aim\\below");
    makeLink(wide(oldKey), full(u"aim"));
    EXPECT_EQ(run(), "DEBUG regReplaceSIDCallback: Replaced old SID in name   OLD; 0");
    EXPECT_EQ(tree("k"), "NEW@");
    EXPECT_EQ(get(newKey, "SymbolicLinkValue"), bytesOf(full(u"aim")));
    EXPECT_EQ(tree("aim"), "below");
}

TEST_F(Names, Simulation) {
    growNamed("k\\OLD k\\OLD\\sub");
    set(oldKey, "v", REG_BINARY, oldSid);
    EXPECT_EQ(run(namesOnly | SID_REPLACE_VALUES | SID_SIMULATE),
              "INFO regReplaceSIDCallback: Found old SID in name   OLD (simulation mode); "
              "INFO regReplaceSIDInValues: Found old SID in value  OLD\\v (simulation mode); 0");
    EXPECT_EQ(tree("k"), "OLD(sub)");
    EXPECT_EQ(get(oldKey, "v"), oldSid);
}

/* A step that fails leaves what had been done, never less than the old tree or a complete new one. */
TEST_F(Names, Failures) {
    const struct {
        Fault fault;
        const char* after;
        const char* message;  /* the line before the last */
        bool secured = false; /* the new key has the old one's descriptor */
    } rows[] = {
        {{"ZwOpenKey", oldText, STATUS_UNSUCCESSFUL, 1, 1},
         "OLD(s(t)) z",
         "_doOpenCreateKey: Native API call "
         "ZwOpenKey returned 0XC0000001 for OLD, access=0x1020019"},
        {{"RegGetKeySecurity", oldText, 87, 0, 1},
         "OLD(s(t)) z",
         "regGetKeySec: Win API call RegGetKeySecurity returned 87"},
        {{"ZwCreateKey", newText, STATUS_ACCESS_DENIED, 0, 1},
         "OLD(s(t)) z",
         "_doOpenCreateKey: Native API call "
         "ZwCreateKey returned 0XC0000022 for NEW, access=0xe0006"},
        {{"ZwCreateKey", "t", STATUS_UNSUCCESSFUL},
         "OLD(s(t)) NEW(s) z",
         "_doOpenCreateKey: Native API call "
         "ZwCreateKey returned 0XC0000001 for t, access=0xe0006"},
        {{"ZwSetValueKey", newText, STATUS_UNSUCCESSFUL},
         "OLD(s(t)) NEW(s(t)) z",
         "_regCopyKValues: Native API call "
         "ZwSetValueKey returned 0XC0000001 for v"},
        {{"RegSetKeySecurity", newText, 87, 0, 1},
         "OLD(s(t)) NEW(s(t)) z",
         "regSetKeySec: Win API call "
         "RegSetKeySecurity returned 87"},
        {{"ZwDeleteKey", "t", STATUS_UNSUCCESSFUL},
         "OLD(s(t)) NEW(s(t)) z",
         "regScanDeleteCallback: Native API call "
         "ZwDeleteKey returned 0XC0000121 for s",
         true},
        {{"ZwDeleteKey", oldText, STATUS_UNSUCCESSFUL},
         "OLD NEW(s(t)) z",
         "regDeleteKeyU: Native API call "
         "ZwDeleteKey returned 0XC0000001 for OLD",
         true},
    };
    for (const auto& row : rows) {
        clear();
        growNamed("k\\OLD k\\OLD\\s k\\OLD\\s\\t k\\z");
        set(oldKey, "v", REG_BINARY, oldSid);
        set("k\\z", "v", REG_BINARY, oldSid);
        describe(oldKey, systemOnly());
        refuse(row.fault);
        const std::string expected = std::string("ERROR ") + row.message +
                                     "; ERROR regReplaceSIDCallback: Failed to "
                                     "rename key   OLD; ";
        EXPECT_NE(run(namesOnly).find(expected), std::string::npos) << expected;
        forgetFaults();
        EXPECT_EQ(tree("k"), row.after);
        if (there(newKey)) {
            EXPECT_EQ(descriptor(newKey) == systemOnly(), row.secured) << row.message;
        }
        EXPECT_EQ(get(oldKey, "v"), oldSid);
        EXPECT_EQ(run(namesOnly | SID_REPLACE_VALUES).back(), '0');
        EXPECT_EQ(tree("k"), "NEW(s(t)) z");
        EXPECT_EQ(get(newKey, "v"), newSid);
        EXPECT_EQ(get("k\\z", "v"), newSid);
    }
}

/* A key of the new name takes the old one's tree in. */
TEST_F(Names, Collision) {
    growNamed("k\\OLD k\\OLD\\a k\\OLD\\b");
    grow(newKey + " " + newKey + "\\b " + newKey + "\\c");
    set(oldKey, "v", REG_SZ, bytesOf(u"old"));
    set(newKey, "v", REG_SZ, bytesOf(u"new"));
    set(newKey, "w", REG_SZ, bytesOf(u"new"));
    EXPECT_TRUE(run().ends_with("; 0"));
    EXPECT_EQ(tree("k"), "NEW(a b c)");
    EXPECT_EQ(get(newKey, "v"), bytesOf(u"old"));
    EXPECT_EQ(get(newKey, "w"), bytesOf(u"new"));
}

/* Whatever allocation fails, no key and no value is lost. */
TEST_F(Names, NoMemory) {
    int i = 0;
    for (bool complete = false; !complete; i++) {
        clear();
        growNamed("k\\OLD k\\OLD\\s");
        set(oldKey + "\\s", "v", REG_SZ, bytesOf(u"x"));
        allocationsLeft = i;
        run();
        complete = allocationsLeft > 0;
        allocationsLeft = -1;
        const std::string& whole = there(oldKey + "\\s") ? oldKey : newKey;
        EXPECT_EQ(get(whole + "\\s", "v"), bytesOf(u"x"));
    }
    EXPECT_GT(i, 8);
}

} /* namespace */
} /* namespace offline */
