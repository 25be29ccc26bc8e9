/* The scan engine under a callback whose answers the test gives. */
#include "tests/keys/keys.h"

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
        if (scan->detailed) {
            note("%s scope %u depth %d flags %x of %hs", place.c_str(), static_cast<unsigned>(scope), depth,
                 flags, nameOf(parent).c_str());
        } else {
            note("%s", place.c_str());
        }
        EXPECT_EQ(path->Length % 2, 0);
        if (record != nullptr) {
            EXPECT_EQ(subscope[0] | subscope[1], 0u);
            const std::string name = toUtf8({record->Name, record->NameLength / sizeof(WCHAR)});
            EXPECT_TRUE(place.ends_with(name)) << place;
        }
        Reply reply = {record != nullptr ? SCAN_DESCEND : SCAN_NEXT, {record != nullptr ? 7u : 0u, 0}};
        auto& replies = scan->script[place];
        if (!replies.empty()) {
            reply = replies.front();
            replies.erase(replies.begin());
        }
        if (reply.deletes) {
            HANDLE child = nullptr;
            std::u16string name(path->Buffer, path->Length / sizeof(WCHAR));
            name.erase(0, name.rfind(u'\\') + 1);
            EXPECT_EQ(openKey(child, name, {.access = DELETE, .root = parent}), STATUS_SUCCESS);
            EXPECT_EQ(ZwDeleteKey(child), STATUS_SUCCESS);
            ZwClose(child);
        }
        subscope[0] = reply.words[0];
        subscope[1] = reply.words[1];
        return reply.result;
    }

    /* "the events: the code", log lines among the events. */
    std::string run(std::string_view path = "", uint32_t flags = 0, uint64_t scope = 0) {
        HANDLE key = at(path, KEY_ENUMERATE_SUB_KEYS | KEY_QUERY_VALUE);
        events.clear();
        const DWORD error = regScan(key, callback, scope, this, flags);
        std::string line;
        for (const std::string& event : events) line += event + " ";
        return line + std::to_string(error);
    }
};

const Reply next = {SCAN_NEXT}, again = {SCAN_RESTART}, descend = {SCAN_DESCEND}, fail = {SCAN_FAIL};

/* Every answer in both calls, and which status wins. The tree: a, a\x, b. */
TEST_F(Scan, Answers) {
    const std::string dirty = "ERROR _regScanImpl: subscope is not cleaned ";
    const std::string odd = "ERROR _regScanImpl: callback ";
    const struct {
        Script script;
        std::string expected;
    } rows[] = {
        {{}, "+a +a\\x -a\\x -a +b -b 0"},
        {{{"+a", {next}}}, "+a +b -b 0"},
        {{{"+a", {descend}}}, "+a +a\\x -a\\x +b -b 0"},
        {{{"+b", {again}}}, "+a +a\\x -a\\x -a +b +a +a\\x -a\\x -a +b -b 0"},
        {{{"-a", {again}}}, "+a +a\\x -a\\x -a +a +a\\x -a\\x -a +b -b 0"},
        {{{"-a\\x", {again}}}, "+a +a\\x -a\\x +a\\x -a\\x -a +b -b 0"},
        {{{"+a", {fail}}}, "+a 31"},
        {{{"-a", {fail}}}, "+a +a\\x -a\\x -a 31"},
        {{{"+a", {{4}}}}, "+a " + odd + "on a returned unexpected code 4 1359"},
        {{{"+a\\x", {{4294967295}}}}, "+a +a\\x " + odd + "on x returned unexpected code -1 -a 1359"},
        {{{"-a", {descend}}}, "+a +a\\x -a\\x -a " + odd + "returned unexpected code 1 1359"},
        {{{"-a", {{77}}}}, "+a +a\\x -a\\x -a " + odd + "returned unexpected code 77 1359"},
        // words left behind, over whatever status there was
        {{{"+a", {{SCAN_NEXT, {0, 5}}}}}, "+a " + dirty + "1359"},
        {{{"+a", {{SCAN_RESTART, {5}}}}}, "+a " + dirty + "1359"},
        {{{"+a", {{SCAN_FAIL, {5}}}}}, "+a " + dirty + "1359"},
        {{{"+a", {{SCAN_DESCEND, {0, 5}}}}}, "+a +a\\x -a\\x " + dirty + "1359"},
        {{{"-a", {{SCAN_NEXT, {7}}}}}, "+a +a\\x -a\\x -a " + dirty + "1359"},
        {{{"-a", {{SCAN_FAIL, {0, 7}}}}}, "+a +a\\x -a\\x -a " + dirty + "1359"},
        {{{"+a", {{SCAN_DESCEND, {7, 7}}}}}, "+a +a\\x -a\\x -a +b -b 0"},
        // a failed descent stands, unless the post-call's own failure takes its place
        {{{"+a\\x", {fail}}}, "+a +a\\x -a 31"},
        {{{"+a\\x", {fail}}, {"-a", {again}}}, "+a +a\\x -a 31"},
        {{{"+a\\x", {fail}}, {"-a", {{9}}}}, "+a +a\\x -a " + odd + "returned unexpected code 9 1359"},
        {{{"+a\\x", {{9}}}, {"-a", {fail}}}, "+a +a\\x " + odd + "on x returned unexpected code 9 -a 31"},
        // a child that the callback deletes
        {{{"+b", {{SCAN_RESTART, {}, true}}}}, "+a +a\\x -a\\x -a +b +a +a\\x -a\\x -a 0"},
        {{{"-a\\x", {{SCAN_RESTART, {}, true}}}}, "+a +a\\x -a\\x -a +b -b 0"},
    };
    grow("a a\\x b");
    for (const auto& row : rows) {
        script = row.script;
        EXPECT_EQ(run(), row.expected);
        grow("a a\\x b");
    }
}

