/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The scan engine under a callback whose answers the test gives. */
#include <algorithm>

#include "tests/support/small_system.h"

namespace offline {
namespace {

/* What the callback answers and leaves in its words. A pre-call that is not scripted descends with a word, a
 * post-call clears both and goes on. */
struct Reply {
    uint32_t result;
    uint64_t words[2] = {0, 0};
    bool deletes = false; /* the child */
};
using Script = std::map<std::string, std::vector<Reply>>; /* "+path" and "-path": one reply a call */

const ByteVector refusing = makeDescriptor(admins, {allowed(admins, KEY_QUERY_VALUE)});

struct Scan : PrivilegedSystem {
    Script script;
    bool detailed = false; /* note scope, depth and flags as well */

    static uint32_t callback(HANDLE parent, const UNICODE_STRING* path, const KEY_NODE_INFORMATION* record,
                             uint64_t scope, uint64_t* subscope, void* data, int32_t depth, uint32_t flags) {
        auto* scan = static_cast<Scan*>(data);
        const std::string place = text("%s%wZ", record != nullptr ? "+" : "-", path);
        note("%s", place.c_str());
        if (scan->detailed) {
            events.back() += text(" scope %u depth %d flags %x of %s", static_cast<unsigned>(scope), depth,
                                  flags, nameOf(parent).c_str());
        }
        if (record != nullptr) {
            EXPECT_EQ(subscope[0] | subscope[1], 0u);
            EXPECT_TRUE(place.ends_with(toUtf8({record->Name, record->NameLength / sizeof(WCHAR)})));
        }
        Reply reply = {record != nullptr ? SCAN_DESCEND : SCAN_NEXT, {record != nullptr ? 7u : 0u, 0}};
        auto& replies = scan->script[place];
        if (!replies.empty()) {
            reply = replies.front();
            replies.erase(replies.begin());
        }
        if (reply.deletes) {
            const std::u16string name = wide(place.substr(std::max<size_t>(place.rfind('\\') + 1, 1)));
            const UNICODE_STRING child = counted(name);
            EXPECT_EQ(regDeleteKeyU(parent, &child, 0), 0u);
        }
        std::copy(reply.words, reply.words + 2, subscope);
        return reply.result;
    }

    DWORD scan(uint32_t flags = 0, uint64_t scope = 0) {
        const HANDLE key = at("", KEY_ENUMERATE_SUB_KEYS | KEY_QUERY_VALUE);
        events.clear();
        const DWORD error = regScan(key, callback, scope, this, flags);
        ZwClose(key);
        return error;
    }

