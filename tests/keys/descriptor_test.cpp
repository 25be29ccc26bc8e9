/* Descriptors of keys. */
#include "sidchng/sid.h"
#include "tests/keys/keys.h"

namespace offline {
namespace {

struct Descriptors : Keys {
    memBuf buffer = {};
    std::string run(int simulate = 0) {
        const HANDLE key = at("k");
        events.clear();
        callsMade.clear();
        memBufInit(&buffer, 512);
        UNICODE_STRING name = counted(u"k");
        const DWORD error =
            sidReplaceInKeySD(key, &name, oldSid.data(), newSid.data(), 24, 0, simulate, &buffer);
        std::string line;
        for (const std::string& event : events) {
            if (!event.starts_with("DEBUG sidReplace:")) line += event + "; ";
        }
        size = buffer.size;
        memBufFree(&buffer);
        return line + std::to_string(error) +
               text(" %d/%d", callsMade["RegGetKeySecurity"], callsMade["RegSetKeySecurity"]);
    }
    uint32_t size = 0;
};

TEST_F(Descriptors, ReadsAndWrites) {
    const std::string done = "DEBUG sidReplaceInKeySD: Replaced old SID in key SD k; ";
    const std::string found = "INFO sidReplaceInKeySD: Found old SID in key SD k (simulation mode); ";
    const auto parts = [](const Bytes& owner, const Bytes& group, const Bytes& sid, size_t entries) {
        const std::vector<Ace> list(entries, Ace{0, sid});
        return image({owner, group, list, std::vector<Ace>{{2, sid}}});
    };
    const auto both = parts(derived(oldSid, 5), derived(oldSid, 6), oldSid, 2);
    const auto bothNew = parts(derived(newSid, 5), derived(newSid, 6), newSid, 2);
    const auto long1 = parts(administrators, administrators, oldSid, 15);
    const struct {
        Bytes before, after;
        std::vector<Fault> faults;
        std::string expected;
        int simulate = 0;
    } rows[] = {
        {parts(administrators, administrators, administrators, 2), {}, {}, "0 1/0"},
        {both, bothNew, {}, done + done + "0 3/2"},
        {both, {}, {}, found + "0 1/0", 1},
        {parts(administrators, oldSid, administrators, 1),
         parts(administrators, newSid, administrators, 1),
         {},
         done + "0 2/1"},
        {long1, parts(administrators, administrators, newSid, 15), {}, done + "0 3/1"},
        {both,
         {},
         {{"RegGetKeySecurity", "", ERROR_ACCESS_DENIED}},
         "ERROR sidQueryKeySD: Win API call RegGetKeySecurity returned 5 for k; 5 1/0"},
        {both,
         {},
         {{"RegGetKeySecurity", "", ERROR_INSUFFICIENT_BUFFER}},
         "ERROR sidQueryKeySD: Win API call RegGetKeySecurity returned 122 for k; 122 1/0"},
        {both,
         {},
         {{"RegSetKeySecurity", "", ERROR_ACCESS_DENIED}},
         "ERROR sidReplaceInKeySD: Win API call RegSetKeySecurity returned 5 for k; 5 1/1"},
        {both,
         {},
         {{"RegSetKeySecurity", "", 0}},
         done + done + "ERROR sidReplaceInKeySD: Failed to replace old SID in key SD k; 1359 3/2"},
    };
    grow("k");
    for (const auto& row : rows) {
        describe("k", row.before);
        for (const Fault& fault : row.faults) refuse(fault);
        EXPECT_EQ(run(row.simulate), row.expected);
        forgetFaults();
        EXPECT_EQ(descriptor("k"), row.after.empty() ? row.before : row.after);
        EXPECT_EQ(size, row.before.size() > 512 ? row.before.size() + 256 : 512);
    }
}

/* What regSetKeySec adds to an image that was read. */
TEST_F(Descriptors, InheritanceMarks) {
    grow("k");
    const HANDLE key = at("k");
    const struct {
        unsigned before, after;
    } rows[] = {{0, 0}, {0x400, 0x500}, {0x800, 0xA00}, {0xC00, 0xF00}, {0x1100, 0x1100}};
    for (const auto& row : rows) {
        Bytes own = openToAll();
        const unsigned control = own[2] + 256u * own[3];
        own[3] = static_cast<uint8_t>((control | row.before) >> 8);
        EXPECT_EQ(regSetKeySec(key, REG_SEC_ALL, own.data()), 0u);
        EXPECT_EQ(own[2] + 256u * own[3], control | row.after);
    }
    memBuf empty = {};
    EXPECT_EQ(regGetKeySec(key, REG_SEC_ALL, &empty), 0u);
    EXPECT_EQ(empty.size, descriptor("k").size());
    allocationsLeft = 0;
    memBufFree(&empty);
    EXPECT_EQ(regGetKeySec(key, REG_SEC_ALL, &empty), DWORD{ERROR_NOT_ENOUGH_MEMORY});
}

} /* namespace */
} /* namespace offline */
