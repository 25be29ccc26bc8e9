/* The scan engine under a callback whose answers the test gives. */
#include <algorithm>

#include "tests/keys/keys_fixture.h"

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

struct Scan : Keys {
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
            HANDLE child = nullptr;
            const std::u16string name = wide(place.substr(std::max<size_t>(place.rfind('\\') + 1, 1)));
            EXPECT_EQ(openKey(child, name, {.access = DELETE, .root = parent}), STATUS_SUCCESS);
            EXPECT_EQ(ZwDeleteKey(child), STATUS_SUCCESS);
            ZwClose(child);
        }
        subscope[0] = reply.words[0];
        subscope[1] = reply.words[1];
        return reply.result;
    }

    DWORD scan(uint32_t flags = 0, uint64_t scope = 0) {
        HANDLE key = at("", KEY_ENUMERATE_SUB_KEYS | KEY_QUERY_VALUE);
        events.clear();
        const DWORD error = regScan(key, callback, scope, this, flags);
        handles.pop_back();
        ZwClose(key);
        return error;
    }

    /* " H" for each " 0x..." */
    static std::string withoutHandles(std::string line) {
        for (size_t at = 0; (at = line.find(" 0x", at)) != line.npos; at += 2) {
            const size_t end = line.find_first_not_of("0123456789abcdef", at + 3);
            line.replace(at, std::min(end, line.size()) - at, " H");
        }
        return line;
    }

    /* "the events, the code", log lines among the events. */
    std::string run(uint32_t flags = 0, uint64_t scope = 0) {
        // clang-format off
        const Legend legend = {
            {", ", " "}, {"ERROR _regScanImpl: ", "! "}, {"WARN _regScanImpl: ", "? "},
            {"Native API call ", ""},
            {"callback ", ""}, {"returned unexpected code", "code"}, {"subscope is not cleaned", "dirty"},
            {"DEBUG _doOpenCreateKey: ZwOpenKey returned 0XC0000022 for a access=0x2000f", "refused"},
            {"INFO _regOpenCreateKey: Taking ownership of a", "taken"},
            {"DEBUG _regOpenCreateKey: Finally open a access=0x2000f", "open"}, {"refused taken open", "T"},
            {"p\\a", "A"}, {"Original security attributes lost for A", "lost"}};
        // clang-format on
        const std::string line = outcome(legend, [&] { return scan(flags, scope); });
        return withoutHandles(line);
    }
};

const Reply next = {SCAN_NEXT}, again = {SCAN_RESTART}, descend = {SCAN_DESCEND}, fail = {SCAN_FAIL};