    /* "the events, the code", log lines among the events. */
    std::string run(uint32_t flags = 0, uint64_t scope = 0) {
        // clang-format off
        const Legend legend = {
            {", ", " "}, {"ERROR _regScanImpl: ", "! "}, {"WARN _regScanImpl: ", "? "},
            {"Native API call ", ""}, {"callback ", ""}, {"returned unexpected code", "code"},
            {"subscope is not cleaned", "dirty"},
            {"DEBUG _doOpenCreateKey: ZwOpenKey returned 0XC0000022 for a access=0x2000f", "refused"},
            {"INFO _regOpenCreateKey: Taking ownership of a", "taken"},
            {"DEBUG _regOpenCreateKey: Finally open a access=0x2000f", "open"}, {"refused taken open", "T"},
            {"p\\a", "A"}, {"Original security attributes lost for A", "lost"}};
        // clang-format on
        std::string line = outcome(legend, [&] { return scan(flags, scope); });
        const size_t handle = line.find(" 0x");  // differs from run to run
        return handle == line.npos ? line : line.replace(handle, line.find(' ', handle + 1) - handle, " H");
    }
    /* The same over "p", whose child "a" has to be taken. */
    std::string runRefused() {
        grow("p p\\a p\\a\\x");
        describe("p\\a", refusing);
        setAccessMode(AccessMode::checked);
        PrivilegedSystem::enableAll();
        const std::string told = run(REG_TAKE_OWNERSHIP);
        setAccessMode(AccessMode::unrefused);
        return told;
    }
    /* A key that an open gives stands for a predefined handle. */
    static void predefine(const std::string& name) {
        answer.ZwOpenKey = [=](PHANDLE key, ACCESS_MASK access, POBJECT_ATTRIBUTES attributes) {
            const NTSTATUS status = platform.ZwOpenKey(key, access, attributes);
            if (status < 0 || access != 0x2000f || text("%wZ", attributes->ObjectName) != name) return status;
            ZwClose(*key);
            *key = HKEY_USERS;
            return status;
        };
    }
};

const Reply next = {SCAN_NEXT}, again = {SCAN_RESTART}, fail = {SCAN_FAIL};

/* Every answer in both calls, which status wins, and calls that fail. The tree: a, a\x, b. */
TEST_F(Scan, AnswersAndFailures) {
    const std::string unasked = "ZwQueryKey returned 0XC0000022 for ";
    // clang-format off
    const struct { Script script; std::string expected; std::vector<Fault> faults = {}; } rows[] = {
        {{{"+a", {next}}}, "+a +b -b 0"},
        {{{"+b", {again}}}, "+a +a\\x -a\\x -a +b +a +a\\x -a\\x -a +b -b 0"},
        {{{"-a\\x", {again}}}, "+a +a\\x -a\\x +a\\x -a\\x -a +b -b 0"},
        {{{"+a", {fail}}}, "+a 31"},
        {{{"-a", {fail}}}, "+a +a\\x -a\\x -a 31"},
        {{{"+a\\x", {{4294967295}}}}, "+a +a\\x ! on x code -1 -a 1359"},
        {{{"-a", {{1}}}}, "+a +a\\x -a\\x -a ! code 1 1359"},
        /* words left behind, over whatever status there was */
        {{{"+a", {{SCAN_NEXT, {0, 5}}}}}, "+a ! dirty 1359"},
        {{{"+a", {{SCAN_FAIL, {5}}}}}, "+a ! dirty 1359"},
        {{{"+a", {{SCAN_DESCEND, {0, 5}}}}}, "+a +a\\x -a\\x ! dirty 1359"},
        {{{"-a", {{SCAN_NEXT, {7}}}}}, "+a +a\\x -a\\x -a ! dirty 1359"},
        /* a failed descent stands, unless the post-call's own failure takes its place */
        {{{"+a\\x", {fail}}, {"-a", {again}}}, "+a +a\\x -a 31"},
        {{{"+a\\x", {{9}}}, {"-a", {fail}}}, "+a +a\\x ! on x code 9 -a 31"},
        /* a child that the callback deletes */
        {{{"-a\\x", {{SCAN_RESTART, {}, true}}}}, "+a +a\\x -a\\x -a +b -b 0"},
        /* calls that fail */
        {{}, "+a ! ZwEnumerateKey returned 0XC0000001 for a -a 31",
         {{"ZwEnumerateKey", "a", STATUS_UNSUCCESSFUL}}},
        {{}, "+a ERROR _doOpenCreateKey: ZwOpenKey returned 0XC0000034 for x access=0x2000f -a 2",
         {{"ZwOpenKey", "x", STATUS_OBJECT_NAME_NOT_FOUND}}},
        {{}, "+a ? " + unasked + "a x H -a +b -b 0", {{"ZwQueryKey", "x", STATUS_ACCESS_DENIED}}},
        {{}, "+a +a\\x -a\\x -a +b -b 0", {{"ZwEnumerateKey", "", STATUS_INFO_LENGTH_MISMATCH, 0, 1}}},
    };
    // clang-format on
    for (const auto& row : rows) {
        grow("a a\\x b");
        script = row.script;
        faults = row.faults;
        EXPECT_EQ(run(), row.expected);
    }
    faults.clear();
    grow("a\\x");
    detailed = true;
    script = {{"+a", {{SCAN_DESCEND, {11, 12}}}}, {"+b", {{SCAN_DESCEND}}}};
    EXPECT_EQ(run(0xFFF80123, 5),
              "+a scope 5 depth 1 flags 80123 of TEST +a\\x scope 11 depth 2 flags 80123 of a "
              "-a\\x scope 11 depth 2 flags 80123 of a -a scope 5 depth 1 flags 80123 of TEST "
              "+b scope 5 depth 1 flags 80123 of TEST 0");
}

/* The first record and the first path fill their 512 bytes; then both grow, exactly as far as they have to.
 */
TEST_F(Scan, LongNames) {
    const std::string name(255, 'n');
    std::string path = name;
    HANDLE parent = at(""), key = nullptr;
    const auto makeBelow = [&](const std::string& child) {
        ASSERT_EQ(createKey(key, wide(child), {.root = parent}), STATUS_SUCCESS);
    };
    for (int i = 0; i < 127; i++, path += "\\" + name) {
        makeBelow(name);
        parent = key;
    }
    makeBelow(name);
    ASSERT_EQ(path.size() * sizeof(WCHAR), 65534u);
    EXPECT_EQ(scan(), 0u);
    EXPECT_TRUE(events.size() == 256 && events[127] == "+" + path && events[128] == "-" + path);
    makeBelow(name.substr(1));  // comes before the other one
    parent = key;
    makeBelow("y");  // would make 65,536 bytes
    path.pop_back();
    EXPECT_EQ(scan(), 206u);
    EXPECT_TRUE(events.size() == 257 && events[128] == "ERROR _regScanImpl: Too long a path below " + path);
}

TEST_F(Scan, Depth) {
    std::string path = "d";
    for (int i = 0; i < 255; i++, path += i == 255 ? "\\e" : "\\d") grow(path);
    grow(path);
    script = {{"+" + path, {next}}};
    EXPECT_EQ(scan(), 0u);
    EXPECT_EQ(events.size(), 256u + 255);
    EXPECT_EQ(events[255], "+" + path);
    EXPECT_EQ(scan(), 161u);
    EXPECT_EQ(events.size(), 256u + 256);
}

/* In its steady state a walk allocates nothing: twice the keys, the same count. */
TEST_F(Scan, Allocations) {
    const auto measure = [&](int keys) {
        for (int i = 0; i < keys; i++) {
            const std::string path = "k" + std::to_string(i % 20) + (i < 20 ? "" : "\\" + std::to_string(i));
            grow(path);
            set(path, "text", REG_SZ, bytesOf(wide("OLD-1")));
            set(path, "list", REG_MULTI_SZ, bytesOf(wide("OLD")));
            set(path, "data", REG_BINARY, oldSid);
            describe(path, allOf(oldText));
        }
        constexpr uint32_t all = SID_RECURSIVE | SID_REPLACE_NAMES | SID_REPLACE_VALUES | SID_REPLACE_SD;
        allocationsLeft = 1000000;
        EXPECT_TRUE(scan() == 0 && replace("", all) == 0);
        const int used = 1000000 - allocationsLeft;
        allocationsLeft = -1;
        EXPECT_EQ(get("k0", "data"), newSid);
        return used;
    };
    const int few = measure(60);
    EXPECT_EQ(measure(120), few);
}

/* Descriptors that the scan had to displace are back on every road; of one that is lost the key is named. */
TEST_F(Scan, WriteBack) {
    const Reply gone = {SCAN_RESTART, {}, true};
    const Fault unqueried = {"ZwQueryKey", "a", STATUS_UNSUCCESSFUL};
    const Fault shut = {"ZwOpenKey", "a", STATUS_ACCESS_DENIED, 5};
    const std::string unasked = "T ? ZwQueryKey returned 0XC0000001 for p a H ";
    // clang-format off
    const struct {
        Script script; std::string expected; std::vector<Fault> faults = {}; bool back = true;
    } rows[] = {
        {{{"+p\\a", {next}}}, "T +A -p 0"},
        {{{"+p\\a\\x", {fail}}}, "T +A +A\\x -A -p 31"},
        {{{"-p\\a\\x", {gone}}, {"-p\\a", {gone}}}, "T +A +A\\x -A\\x -A -p 0"},
        {{}, unasked + "-p 0", {unqueried}},
        {{}, unasked + "? ZwOpenKey returned 0XC0000022 for A ? lost -p 0", {unqueried, shut}, false},
        {{{"+p\\a", {next}}},
         "T +A ERROR regSetKeySec: Win API call RegSetKeySecurity returned 87 ? lost -p 0",
         {{"RegSetKeySecurity", "a", ERROR_INVALID_PARAMETER, 2}}, false},
    };
    // clang-format on
    for (const auto& row : rows) {
        script = row.script;
        faults = row.faults;
        EXPECT_EQ(runRefused(), "+p " + row.expected);
        faults.clear();
        EXPECT_TRUE(!there("p\\a") || (descriptorOf("p\\a") == refusing) == row.back) << row.expected;
        clear("p");
    }
}

/* It is no key to treat, to close, or to put a descriptor back on. */
TEST_F(Scan, PredefinedHandle) {
    grow("a b");
    predefine("a");
    EXPECT_EQ(run(), "+b -b 0");
    clear("a b");
    EXPECT_EQ(runRefused(), "+p T ? lost -p 0");
}

} /* namespace */
} /* namespace offline */
