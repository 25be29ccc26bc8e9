#include <algorithm>
#include <cstring>
#include <memory>
#include <random>

#include "sidchng/sid.h"
#include "tests/engine/scripted.h"

namespace {

Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

Bytes with(Bytes bytes, size_t at, uint8_t byte) {
    bytes[at] = byte;
    return bytes;
}

/* A SID of this many sub-authorities that begins with another; the last ones count up from 1. */
Bytes longSid(const Bytes& from, uint32_t count) {
    Bytes bytes = from;
    for (uint32_t rid = 1; bytes[1] != count; rid++) bytes = derived(bytes, rid);
    return bytes;
}

/* What sidReplaceInData must do, looking at each place in turn. Gives how many SIDs were patched. */
int replaceSlowly(Bytes* data, const Bytes& old, const Bytes& now, bool exact) {
    int patched = 0;
    for (size_t at = 0; at + old.size() <= data->size();) {
        uint8_t* const place = data->data() + at;
        const size_t own = 8 + 4 * size_t{place[1]};
        const bool whole = place[1] >= old[1] && place[1] <= 15 && at + own <= data->size();
        const bool matches =
            exact ? std::equal(old.begin(), old.end(), place)
                  : whole && place[0] == old[0] && std::equal(old.begin() + 2, old.end(), place + 2);
        if (!matches) {
            at++;
            continue;
        }
        std::copy(now.begin() + 2, now.end(), place + 2);
        at += exact ? old.size() : own;
        patched++;
    }
    return patched;
}

/* Bytes among which SIDs, near misses and anchor bytes are common. */
Bytes plantedData(std::mt19937* random, const Bytes& old) {
    const auto below = [&](uint32_t limit) { return static_cast<uint32_t>((*random)() % limit); };
    Bytes data;
    for (uint32_t pieces = below(7); pieces > 0; pieces--) {
        Bytes piece = old;
        switch (below(8)) {
            case 0:
                piece = Bytes(below(9), static_cast<uint8_t>(below(256)));
                break;
            case 1:
                piece = Bytes(below(30), old[old.size() - 4]);
                break;
            case 2:
                piece[below(static_cast<uint32_t>(piece.size()))] ^= static_cast<uint8_t>(1u << below(8));
                break;
            case 3:
                piece.resize(below(static_cast<uint32_t>(piece.size())));
                break;
            case 4:
                piece = piece + old;
                piece[1] = static_cast<uint8_t>(old[1] + below(14));
                break;
            case 5:
                piece = longSid(old, old[1] + below(14));
                break;
            default:
                break;
        }
        data = data + piece;
    }
    return data;
}

} /* namespace */

using Matching = Scripted;

TEST_F(Matching, OneSidInPlace) {
    const Bytes account = derived(oldSid, 4000000500);
    const Bytes newAccount = derived(newSid, 4000000500);
    const auto matched = [](const char* what) {
        return Events{std::string("DEBUG sidReplace: Matching SID ") + what + " in group"};
    };
    const struct {
        Bytes target;
        int exact;
        Bytes expected; /* empty: no match */
        Events lines;
    } rows[] = {
        {oldSid, 0, newSid, matched("[4]..-300")},
        {account, 0, newAccount, matched("[5]..-4000000500")},
        {with(account, 0, 2), 0, with(newAccount, 0, 2), matched("[5]..-4000000500")},
        {longSid(oldSid, 20), 0, longSid(newSid, 20), matched("[20]..-16")},
        {with(oldSid, 1, 3), 0, {}, {}},
        {with(oldSid, 23, 1), 0, {}, {}},
        {with(oldSid, 2, 1), 0, {}, {}},
        {administrators, 0, {}, {}},
        {oldSid, 1, newSid, {}},
        {account, 1, {}, {}},
        {with(oldSid, 0, 2), 1, {}, {}},
        {with(oldSid, 1, 3), 1, {}, {}},
    };
    for (const auto& row : rows) {
        events.clear();
        Bytes target = row.target;
        const int patched = sidReplace(target.data(), oldSid.data(), newSid.data(), 24, row.exact, "group");
        EXPECT_EQ(patched, row.expected.empty() ? 0 : 1);
        EXPECT_EQ(target, row.expected.empty() ? row.target : row.expected);
        EXPECT_EQ(events, row.lines);
    }
}