/* Every answer in both calls, which status wins, and calls that fail. The tree: a, a\x, b. */
TEST_F(Scan, AnswersAndFailures) {
    // clang-format off
    const struct { Script script; std::string expected; std::vector<Fault> faults = {}; } rows[] = {
        {{}, "+a +a\\x -a\\x -a +b -b 0"},
        {{{"+a", {next}}}, "+a +b -b 0"},
        {{{"+a", {descend}}}, "+a +a\\x -a\\x +b -b 0"},
        {{{"+b", {again}}}, "+a +a\\x -a\\x -a +b +a +a\\x -a\\x -a +b -b 0"},
        {{{"-a", {again}}}, "+a +a\\x -a\\x -a +a +a\\x -a\\x -a +b -b 0"},
        {{{"-a\\x", {again}}}, "+a +a\\x -a\\x +a\\x -a\\x -a +b -b 0"},
        {{{"+a", {fail}}}, "+a 31"},
        {{{"-a", {fail}}}, "+a +a\\x -a\\x -a 31"},
        {{{"+a", {{4}}}}, "+a ! on a code 4 1359"},
        {{{"+a\\x", {{4294967295}}}}, "+a +a\\x ! on x code -1 -a 1359"},
        {{{"-a", {descend}}}, "+a +a\\x -a\\x -a ! code 1 1359"},
        {{{"-a", {{77}}}}, "+a +a\\x -a\\x -a ! code 77 1359"},
        /* words left behind, over whatever status there was */
        {{{"+a", {{SCAN_NEXT, {0, 5}}}}}, "+a ! dirty 1359"},
        {{{"+a", {{SCAN_RESTART, {5}}}}}, "+a ! dirty 1359"},
        {{{"+a", {{SCAN_FAIL, {5}}}}}, "+a ! dirty 1359"},
        {{{"+a", {{SCAN_DESCEND, {0, 5}}}}}, "+a +a\\x -a\\x ! dirty 1359"},
        {{{"-a", {{SCAN_NEXT, {7}}}}}, "+a +a\\x -a\\x -a ! dirty 1359"},
        {{{"-a", {{SCAN_FAIL, {0, 7}}}}}, "+a +a\\x -a\\x -a ! dirty 1359"},
        {{{"+a", {{SCAN_DESCEND, {7, 7}}}}}, "+a +a\\x -a\\x -a +b -b 0"},
        /* a failed descent stands, unless the post-call's own failure takes its place */
        {{{"+a\\x", {fail}}}, "+a +a\\x -a 31"},
        {{{"+a\\x", {fail}}, {"-a", {again}}}, "+a +a\\x -a 31"},
        {{{"+a\\x", {fail}}, {"-a", {{9}}}}, "+a +a\\x -a ! code 9 1359"},
        {{{"+a\\x", {{9}}}, {"-a", {fail}}}, "+a +a\\x ! on x code 9 -a 31"},
        /* a child that the callback deletes */
        {{{"+b", {{SCAN_RESTART, {}, true}}}}, "+a +a\\x -a\\x -a +b +a +a\\x -a\\x -a 0"},
        {{{"-a\\x", {{SCAN_RESTART, {}, true}}}}, "+a +a\\x -a\\x -a +b -b 0"},
        /* calls that fail */
        {{}, "+a ! ZwEnumerateKey returned 0XC0000001 for a -a 31",
         {{"ZwEnumerateKey", "a", STATUS_UNSUCCESSFUL}}},
        {{}, "! ZwEnumerateKey returned 0XC0000022 for  5", {{"ZwEnumerateKey", "", STATUS_ACCESS_DENIED}}},
        {{}, "+a ERROR _doOpenCreateKey: ZwOpenKey returned 0XC0000034 for x access=0x2000f -a 2",
         {{"ZwOpenKey", "x", STATUS_OBJECT_NAME_NOT_FOUND}}},
        {{}, "? ZwQueryKey returned 0XC0000022 for  a H +b -b 0",
         {{"ZwQueryKey", "a", STATUS_ACCESS_DENIED}}},
        {{}, "+a ? ZwQueryKey returned 0XC0000017 for a x H -a +b -b 0",
         {{"ZwQueryKey", "x", STATUS_NO_MEMORY}}},
        {{}, "+a +a\\x -a\\x -a +b -b 0", {{"ZwEnumerateKey", "", STATUS_INFO_LENGTH_MISMATCH, 0, 1}}},
    };
    // clang-format on
    for (const auto& row : rows) {
        grow("a a\\x b");
        script = row.script;
        refuse(row.faults);
        EXPECT_EQ(run(), row.expected);
    }
    refuse({});
    grow("empty");
    detailed = true;
    script = {{"+a", {{SCAN_DESCEND, {11, 12}}}}, {"+b", {next}}, {"+empty", {descend}}};
    EXPECT_EQ(run(0xFFF80123, 5),
              "+a scope 5 depth 1 flags 80123 of TEST +a\\x scope 11 depth 2 flags 80123 of a "
              "-a\\x scope 11 depth 2 flags 80123 of a -a scope 5 depth 1 flags 80123 of TEST "
              "+b scope 5 depth 1 flags 80123 of TEST +empty scope 5 depth 1 flags 80123 of TEST 0");
}

/* A key that stands for a predefined handle is no key to treat or to close. */
TEST_F(Scan, PredefinedHandle) {
    grow("a b");
    const auto open = answer.ZwOpenKey;
    answer.ZwOpenKey = [&](PHANDLE key, ACCESS_MASK access, POBJECT_ATTRIBUTES attributes) {
        if (text("%wZ", attributes->ObjectName) != "a") return open(key, access, attributes);
        *key = HKEY_USERS;
        return NTSTATUS{STATUS_SUCCESS};
    };
    EXPECT_EQ(run(), "+b -b 0");
    EXPECT_EQ(callsMade["ZwClose"], 2);  // of "b" and of the scanned key
}

TEST_F(Scan, NoMemoryAtAnyStep) {
    const std::string name(200, 'n');
    grow("a a\\" + name + " a\\" + name + "\\" + name + " b");
    allocationsLeft = 1000;
    EXPECT_EQ(scan(), 0u);
    const int needed = 1000 - allocationsLeft;
    EXPECT_GT(needed, 2);
    for (int i = 0; i < needed; i++) {
        allocationsLeft = i;
        EXPECT_EQ(scan(), 8u) << i;
        const std::string line = events.back();  // of the memory layer, or a post-call after it
        EXPECT_TRUE(line[0] == '-' || line.starts_with("ERROR ombra")) << line;
    }
}

/* The first record and the first path fill their 512 bytes; then both grow, exactly as far as they have to.
 */
