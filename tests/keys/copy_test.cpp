/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Copying and deleting trees. */
#include "tests/support/small_system.h"

namespace offline {
namespace {

const Legend legend = {{"Native API call ", ""}, {" returned", ""}, {"ERROR ", "! "}, {"DEBUG ", "(!) "}};

struct Trees : PrivilegedSystem {
    std::string copy(uint32_t flags = 0, regLinkMapCallback map = nullptr, void* data = nullptr) {
        const HANDLE source = at("from"), target = at("to");
        return outcome(legend, [&] { return regCopyKey(source, target, map, data, flags); });
    }
    std::string remove(std::u16string_view name, uint32_t flags) {
        const HANDLE root = at("");
        const UNICODE_STRING text = counted(name);
        return outcome(legend, [&] { return regDeleteKeyU(root, &text, flags); });
    }
};

/* A link mapping's answers for the link with a target, and how often it is asked; the one without stays so.
 */
struct Mapping {
    std::vector<uint32_t> answers;
    size_t asked = 0;
    static uint32_t answer(const WCHAR* target, memBuf* newTarget, void* data) {
        if (*target == 0) return LINK_MAP_SAME;
        auto* mapping = static_cast<Mapping*>(data);
        EXPECT_EQ(std::u16string(target), full(u"aim"));
        const std::u16string other = full(u"other");
        memcpy(newTarget->data, other.c_str(), (other.size() + 1) * sizeof(WCHAR));
        return mapping->answers.at(mapping->asked++);
    }
};

/* A key's flag makes it a link, and not a value, unless flags are not told; a link need not have a target. */
TEST_F(Trees, Links) {
    constexpr NTSTATUS untold = STATUS_INVALID_PARAMETER;
    // clang-format off
    const struct {
        std::vector<uint32_t> answers; /* none: no mapping */
        const char* present;           /* at the destination */
        const char* expected; const char* after; const char* leads = "aim"; Fault fault = {};
    } rows[] = {
        {{}, "", "0", "m o(c)"},
        {{LINK_MAP_SKIP}, "", "0", "m n@ o(c)"},
        {{LINK_MAP_SAME}, "to\\l", "0", "l@ m n@ o(c)"},
        {{LINK_MAP_NEW}, "to\\l", "0", "l@ m n@ o(c)", "other"},
        {{LINK_MAP_DELETE, LINK_MAP_NEW}, "", "0", "l@ m n@ o(c)", "other"},
        {{5}, "", "! _regScanLinksCallbackImpl: callback unexpected code 5, 31", ""},
        {{LINK_MAP_SAME}, "to\\l to\\l\\below", "! _regKeyDelete: ZwDeleteKey 0XC0000121 for l, 31",
         "l(below)"},
        {{LINK_MAP_SAME}, "", "0", "l@ m n@ o(c)", "aim", {"ZwQueryKey", "l", untold, 1, 1}},
        {{LINK_MAP_SAME}, "", "0", "l@ m n@ o(c)", "aim", {"ZwQueryKey", "m", untold, 1, 1}},
        {{LINK_MAP_SAME}, "", "! regQueryIsLink: ZwQueryKey 0XC0000022, 31", "l@ m", "aim",
         {"ZwQueryKey", "n", STATUS_ACCESS_DENIED, 1, 1}},
    };
    // clang-format on
    grow("aim aim\\below other");
    for (const auto& row : rows) {
        clear("from to");
        grow("from to from\\m from\\o from\\o\\c");
        set("from\\m", "SymbolicLinkValue", REG_SZ, bytesOf(u"no link"));
        set("from\\o", "SymbolicLinkValue", REG_LINK, bytesOf(full(u"aim")));
        makeLink(u"from\\l", full(u"aim"));
        ZwClose(create(u"from\\n", {.options = REG_OPTION_CREATE_LINK}));
        describe("from\\l", systemOnly());
        grow(row.present);
        Mapping mapping = {row.answers};
        faults = {row.fault};
        const std::string told = copy(0, row.answers.empty() ? nullptr : Mapping::answer, &mapping);
        faults.clear();
        EXPECT_TRUE(told.ends_with(row.expected)) << told;
        EXPECT_EQ(mapping.asked, row.answers.size());
        const std::string after = tree("to");
        EXPECT_EQ(after, row.after);
        if (after.starts_with("l@")) {
            EXPECT_EQ(get("to\\l", "SymbolicLinkValue"), bytesOf(full(wide(row.leads))));
            EXPECT_EQ(descriptorOf("to\\l"), systemOnly());
            EXPECT_EQ(get("to\\m", "SymbolicLinkValue"), bytesOf(u"no link"));
        }
        EXPECT_EQ(remove(u"from", REG_RECURSIVE), "0");
        EXPECT_EQ(tree("aim"), "below");
    }
    // Around the size of the copy's buffer there is always room for the terminator.
    for (size_t length = 247; length <= 252; length++) {
        clear("from to");
        grow("from to");
        const std::u16string target = full(std::u16string(length - full(u"").size(), 'y'));
        makeLink(u"from\\l", target);
        copy(0, [](const WCHAR*, memBuf*, void*) { return uint32_t{LINK_MAP_SAME}; });
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
    const std::string missing = "(!) _doOpenCreateKey: ZwOpenKey 0XC0000034 for ",
                      copying = "! _regCopyKValues: ";
    const std::string access = ", access=0xe0006, ";
    // clang-format off
    const struct { Fault fault; uint32_t flags; std::string expected; const char* after; } rows[] = {
        {{"none"}, REG_IGNORE_MISSING, missing + "a" + access + missing + "b" + access + "0", ""},
        {{"ZwSetValueKey", "x", STATUS_ACCESS_DENIED}, 0, copying + "ZwSetValueKey 0XC0000022 for v, 31",
         "a(x)"},
        {{"ZwCreateKey", "x", STATUS_ACCESS_DENIED}, 0,
         "! _doOpenCreateKey: ZwCreateKey 0XC0000022 for x" + access + "31", "a"},
        {{"RegGetKeySecurity", "x", 87}, 0,
         "! regGetKeySec: Win API call RegGetKeySecurity 87, "
         "WARN _regScanCopyCallback: failed to copy security attributes for a\\x : error 87, 0", "a(x) b"},
        {{"ZwClose", "x", STATUS_UNSUCCESSFUL, 1, 1}, 0, "! _regScanCopyCallback: ZwClose 0XC0000001, 31",
         "a(x)"},
    };
    // clang-format on
    for (const auto& row : rows) {
        clear("from to");
        grow("from to from\\a from\\a\\x from\\b");
        set("from", "v", REG_SZ, bytesOf(u"top"));
        set("from\\a\\x", "v", REG_SZ, bytesOf(u"x"));
        faults = {row.fault};
        EXPECT_EQ(copy(row.flags), row.expected);
        faults.clear();
        EXPECT_EQ(tree("to"), row.after);
    }
}

/* Leaves go first; what fails stays, and what stands above it. */
TEST_F(Trees, Deletion) {
    const std::string denied = "ZwDeleteKey 0XC0000121 for ";
    const std::string below = "! regScanDeleteCallback: " + denied + "a, 31";
    // clang-format off
    const struct { Fault fault; uint32_t flags; std::string expected; const char* after; } rows[] = {
        {{"none"}, REG_RECURSIVE, "0", ""},
        {{"none"}, 0, "! regDeleteKeyU: " + denied + "top, 5", " top(a(x y) l@)"},
        {{"none"}, REG_QUIET, "(!) regDeleteKeyU: " + denied + "top, 5", " top(a(x y) l@)"},
        {{"ZwDeleteKey", "y", STATUS_CANNOT_DELETE}, REG_RECURSIVE,
         "! regScanDeleteCallback: " + denied + "a\\y, " + below, " top(a(y) l@)"},
        {{"ZwOpenKey", "top", STATUS_OBJECT_NAME_NOT_FOUND}, REG_IGNORE_MISSING,
         "(!) _doOpenCreateKey: ZwOpenKey 0XC0000034 for top, access=0x10008, 0", " top(a(x y) l@)"},
    };
    // clang-format on
    for (const auto& row : rows) {
        clear("top");
        grow("aim aim\\below top top\\a top\\a\\x top\\a\\y");
        makeLink(u"top\\l", full(u"aim"));
        faults = {row.fault};
        EXPECT_EQ(remove(u"top", row.flags), row.expected);
        faults.clear();
        EXPECT_EQ(tree(""), std::string("aim(below)") + row.after);
    }
}

} /* namespace */
} /* namespace offline */