TEST_F(Scan, WhatTheCallbackIsTold) {
    grow("a a\\x empty");
    detailed = true;
    script = {{"+a", {{SCAN_DESCEND, {11, 12}}}}, {"+empty", {descend}}};
    EXPECT_EQ(run("", 0xFFF80123, 5),
              "+a scope 5 depth 1 flags 80123 of TEST +a\\x scope 11 depth 2 flags 80123 of a "
              "-a\\x scope 11 depth 2 flags 80123 of a -a scope 5 depth 1 flags 80123 of TEST "
              "+empty scope 5 depth 1 flags 80123 of TEST 0");
    EXPECT_EQ(run("empty"), "0");
}

TEST_F(Scan, CallsThatFail) {
    const std::string enumerate = "ERROR _regScanImpl: Native API call ZwEnumerateKey returned ";
    const struct {
        Fault fault;
        std::string expected;
    } rows[] = {
        {{"ZwEnumerateKey", "a", STATUS_UNSUCCESSFUL}, "+a " + enumerate + "0XC0000001 for a -a 31"},
        {{"ZwEnumerateKey", "", STATUS_ACCESS_DENIED}, enumerate + "0XC0000022 for  5"},
        {{"ZwEnumerateKey", "a", STATUS_NO_MEMORY}, "+a " + enumerate + "0XC0000017 for a -a 8"},
        {{"ZwOpenKey", "x", STATUS_OBJECT_NAME_NOT_FOUND},
         "+a ERROR _doOpenCreateKey: Native API call "
         "ZwOpenKey returned 0XC0000034 for x, access=0x2000f -a 2"},
        {{"ZwQueryKey", "a", STATUS_ACCESS_DENIED},
         "WARN _regScanImpl: Native API call ZwQueryKey returned "
         "0XC0000022 for  a H +b -b 0"},
        {{"ZwQueryKey", "x", STATUS_NO_MEMORY},
         "+a WARN _regScanImpl: Native API call ZwQueryKey returned "
         "0XC0000017 for a x H -a +b -b 0"},
        {{"ZwEnumerateKey", "", STATUS_INFO_LENGTH_MISMATCH, 0, 1}, "+a +a\\x -a\\x -a +b -b 0"},
    };
    grow("a a\\x b");
    for (const auto& row : rows) {
        refuse(row.fault);
        std::string line = run();
        const size_t handle =
            line.find(" 0x", line.find("ZwQueryKey") == line.npos ? line.size() : line.find(" for "));
        if (handle != line.npos) line.replace(handle + 1, line.find(' ', handle + 1) - handle - 1, "H");
        EXPECT_EQ(line, row.expected);
        forgetFaults();
    }
    EXPECT_EQ(run("", REG_SCAN_LIGHT), "+a +a\\x -a\\x -a +b -b 0");
}

