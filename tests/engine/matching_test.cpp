#include <algorithm>
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

/* The data with a bare or derived SID patched at each of these places. */
Bytes patchedAt(Bytes data, const std::vector<size_t>& places) {
    for (const size_t at : places) std::copy(newSid.begin() + 2, newSid.end(), data.data() + at + 2);
    return data;
}

int replaceIn(Bytes* data, const Bytes& old, const Bytes& now, bool exact) {
    return sidReplaceInData(data->data(), static_cast<uint32_t>(data->size()), old.data(), now.data(),
                            static_cast<uint32_t>(old.size()), exact);
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
        switch (below(9)) {
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
                piece.erase(piece.begin(), piece.begin() + 4);
                break;
            case 6:
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
    const struct {
        Bytes target;
        int exact;
        bool matches;
        std::string shown;
    } rows[] = {
        {oldSid, 0, true, "[4]..-300"},
        {account, 0, true, "[5]..-4000000500"},
        {with(account, 0, 2), 0, true, "[5]..-4000000500"},
        {longSid(oldSid, 20), 0, true, "[20]..-16"},
        {with(oldSid, 1, 3), 0, false, ""},
        {with(oldSid, 23, 1), 0, false, ""},
        {with(oldSid, 2, 1), 0, false, ""},
        {administrators, 0, false, ""},
        {oldSid, 1, true, ""},
        {account, 1, false, ""},
        {with(oldSid, 0, 2), 1, false, ""},
        {with(oldSid, 1, 3), 1, false, ""},
    };
    for (const auto& row : rows) {
        events.clear();
        Bytes target = row.target;
        const int patched = sidReplace(target.data(), oldSid.data(), newSid.data(), 24, row.exact, "group");
        EXPECT_EQ(patched, row.matches ? 1 : 0);
        EXPECT_EQ(target, row.matches ? patchedAt(row.target, {0}) : row.target);
        EXPECT_EQ(shortened({{"DEBUG sidReplace: Matching SID ", ""}, {" in group", ""}}), row.shown);
    }
}

TEST_F(Matching, SidsInData) {
    const Bytes account = derived(oldSid, 0x0102FFFE);
    const Bytes anchors(100, oldSid[20]);
    /* A SID that begins in the last sub-authority of another one is stepped over with it. */
    const Bytes inside = derived(oldSid, 0x401) + Bytes(oldSid.begin() + 4, oldSid.end());
    using Places = std::vector<size_t>;
    const struct {
        const char* name;
        Bytes data;
        Places prefix; /* where the two modes patch */
        std::string shown;
        Places exact;
    } rows[] = {
        {"nothing", {}, {}, "", {}},
        {"one byte short", Bytes(oldSid.begin(), oldSid.end() - 1), {}, "", {}},
        {"the SID alone", oldSid, {0}, "[4] 0000012c", {0}},
        {"at the first byte", oldSid + anchors, {0}, "[4] 0000012c", {0}},
        {"at the last, odd", Bytes(7, 1) + oldSid, {7}, "[4] 0000012c", {7}},
        {"adjacent",
         oldSid + account + oldSid,
         {0, 24, 52},
         "[4] 0000012c, [5] 0102fffe, [4] 0000012c",
         {0, 52}},
        {"anchors only", anchors, {}, "", {}},
        {"among anchors", anchors + oldSid + anchors, {100}, "[4] 0000012c", {100}},
        {"derived, whole", account, {0}, "[5] 0102fffe", {}},
        {"derived, past the end", Bytes(account.begin(), account.end() - 1), {}, "", {}},
        {"15 sub-authorities", longSid(oldSid, 15), {0}, "[15] 0000000b", {}},
        {"16 sub-authorities", longSid(oldSid, 16), {}, "", {}},
        {"count too low", with(oldSid, 1, 3) + anchors, {}, "", {}},
        {"revision", with(oldSid, 0, 2) + anchors, {}, "", {}},
        {"stepping over", inside, {0}, "[5] 00000401", {24}},
    };
    for (const auto& row : rows) {
        for (const bool exact : {false, true}) {
            SCOPED_TRACE(row.name);
            events.clear();
            Bytes data = row.data;
            data.shrink_to_fit();
            const Places& places = exact ? row.exact : row.prefix;
            EXPECT_EQ(replaceIn(&data, oldSid, newSid, exact), places.empty() ? 0 : 1);
            EXPECT_EQ(data, patchedAt(row.data, places));
            const Legend line = {{"DEBUG sidReplaceInData: Matching SID ", ""}, {"..-0x", " "}};
            EXPECT_EQ(shortened(line), exact ? "" : row.shown);
        }
    }
}

TEST_F(Matching, RandomDataAsTheSlowSearchHasIt) {
    // The second pair's new SID ends as the old one begins, the third's anchor byte is everywhere in it.
    const std::pair<Bytes, Bytes> pairs[] = {{oldSid, newSid},
                                             {sid({21, 4}), sid({21, 0x0201})},
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
        const int result = replaceIn(&data, old, now, exact);
        ASSERT_EQ(data, expected) << "round " << round;
        ASSERT_EQ(result, patched > 0 ? 1 : 0) << "round " << round;
        ASSERT_EQ(events.size(), exact ? 0u : static_cast<size_t>(patched)) << "round " << round;
    }
    EXPECT_GT(found, 3000);
}