TEST_F(Matching, SidsInData) {
    const Bytes account = derived(oldSid, 0x0102FFFE);
    const Bytes newAccount = derived(newSid, 0x0102FFFE);
    const uint8_t anchor = oldSid[20];
    const Bytes anchors(100, anchor);
    const std::string line = "DEBUG sidReplaceInData: Matching SID ";
    const std::string bare = line + "[4]..-0x0000012c";
    const std::string named = line + "[5]..-0x0102fffe";
    const Bytes longest = longSid(oldSid, 15);
    // A SID that begins in the last sub-authority of another one: stepped over with it.
    const Bytes inside = derived(oldSid, 0x00000401) + Bytes(oldSid.begin() + 4, oldSid.end());
    const Bytes insideNew = derived(newSid, 0x00000401) + Bytes(oldSid.begin() + 4, oldSid.end());
    const struct {
        const char* name;
        Bytes data;
        Bytes prefix; /* the data in prefix mode; empty: no match */
        Events lines;
        Bytes exact; /* the same in exact mode */
    } rows[] = {
        {"nothing", {}, {}, {}, {}},
        {"one byte short", Bytes(oldSid.begin(), oldSid.end() - 1), {}, {}, {}},
        {"the SID alone", oldSid, newSid, {bare}, newSid},
        {"at the first byte", oldSid + anchors, newSid + anchors, {bare}, newSid + anchors},
        {"at the last, odd", Bytes(7, 1) + oldSid, Bytes(7, 1) + newSid, {bare}, Bytes(7, 1) + newSid},
        {"back to back",
         oldSid + account + oldSid,
         newSid + newAccount + newSid,
         {bare, named, bare},
         newSid + account + newSid},
        {"anchors only", anchors, {}, {}, {}},
        {"among anchors",
         anchors + oldSid + anchors,
         anchors + newSid + anchors,
         {bare},
         anchors + newSid + anchors},
        {"derived, whole", account, newAccount, {named}, {}},
        {"derived, past the end", Bytes(account.begin(), account.end() - 1), {}, {}, {}},
        {"15 sub-authorities", longest, longSid(newSid, 15), {line + "[15]..-0x0000000b"}, {}},
        {"16 sub-authorities", longSid(oldSid, 16), {}, {}, {}},
        {"count too low", with(oldSid, 1, 3) + anchors, {}, {}, {}},
        {"revision", with(oldSid, 0, 2) + anchors, {}, {}, {}},
        {"stepping over",
         inside,
         insideNew,
         {line + "[5]..-0x00000401"},
         Bytes(inside.begin(), inside.begin() + 24) + newSid},
    };
    for (const auto& row : rows) {
        for (const bool exact : {false, true}) {
            SCOPED_TRACE(row.name);
            events.clear();
            Bytes data = row.data;
            data.shrink_to_fit();
            const Bytes& expected = exact ? row.exact : row.prefix;
            const int patched = sidReplaceInData(data.data(), static_cast<uint32_t>(data.size()),
                                                 oldSid.data(), newSid.data(), 24, exact);
            EXPECT_EQ(patched, expected.empty() ? 0 : 1);
            EXPECT_EQ(data, expected.empty() ? row.data : expected);
            EXPECT_EQ(events, exact ? Events{} : row.lines);
        }
    }
}

