/* Copying and deleting trees. */
#include "tests/keys/keys.h"

namespace offline {
namespace {

struct Trees : Keys {
    void makeKey(std::string_view path, std::u16string_view className) {
        create(wide(path), {.className = className});
    }
    std::string copy(uint32_t flags = 0, regLinkMapCallback map = nullptr, void* data = nullptr) {
        const HANDLE source = at("from"), target = at("to");
        return outcome([&] { return regCopyKey(source, target, map, data, flags); });
    }
    std::string remove(std::u16string_view name, uint32_t flags) {
        const HANDLE root = at("");
        const UNICODE_STRING text = counted(name);
        return outcome([&] { return regDeleteKeyU(root, &text, flags); });
    }
    template <typename Operation>
    std::string outcome(Operation operation) {
        events.clear();
        callsMade.clear();
        const DWORD error = operation();
        std::string line;
        for (const std::string& event : events) line += event + "; ";
        return line + std::to_string(error);
    }
};

TEST_F(Trees, CopyOfEverything) {
    const Bytes special = systemOnly();
    for (const uint32_t flags : {0u, 0u + REG_NO_VALUES, 0u + REG_NO_SECURITY}) {
        for (const char16_t* name : {u"from", u"to"}) remove(name, REG_RECURSIVE | REG_QUIET);
        grow("from to from\\b");
        makeKey("from\\a", u"Some class");
        makeKey("from\\a\\x", u"C");
        set("from", "top", REG_SZ, bytesOf(u"1"));
        set("from\\a", "none", REG_NONE, {});
        set("from\\a", "", 0x12345, Bytes(100000, 7));
        set("from\\a\\x", "v", REG_DWORD, {1, 2, 3, 4});
        describe("from", special);
        describe("from\\a", special);
        EXPECT_EQ(copy(flags), "0");
        EXPECT_EQ(tree("to"), "a(x) b");
        EXPECT_EQ(classOf("to\\a") + classOf("to\\a\\x") + classOf("to\\b"), "Some classC");
        const std::string values = flags == REG_NO_VALUES ? "2 0" : "0 100000";
        if (flags == REG_NO_VALUES) {
            EXPECT_EQ(callsMade["ZwSetValueKey"], 0);
        } else {
            ULONG type = 0;
            EXPECT_EQ(get("to\\a", "", &type), Bytes(100000, 7));
            EXPECT_EQ(type, 0x12345u);
            EXPECT_EQ(get("to\\a", "none", &type), Bytes());
            EXPECT_EQ(get("to\\a\\x", "v"), Bytes({1, 2, 3, 4}));
            EXPECT_EQ(get("to", "top"), bytesOf(u"1"));
        }
        EXPECT_EQ(descriptor("to\\a") == special, flags != REG_NO_SECURITY);
        EXPECT_NE(descriptor("to"), special);
    }
}

/* A link mapping's answers; what it makes of the link, and how often it is asked. */
struct Mapping {
    std::vector<uint32_t> answers;
    size_t asked = 0;
    static uint32_t answer(const WCHAR* target, memBuf* newTarget, void* data) {
        auto* mapping = static_cast<Mapping*>(data);
        EXPECT_EQ(std::u16string(target), full(u"aim"));
        const std::u16string other = full(u"other");
        EXPECT_GE(newTarget->size, 512u);
        memcpy(newTarget->data, other.c_str(), (other.size() + 1) * sizeof(WCHAR));
        return mapping->answers.at(mapping->asked++);
    }
};

TEST_F(Trees, LinkMappings) {
    const struct {
        std::vector<uint32_t> answers;
        const char* present; /* at the destination */
        const char* expected;
        const char* after;
        const char* leads = "";
    } rows[] = {
        {{}, "", "0", "m"},
        {{LINK_MAP_SKIP}, "", "0", "m"},
        {{LINK_MAP_SAME}, "", "0", "l@ m", "aim"},
        {{LINK_MAP_SAME}, "to\\l", "0", "l@ m", "aim"},
        {{LINK_MAP_NEW}, "to\\l", "0", "l@ m", "other"},
        {{LINK_MAP_DELETE, LINK_MAP_SKIP}, "to\\l", "0", "m"},
        {{LINK_MAP_DELETE, LINK_MAP_NEW}, "", "0", "l@ m", "other"},
        {{LINK_MAP_FAIL}, "", "31", ""},
        {{5}, "", "ERROR _regScanLinksCallbackImpl: callback returned unexpected code 5; 31", ""},
        {{LINK_MAP_SAME},
         "to\\l to\\l\\below",
         "ERROR _regKeyDelete: Native API call ZwDeleteKey returned 0XC0000121 for l; 31",
         "l(below)"},
    };
    grow("aim aim\\below other");
    for (const auto& row : rows) {
        for (const char16_t* name : {u"from", u"to"}) remove(name, REG_RECURSIVE | REG_QUIET);
        grow("from to from\\m");
        makeLink(u"from\\l", full(u"aim"));
        grow(row.present);
        Mapping mapping = {row.answers};
        EXPECT_TRUE(
            copy(0, row.answers.empty() ? nullptr : Mapping::answer, &mapping).ends_with(row.expected));
        EXPECT_EQ(mapping.asked, row.answers.size());
        EXPECT_EQ(tree("to"), row.after);
        if (row.leads[0] != 0) {
            EXPECT_EQ(get("to\\l", "SymbolicLinkValue"), bytesOf(full(wide(row.leads))));
        }
    }
    set("from\\m", "SymbolicLinkValue", REG_SZ, bytesOf(u"x"));
    set("from\\m", "long", REG_SZ, bytesOf(std::u16string(300, 'y')));
    remove(u"to", REG_RECURSIVE);
    grow("to");
    EXPECT_EQ(copy(), "0");
    EXPECT_EQ(get("to\\m", "SymbolicLinkValue"), bytesOf(u"x"));
}

/* Around the size of the copy's buffer there is always room for the terminator. */
TEST_F(Trees, LongLinkTargets) {
    const auto keep = [](const WCHAR*, memBuf*, void*) { return uint32_t{LINK_MAP_SAME}; };
    for (size_t length = 247; length <= 252; length++) {
        for (const char16_t* name : {u"from", u"to"}) remove(name, REG_RECURSIVE | REG_QUIET);
        grow("from to");
        const std::u16string target = full(std::u16string(length - full(u"").size(), 'y'));
        makeLink(u"from\\l", target);
        EXPECT_TRUE(copy(0, keep).ends_with("; 0"));
        EXPECT_EQ(get("to\\l", "SymbolicLinkValue"), bytesOf(target));
    }
}

TEST_F(Trees, Flushes) {
    grow("from to");
    for (int i = 1; i <= 131; i++) {
        grow("from\\" + std::to_string(1000 + i));
        if (i < 64 || (i > 66 && i < 129)) continue;
        EXPECT_EQ(copy(), "0");
        EXPECT_EQ(callsMade["ZwFlushKey"], i < 65 ? 0 : i < 130 ? 1 : 2) << i;
    }
}

TEST_F(Trees, CopyFailures) {
    const struct {
        Fault fault;
        uint32_t flags;
        const char* expected;
        const char* after;
    } rows[] = {
        {{"none"},
         REG_IGNORE_MISSING,
         "DEBUG _doOpenCreateKey: Native API call ZwOpenKey returned 0XC0000034 "
         "for a, access=0xe0006; DEBUG _doOpenCreateKey: Native API call ZwOpenKey returned 0XC0000034 for "
         "b, "
         "access=0xe0006; 0",
         ""},
        {{"ZwSetValueKey", "x", STATUS_ACCESS_DENIED},
         0,
         "ERROR _regCopyKValues: Native API call ZwSetValueKey returned 0XC0000022 for v; 31",
         "a(x)"},
        {{"ZwSetValueKey", "to", STATUS_ACCESS_DENIED},
         0,
         "ERROR _regCopyKValues: Native API call ZwSetValueKey returned 0XC0000022 for v; 5",
         "a(x) b"},
        {{"ZwEnumerateValueKey", "a", STATUS_UNSUCCESSFUL},
         0,
         "ERROR _regCopyKValues: Native API call ZwEnumerateValueKey returned 0XC0000001; 31",
         "a"},
        {{"ZwQueryValueKey", "a", STATUS_ACCESS_DENIED},
         0,
         "ERROR _regScanLinksCallbackImpl: Native API call ZwQueryValueKey returned 0XC0000022 for a; 31",
         ""},
        {{"ZwCreateKey", "x", STATUS_ACCESS_DENIED},
         0,
         "ERROR _doOpenCreateKey: Native API call ZwCreateKey returned 0XC0000022 for x, access=0xe0006; 31",
         "a"},
        {{"RegGetKeySecurity", "x", 87},
         0,
         "ERROR regGetKeySec: Win API call RegGetKeySecurity returned 87; WARN _regScanCopyCallback: failed "
         "to "
         "copy security attributes for a\\x : error 87; 0",
         "a(x) b"},
        {{"ZwClose", "x", STATUS_UNSUCCESSFUL, 1, 1},
         0,
         "ERROR _regScanCopyCallback: Native API call ZwClose returned 0XC0000001; 31",
         "a(x)"},
        {{"ZwFlushKey", "", STATUS_UNSUCCESSFUL}, 0, "0", "a(x) b"},
    };
    for (const auto& row : rows) {
        for (const char16_t* name : {u"from", u"to"}) remove(name, REG_RECURSIVE | REG_QUIET);
        grow("from to from\\a from\\a\\x from\\b");
        set("from", "v", REG_SZ, bytesOf(u"top"));
        set("from\\a\\x", "v", REG_SZ, bytesOf(u"x"));
        refuse(row.fault);
        EXPECT_EQ(copy(row.flags), row.expected);
        forgetFaults();
        EXPECT_EQ(tree("to"), row.after);
    }
    for (int i = 0; i < 4; i++) {
        allocationsLeft = i;
        EXPECT_TRUE(copy().ends_with("; 8")) << i;
    }
}

/* Leaves go first; what fails stays, and what stands above it. */
TEST_F(Trees, Deletion) {
    const std::string denied = "Native API call ZwDeleteKey returned 0XC0000121 for ";
    const struct {
        Fault fault;
        uint32_t flags;
        std::string expected;
        const char* after;
    } rows[] = {
        {{"none"}, REG_RECURSIVE, "0", "aim(below)"},
        {{"none"}, 0, "ERROR regDeleteKeyU: " + denied + "top; 5", "aim(below) top(a(x y) l@)"},
        {{"none"}, REG_QUIET, "DEBUG regDeleteKeyU: " + denied + "top; 5", "aim(below) top(a(x y) l@)"},
        {{"ZwDeleteKey", "y", STATUS_CANNOT_DELETE},
         REG_RECURSIVE,
         "ERROR regScanDeleteCallback: " + denied + "a\\y; ERROR regScanDeleteCallback: " + denied + "a; 31",
         "aim(below) top(a(y) l@)"},
        {{"ZwDeleteKey", "top", STATUS_CANNOT_DELETE},
         REG_RECURSIVE | REG_QUIET,
         "DEBUG regDeleteKeyU: " + denied + "top; 5",
         "aim(below) top"},
        {{"ZwOpenKey", "y", STATUS_UNSUCCESSFUL, 1},
         REG_RECURSIVE,
         "ERROR _doOpenCreateKey: Native API call ZwOpenKey returned 0XC0000001 for y, access=0x10000; "
         "ERROR regScanDeleteCallback: " +
             denied + "a; 31",
         "aim(below) top(a(y) l@)"},
        {{"ZwClose", "x", STATUS_UNSUCCESSFUL, 0, 1},
         REG_RECURSIVE,
         "ERROR regScanDeleteCallback: Native API call ZwClose returned 0XC0000001 for a\\x; "
         "ERROR regScanDeleteCallback: " +
             denied + "a; 31",
         "aim(below) top(a(y) l@)"},
    };
    grow("aim aim\\below");
    for (const auto& row : rows) {
        remove(u"top", REG_RECURSIVE | REG_IGNORE_MISSING | REG_QUIET);
        grow("top top\\a top\\a\\x top\\a\\y");
        makeLink(u"top\\l", full(u"aim"));
        refuse(row.fault);
        EXPECT_EQ(remove(u"top", row.flags), row.expected);
        forgetFaults();
        EXPECT_EQ(tree(""), row.after);
    }
    EXPECT_EQ(remove(u"no", REG_IGNORE_MISSING),
              "DEBUG _doOpenCreateKey: Native API call ZwOpenKey returned "
              "0XC0000034 for no, access=0x10008; 0");
    EXPECT_EQ(remove(u"no", REG_RECURSIVE),
              "ERROR _doOpenCreateKey: Native API call ZwOpenKey returned "
              "0XC0000034 for no, access=0x10008; 2");
}

/* A tree of 255 levels is copied and deleted; one more is met, but not entered. */
TEST_F(Trees, Depth) {
    grow("from to");
    std::string path = "from";
    for (int i = 0; i < 255; i++) grow(path += "\\d");
    EXPECT_EQ(copy(), "0");
    EXPECT_TRUE(there("to" + path.substr(4)));
    EXPECT_EQ(remove(u"to", REG_RECURSIVE), "0");
    EXPECT_FALSE(there("to"));
    grow("to " + path + "\\d");
    EXPECT_EQ(copy(), "161");
    grow(path + "\\d\\d");
    EXPECT_TRUE(remove(u"from", REG_RECURSIVE).ends_with("; 31"));
    EXPECT_TRUE(there(path + "\\d\\d"));
}

} /* namespace */
} /* namespace offline */