TEST_F(Scan, LongNames) {
    const std::string name(255, 'n');
    std::string path = name;
    HANDLE key = at("");
    const auto makeBelow = [&](const std::string& child) {
        ASSERT_EQ(createKey(key, wide(child), {.root = key}), STATUS_SUCCESS);
        handles.push_back(key);
    };
    makeBelow(name);
    for (int i = 1; i < 128; i++) {
        makeBelow(name);
        path += "\\" + name;
    }
    ASSERT_EQ(path.size() * sizeof(WCHAR), 65534u);
    EXPECT_EQ(scan(), 0u);
    EXPECT_TRUE(events.size() == 256 && events[127] == "+" + path && events[128] == "-" + path);
    key = handles[handles.size() - 2];
    makeBelow(name.substr(1));  // comes before the other one
    makeBelow("y");             // would make 65,536 bytes
    path.pop_back();
    EXPECT_EQ(scan(), 206u);
    EXPECT_TRUE(events.size() == 257 && events[128] == "ERROR _regScanImpl: Too long a path below " + path);
    describe(path + "\\y", makeDescriptor(administratorsSid, {{0, KEY_QUERY_VALUE, administratorsSid}}));
    refuse({{"ZwOpenKey", "y", STATUS_ACCESS_DENIED, 5}});
    check(true);
    EXPECT_EQ(scan(REG_TAKE_OWNERSHIP), 206u);
    EXPECT_EQ(std::count(events.begin(), events.end(),
                         "WARN _regScanImpl: Original security attributes lost for y"),
              1);
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
            set(path, "text", REG_SZ, bytesOf(wide(oldText + "-1")));
            set(path, "list", REG_MULTI_SZ, bytesOf(wide(oldText)));
            set(path, "data", REG_BINARY, oldSid);
            describe(path, image({derived(oldSid, 500), derived(oldSid, 513), {}, {}}));
        }
        std::vector<int> used;
        allocationsLeft = 1000000;
        EXPECT_EQ(scan(), 0u);
        used.push_back(1000000 - allocationsLeft);
        allocationsLeft = 1000000;
        EXPECT_EQ(replace("", SID_RECURSIVE | SID_REPLACE_NAMES | SID_REPLACE_VALUES | SID_REPLACE_SD), 0u);
        used.push_back(1000000 - allocationsLeft);
        allocationsLeft = -1;
        EXPECT_EQ(get("k0", "data"), newSid);
        return used;
    };
    const std::vector<int> few = measure(200), many = measure(400);
    EXPECT_EQ(few, many);
    EXPECT_EQ(few[0], 2);
}

/* Descriptors that the scan had to displace are back on every road; of one that is lost the key is named. */
TEST_F(Scan, WriteBack) {
    const Reply gone = {SCAN_RESTART, {}, true};
    const Fault unqueried = {"ZwQueryKey", "a", STATUS_UNSUCCESSFUL};
    const Fault shut = {"ZwOpenKey", "a", STATUS_ACCESS_DENIED, 5};
    // clang-format off
    const struct {
        Script script; std::string expected; std::vector<Fault> faults = {}; bool back = true;
    } rows[] = {
        {{{"+p\\a", {next}}}, "T +A -p 0"},
        {{}, "T +A +A\\x -A\\x -A -p 0"},
        {{{"+p\\a", {fail}}}, "T +A -p 31"},
        {{{"+p\\a\\x", {fail}}}, "T +A +A\\x -A -p 31"},
        {{{"-p\\a", {fail}}}, "T +A +A\\x -A\\x -A -p 31"},
        {{{"-p\\a\\x", {gone}}, {"-p\\a", {gone}}}, "T +A +A\\x -A\\x -A -p 0"},
        {{}, "T ? ZwQueryKey returned 0XC0000001 for p a H -p 0", {unqueried}},
        {{}, "T ? ZwQueryKey returned 0XC0000001 for p a H ? ZwOpenKey returned 0XC0000022 for A ? lost -p 0",
         {unqueried, shut}, false},
        {{{"+p\\a", {next}}}, "T +A ? ZwOpenKey returned 0XC0000022 for A ? lost -p 0", {shut}, false},
        {{{"+p\\a", {next}}},
         "T +A ERROR regSetKeySec: Win API call RegSetKeySecurity returned 87 ? lost -p 0",
         {{"RegSetKeySecurity", "a", ERROR_INVALID_PARAMETER, 2}}, false},
    };
    // clang-format on
    const ByteVector refusing = makeDescriptor(administratorsSid, {{0, KEY_QUERY_VALUE, administratorsSid}});
    const auto runRefused = [&] {
        grow("p p\\a p\\a\\x");
        describe("p\\a", refusing);
        check(true);
        const std::string told = run(REG_TAKE_OWNERSHIP);
        check(false);
        return told;
    };
    for (const auto& row : rows) {
        script = row.script;
        refuse(row.faults);
        EXPECT_EQ(runRefused(), "+p " + row.expected);
        refuse({});
        EXPECT_TRUE(!there("p\\a") || (descriptor("p\\a") == refusing) == row.back) << row.expected;
        clear("p");
    }
    const auto open = answer.ZwOpenKey;
    answer.ZwOpenKey = [&](PHANDLE key, ACCESS_MASK access, POBJECT_ATTRIBUTES attributes) {
        const NTSTATUS status = open(key, access, attributes);
        if (status < 0 || access != 0x2000f || text("%wZ", attributes->ObjectName) != "a") return status;
        ZwClose(*key);
        *key = HKEY_USERS;
        return status;
    };
    EXPECT_EQ(runRefused(), "+p T ? lost -p 0");
}

} /* namespace */
} /* namespace offline */