TEST_F(Scan, NoMemoryAtAnyPlace) {
    const std::string name(200, 'n');
    grow("a a\\" + name + " a\\" + name + "\\" + name + " b");
    allocationsLeft = 1000;
    const std::string whole = run();
    const int needed = 1000 - allocationsLeft;
    EXPECT_TRUE(whole.ends_with(" 0") && needed > 2);
    for (int i = 0; i < needed; i++) {
        allocationsLeft = i;
        EXPECT_TRUE(run().ends_with(" 8")) << i;
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
    EXPECT_TRUE(run().ends_with(" 0"));
    EXPECT_TRUE(events.size() == 256 && events[127] == "+" + path && events[128] == "-" + path);
    makeBelow("y");
    EXPECT_TRUE(run().ends_with(" 206"));
    EXPECT_TRUE(events.size() == 257 && events[128] == "ERROR _regScanImpl: Too long a path below " + path);
}

TEST_F(Scan, Depth) {
    std::string path;
    for (int i = 0; i < 255; i++) {
        path += i == 0 ? "d" : "\\d";
        grow(path);
    }
    path += "\\e";
    grow(path);
    script = {{"+" + path, {next}}};
    EXPECT_TRUE(run().ends_with(" 0"));
    EXPECT_EQ(events.size(), 256u + 255);
    EXPECT_EQ(events[255], "+" + path);
    EXPECT_TRUE(run().ends_with("-d 161"));
    EXPECT_EQ(events.size(), 256u + 256);
}

/* In its steady state a walk allocates nothing: twice the keys, the same count. */
TEST_F(Scan, Allocations) {
    const Bytes described = image({derived(oldSid, 500), derived(oldSid, 513), {}, {}});
    const auto measure = [&](int keys) {
        for (int i = 0; i < keys; i++) {
            const std::string path = "k" + std::to_string(i % 20) + (i < 20 ? "" : "\\" + std::to_string(i));
            grow(path);
            set(path, "text", REG_SZ, bytesOf(wide(oldText + "-1")));
            set(path, "list", REG_MULTI_SZ, bytesOf(wide(oldText)));
            set(path, "data", REG_BINARY, oldSid);
            describe(path, described);
        }
        std::vector<int> used;
        allocationsLeft = 1000000;
        EXPECT_TRUE(run().ends_with(" 0"));
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

/* Descriptors that the scan had to displace are back on every road. */
TEST_F(Scan, WriteBack) {
    const struct {
        Script script;
        std::vector<Fault> faults;
        std::string expected;
        bool back = true;
    } rows[] = {
        {{{"+a", {next}}}, {}, "T +a 0"},
        {{}, {}, "T +a +a\\x -a\\x -a 0"},
        {{{"+a", {fail}}}, {}, "T +a 31"},
        {{{"+a\\x", {fail}}}, {}, "T +a +a\\x -a 31"},
        {{{"-a", {fail}}}, {}, "T +a +a\\x -a\\x -a 31"},
        {{{"-a\\x", {{SCAN_RESTART, {}, true}}}, {"-a", {{SCAN_RESTART, {}, true}}}},
         {},
         "T +a +a\\x -a\\x -a 0"},
        {{}, {{"ZwQueryKey", "a", STATUS_UNSUCCESSFUL}}, "T query 0"},
        {{{"+a", {next}}},
         {{"ZwOpenKey", "a", STATUS_ACCESS_DENIED, 5}},
         "T +a WARN _regScanImpl: Native API call ZwOpenKey returned 0XC0000022 for a L 0",
         false},
        {{{"+a", {next}}},
         {{"RegSetKeySecurity", "a", ERROR_INVALID_PARAMETER, 2}},
         "T +a ERROR regSetKeySec: Win API call RegSetKeySecurity returned 87 L 0",
         false},
    };
    const Bytes refusing = makeDescriptor(administratorsSid, {{0, KEY_QUERY_VALUE, administratorsSid}});
    for (const auto& row : rows) {
        grow("a a\\x");
        setAccessMode(AccessMode::checked);
        enablePrivilege(takeOwnershipPrivilege);
        enablePrivilege(securityPrivilege);
        describe("a", refusing);
        script = row.script;
        for (const Fault& fault : row.faults) refuse(fault);
        std::string line = run("", REG_TAKE_OWNERSHIP);
        for (const auto& [from, to] : std::vector<std::pair<std::string, std::string>>{
                 {"DEBUG _doOpenCreateKey: Native API call ZwOpenKey returned 0XC0000022 for a, "
                  "access=0x2000f INFO _regOpenCreateKey: Taking ownership of a DEBUG _regOpenCreateKey: "
                  "Finally open a, access=0x2000f ",
                  "T "},
                 {"WARN _regScanImpl: Original security attributes lost for a ", "L "}}) {
            const size_t found = line.find(from);
            if (found != line.npos) line.replace(found, from.size(), to);
        }
        const size_t query = line.find("WARN _regScanImpl: Native API call ZwQueryKey");
        if (query != line.npos) line.replace(query, line.rfind(' ') - query, "query");
        EXPECT_EQ(line, row.expected);
        forgetFaults();
        setAccessMode(AccessMode::unrefused);
        enablePrivilege(securityPrivilege);
        if (!there("a")) continue;
        EXPECT_EQ(descriptor("a") == refusing, row.back);
        describe("a", openToAll());
    }
}

} /* namespace */
} /* namespace offline */