TEST_F(Matching, RandomDataAsTheSlowSearchHasIt) {
    // The second pair's anchor byte is also its count, the third's is everywhere in it.
    const std::pair<Bytes, Bytes> pairs[] = {{oldSid, newSid},
                                             {sid({21, 4}), sid({21, 0x01020304})},
                                             {sid({21, 0, 0, 0x100}), sid({21, 0, 0, 0x101})}};
    std::mt19937 random(20240601);
    int found = 0;
    for (int round = 0; round < 6000; round++) {
        const auto& [old, now] = pairs[round % 3];
        const bool exact = round % 2 != 0;
        const Bytes before = plantedData(&random, old);
        Bytes expected = before;
        const int patched = replaceSlowly(&expected, old, now, exact);
        found += patched;
        Bytes data = before;
        data.shrink_to_fit();
        events.clear();
        const int result = sidReplaceInData(data.data(), static_cast<uint32_t>(data.size()), old.data(),
                                            now.data(), static_cast<uint32_t>(old.size()), exact);
        ASSERT_EQ(data, expected) << "round " << round;
        ASSERT_EQ(result, patched > 0 ? 1 : 0) << "round " << round;
        ASSERT_EQ(events.size(), exact ? 0u : static_cast<size_t>(patched)) << "round " << round;
    }
    EXPECT_GT(found, 3000);
}

namespace {

const std::u16string head = oldText;
const std::u16string longer = u"S-1-5-21-1000-2000-3000";
const std::u16string shorter = u"S-1-5-21-1-2-3";
const std::string matchedName = "DEBUG sidReplaceInName: Matching SID ..";

/* One call on a name of this many bytes, in a heap block of exactly that size. */
struct Renaming {
    DWORD error = 0;
    int changed = 0;
    UNICODE_STRING result = {};

    Renaming(const std::u16string& name, size_t bytes, const std::u16string& newText, int exact,
             memBuf* buffer) {
        const std::unique_ptr<char[]> block(new char[bytes]);
        memcpy(block.get(), name.data(), bytes);
        const UNICODE_STRING given = {static_cast<USHORT>(bytes), static_cast<USHORT>(bytes),
                                      reinterpret_cast<WCHAR*>(block.get())};
        const UNICODE_STRING oldCounted = counted(head);
        const UNICODE_STRING newCounted = counted(newText);
        error = sidReplaceInName(&given, &result, &oldCounted, &newCounted, exact, &changed, buffer);
    }
    std::u16string characters() const { return {result.Buffer, result.Length / sizeof(WCHAR)}; }
};

} /* namespace */

TEST_F(Matching, TextFormAtTheHeadOfAName) {
    const std::u16string nul(1, u'\0');
    const struct {
        std::u16string name;
        bool prefixMatches;
        std::string tail; /* as the message shows it */
    } rows[] = {
        {head, true, ""},
        {head + u"-500", true, "-500"},
        {head + u"-", true, "-"},
        {head + u"_Classes", false, ""},
        {head + u"-1001_Classes", true, "-1001_Classes"},
        {head + u"0", false, ""},
        {head + nul, false, ""},
        {head + u"-5" + nul + u"x", true, "-5\xEF\xBF\xBDx"},
        {head.substr(0, head.size() - 1), false, ""},
        {u"s" + head.substr(1), false, ""},
        {u" " + head, false, ""},
        {u"", false, ""},
    };
    for (const auto& row : rows) {
        for (const int exact : {0, 1}) {
            for (const std::u16string& newText : {longer, shorter}) {
                SCOPED_TRACE(text("%ws exact %d", row.name.c_str(), exact));
                events.clear();
                memBuf buffer = {};
                const Renaming renaming(row.name, 2 * row.name.size(), newText, exact, &buffer);
                const bool matches = exact != 0 ? row.name == head : row.prefixMatches;
                EXPECT_EQ(renaming.error, 0u);
                EXPECT_EQ(renaming.changed, matches ? 1 : 0);
                EXPECT_EQ(renaming.characters(), matches ? newText + row.name.substr(head.size()) : u"");
                EXPECT_EQ(renaming.result.MaximumLength, renaming.result.Length);
                EXPECT_EQ(buffer.size, renaming.result.Length);
                const bool logged = matches && exact == 0;
                EXPECT_EQ(events, logged ? Events{matchedName + row.tail} : Events{});
                memBufFree(&buffer);
            }
        }
    }
}

