/* Keys that refuse access, treated by taking ownership of them for a while. */
#include "tests/keys/keys.h"

namespace offline {
namespace {

constexpr uint32_t everything = SID_RECURSIVE | SID_REPLACE_SD | SID_REPLACE_VALUES;

struct Recovery : Keys {
    void SetUp() override {
        Keys::SetUp();
        grow("k k\\a k\\a\\x k\\b");
        for (const char* path : {"k", "k\\a", "k\\a\\x", "k\\b"}) set(path, "v", REG_BINARY, oldSid);
    }
    /* With the start key open; only taking ownership and the audit lists are allowed. */
    std::string run(uint32_t flags) {
        const HANDLE key = at("k", 0x10E001F);
        setAccessMode(AccessMode::checked);
        enablePrivilege(takeOwnershipPrivilege);
        enablePrivilege(securityPrivilege);
        events.clear();
        callsMade.clear();
        const DWORD error = sidReplaceInKey(key, flags, nullptr, oldSid.data(), 24, newSid.data(), 24);
        setAccessMode(AccessMode::unrefused);
        enablePrivilege(securityPrivilege);
        std::string line;
        for (const std::string& event : events) {
            if (!event.starts_with("DEBUG")) line += event + "; ";
        }
        return line + std::to_string(error);
    }
};

/* Owner, group and DACL are as they were afterwards, the old SID among them; values and the audit list are
 * rewritten. */
TEST_F(Recovery, DescriptorsStay) {
    const std::vector<Ace> refusing = {{1, sid({18})}, {0, oldSid}};
    const Bytes before =
        image({administrators, derived(oldSid, 513), refusing, std::vector<Ace>{{2, oldSid}}});
    for (const bool simulate : {false, true}) {
        describe("k\\a", before);
        describe("k\\b", image({administrators, sid({18}), std::vector<Ace>{{1, sid({18})}}, {}}));
        const std::string line = run(everything | (simulate ? SID_SIMULATE : 0u));
        EXPECT_TRUE(line.ends_with("; 0"));
        EXPECT_EQ(line.find("WARN"), line.npos) << line;
        for (const char* key : {"a", "b"})
            EXPECT_NE(line.find(std::string("INFO _regOpenCreateKey: Taking ownership of ") + key),
                      line.npos);
        EXPECT_EQ(holds("k\\a", oldSid), simulate ? 2 : 1);
        EXPECT_EQ(holds("k\\a", newSid), simulate ? 0 : 1);
        memBuf read = {};
        ASSERT_EQ(regGetKeySec(at("k\\a"), REG_SEC_ALL, &read), 0u);
        const Bytes restored(read.data, read.data + read.size);
        describe("k\\a", before);
        ASSERT_EQ(regGetKeySec(at("k\\a"), REG_SEC_ALL, &read), 0u);
        EXPECT_EQ(restored, Bytes(read.data, read.data + read.size));
        memBufFree(&read);
        for (const char* path : {"k", "k\\a", "k\\a\\x", "k\\b"}) {
            EXPECT_EQ(get(path, "v"), simulate ? oldSid : newSid) << path;
            set(path, "v", REG_BINARY, oldSid);
        }
    }
}

/* A key that refuses even to be read is treated all the same, but its descriptor can't be put back. */
TEST_F(Recovery, Lost) {
    describe("k\\a", image({sid({18}), sid({18}), std::vector<Ace>{{0, sid({18})}}, {}}));
    const std::string line = run(everything);
    const std::string expected =
        "WARN _regOpenCreateKey: Native API call ZwOpenKey returned 0XC0000022 for a; "
        "INFO _regOpenCreateKey: Taking ownership of a; "
        "WARN _regOpenCreateKey: Original security attributes lost for a; 0";
    EXPECT_EQ(line, expected);
    EXPECT_EQ(get("k\\a", "v"), newSid);
    EXPECT_EQ(get("k\\a\\x", "v"), newSid);
}

/* Without the privilege to take ownership the scan ends at a key that refuses access. */
TEST_F(Recovery, Refused) {
    describe("k\\a", image({sid({18}), sid({18}), std::vector<Ace>{{0, sid({18})}}, {}}));
    const Bytes before = descriptor("k\\a");
    const HANDLE key = at("k", 0x10E001F);
    setAccessMode(AccessMode::checked);
    enablePrivilege(securityPrivilege);
    EXPECT_EQ(sidReplaceInKey(key, everything, nullptr, oldSid.data(), 24, newSid.data(), 24), 5u);
    setAccessMode(AccessMode::unrefused);
    enablePrivilege(securityPrivilege);
    EXPECT_EQ(descriptor("k\\a"), before);
    EXPECT_EQ(get("k\\a", "v"), oldSid);
}

} /* namespace */
} /* namespace offline */
