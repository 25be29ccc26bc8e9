/* SPDX-License-Identifier: GPL-2.0-or-later */
#include <algorithm>
#include <random>

#include "tests/support/small_system.h"

namespace offline {
namespace {

/* A SID of this many sub-authorities that begins with another; the last ones count up from 1. */
ByteVector longSid(const ByteVector& from, uint32_t count) {
    std::string text = sidToText(from);
    for (uint32_t i = 1; i + from[1] <= count; i++) text += "-" + std::to_string(i);
    return sidFromText(text);
}

/* What sidReplaceInData must do, looking at each place in turn. Gives a line for each SID patched. */
Events replaceSlowly(ByteVector* data, const ByteVector& old, const ByteVector& now, bool exact) {
    Events patched;
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
        patched.push_back(text("DEBUG sidReplaceInData: Matching SID [%d]..-0x", place[1]));
        for (size_t i = 1; i <= 4 && !exact; i++) patched.back() += text("%02x", place[own - i]);
        std::copy(now.begin() + 2, now.end(), place + 2);
        at += exact ? old.size() : own;
    }
    return patched;
}

/* Bytes among which SIDs, near misses and anchor bytes are common. */
ByteVector plantedData(std::mt19937* random, const ByteVector& old) {
    const auto below = [&](size_t limit) { return static_cast<uint32_t>((*random)() % limit); };
    ByteVector data;
    for (uint32_t pieces = below(7); pieces > 0; pieces--) {
        ByteVector piece = old;
        // clang-format off
        switch (below(9)) {
            case 0: piece = ByteVector(below(9), static_cast<uint8_t>(below(256))); break;
            case 1: piece = ByteVector(below(30), old[old.size() - 4]); break;
            case 2: piece[below(piece.size())] ^= static_cast<uint8_t>(1u << below(8)); break;
            case 3: piece.resize(below(piece.size())); break;
            case 4: put(piece, old); piece[1] = static_cast<uint8_t>(old[1] + below(14)); break;
            case 5: piece.erase(piece.begin(), piece.begin() + 4); break;
            case 6: piece = longSid(old, old[1] + below(14)); break;
            default: break;
        }
        // clang-format on
        put(data, piece);
    }
    return data;
}

struct Matching : SmallSystem {};

TEST_F(Matching, RandomDataAsTheSlowSearchHasIt) {
    // The second pair's new SID ends as the old one begins, the third's anchor byte is everywhere in it.
    const std::pair<ByteVector, ByteVector> pairs[] = {
        {oldSid, newSid},
        {sidFromText("S-1-5-21-4"), sidFromText("S-1-5-21-513")},
        {sidFromText("S-1-5-21-0-0-256"), sidFromText("S-1-5-21-0-0-257")}};
    std::mt19937 random(20240601);
    size_t found = 0;
    for (int round = 0; round < 6000; round++) {
        const auto& [old, now] = pairs[round % 3];
        const bool exact = round % 2 != 0;
        ByteVector data = plantedData(&random, old);
        ByteVector expected = data;
        const Events patched = replaceSlowly(&expected, old, now, exact);
        found += patched.size();
        data.shrink_to_fit();
        events.clear();
        const int result = sidReplaceInData(data.data(), static_cast<uint32_t>(data.size()), old.data(),
                                            now.data(), static_cast<uint32_t>(old.size()), exact);
        ASSERT_EQ(data, expected) << "round " << round;
        ASSERT_EQ(result, patched.empty() ? 0 : 1) << "round " << round;
        ASSERT_EQ(events, exact ? Events{} : patched) << "round " << round;
    }
    EXPECT_GT(found, 3000u);
}

} /* namespace */
} /* namespace offline */