TEST_F(Matching, NamesOfOddAndOfGreatLength) {
    const std::u16string line(40000, u'-');
    const struct {
        size_t bytes;
        std::u16string newText;
        size_t result; /* bytes; 0: left alone */
        bool warned;
    } rows[] = {
        {2 * head.size() + 1, longer, 0, false},
        {2 * head.size() + 3, longer, 2 * longer.size() + 3, false},
        {65528, longer, 65534, false},
        {65529, longer, 65535, false},
        {65530, longer, 0, true},
        {65535, longer, 0, true},
        {65535, shorter, 65523, false},
    };
    ASSERT_EQ(2 * (longer.size() - head.size()), 6u);
    ASSERT_EQ(2 * (head.size() - shorter.size()), 12u);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.bytes);
        events.clear();
        memBuf buffer = {};
        const std::u16string name = (head + line).substr(0, row.bytes / 2 + 1);
        const Renaming renaming(name, row.bytes, row.newText, 0, &buffer);
        EXPECT_EQ(renaming.error, 0u);
        EXPECT_EQ(renaming.changed, row.result != 0 ? 1 : 0);
        EXPECT_EQ(renaming.result.Length, row.result);
        EXPECT_EQ(buffer.size, row.result);
        const size_t tail = row.bytes - 2 * head.size();
        if (row.result != 0) {
            EXPECT_EQ(memcmp(buffer.data, row.newText.data(), 2 * row.newText.size()), 0);
            EXPECT_EQ(memcmp(buffer.data + 2 * row.newText.size(), line.data(), tail), 0);
        }
        ASSERT_EQ(events.size(), row.result != 0 || row.warned ? 1u : 0u);
        if (row.warned) {
            EXPECT_TRUE(events[0].starts_with("WARN sidReplaceInName: ")) << events[0].substr(0, 80);
        }
        memBufFree(&buffer);
    }
}

TEST_F(Matching, WorkBufferOfRenamings) {
    const std::u16string name = head + u"-500";
    const uint32_t total = static_cast<uint32_t>(2 * (longer.size() + 4));
    memBuf buffer = {};
    ASSERT_TRUE(memBufInit(&buffer, total - 1));
    EXPECT_EQ(Renaming(name, 2 * name.size(), longer, 0, &buffer).changed, 1);
    EXPECT_EQ(buffer.size, total);
    for (const uint32_t room : {total, total + 100}) {
        ASSERT_TRUE(memBufResize(&buffer, room));
        const uint8_t* const block = buffer.data;
        EXPECT_EQ(Renaming(name, 2 * name.size(), longer, 0, &buffer).changed, 1);
        EXPECT_EQ(buffer.data, block);
        EXPECT_EQ(buffer.size, room);
    }
    ASSERT_TRUE(memBufResize(&buffer, total - 1));
    allocationsLeft = 0;
    const Renaming renaming(name, 2 * name.size(), longer, 0, &buffer);
    EXPECT_EQ(renaming.error, DWORD{ERROR_NOT_ENOUGH_MEMORY});
    EXPECT_EQ(renaming.changed, 0);
    EXPECT_EQ(renaming.result.Buffer, nullptr);
    EXPECT_EQ(buffer.data, nullptr);
    EXPECT_EQ(buffer.size, 0u);

    const std::u16string system = u"S-1-5-18";
    const UNICODE_STRING other = counted(system);
    UNICODE_STRING result = {2, 4, nullptr};
    int changed = 1;
    const UNICODE_STRING oldCounted = counted(head);
    EXPECT_EQ(sidReplaceInName(&other, &result, &oldCounted, &oldCounted, 0, &changed, &buffer), 0u);
    EXPECT_EQ(changed, 1);
    EXPECT_EQ(result.MaximumLength, 4);
}
