/* Descriptors that someone bent: none may be read or written outside of itself. */
#include <gtest/gtest.h>

#include <random>

#include "tests/security/shapes.h"

namespace {

using namespace offline;

const Image objectFlags = {3, 0, 0, 0};

std::vector<Image> shapes() {
    Image object(36);
    object[0] = 3;
    const Image dacl =
        acl({ace(0, 0x13, 0x1F01FF, admins), ace(1, 0, 1, stranger), ace(0, 0x0B, GENERIC_ALL, "S-1-3-0"),
             ace(5, 2, 1, users, object), ace(9, 0, 1, everyone)},
            24);
    const Image sacl = acl({ace(2, 0xC2, 0x1301BF, stranger), ace(0x11, 0, 1, "S-1-16-8192")});
    Image shared = descriptor(stranger, "", sacl, {}, SE_DACL_PRESENT);
    memcpy(&shared[8], &shared[4], 4);    // the group is the owner
    memcpy(&shared[16], &shared[12], 4);  // and one list serves for both
    return {descriptor(stranger, users, sacl, dacl, 0x0C00),
            descriptor(self, admins, {}, dacl, SE_DACL_PROTECTED),
            descriptor("", "", {}, {}, SE_DACL_PRESENT), descriptor(admins, "", acl({}), acl({}, 8)), shared};
}

TEST(Hostile, ShapesAreSound) {
    setAccessMode(AccessMode::unrefused);
    for (const Image& shape : shapes()) {
        EXPECT_TRUE(descriptorValid(shape));
        EXPECT_TRUE(exercise(shape));
        for (size_t size = 0; size < shape.size(); size++) {
            const Image cut(shape.begin(), shape.begin() + static_cast<ptrdiff_t>(size));
            EXPECT_TRUE(exercise(cut));
            EXPECT_FALSE(descriptorValid(cut)) << size;
        }
    }
}

TEST(Hostile, BentBytes) {
    setAccessMode(AccessMode::unrefused);
    std::mt19937 random(20240229);
    int stillValid = 0;
    int refused = 0;
    for (const Image& shape : shapes()) {
        for (int round = 0; round < 8000; round++) {
            Image bent = shape;
            for (auto flips = 1 + random() % 3; flips > 0; flips--) {
                // Half of the blows fall on the header, whose offsets rule everything else.
                const size_t at = random() % (random() % 2 == 0 ? 20 : bent.size());
                bent[at] = random() % 2 == 0 ? static_cast<uint8_t>(random())
                                             : static_cast<uint8_t>(4 * (random() % 64));
            }
            if (round % 8 == 0) bent.resize(random() % (bent.size() + 1));
            (descriptorValid(bent) ? stillValid : refused)++;
            ASSERT_TRUE(exercise(bent)) << round;
        }
    }
    EXPECT_GT(stillValid, 2000);
    EXPECT_GT(refused, 2000);
}

TEST(Hostile, BentLists) {
    std::mt19937 random(4);
    const Image list =
        acl({ace(0, 0, 1, admins), ace(5, 0, 1, users, objectFlags), ace(1, 0, 1, stranger)}, 8);
    int got = 0;
    int refused = 0;
    for (int round = 0; round < 20000; round++) {
        Image bent = list;
        for (int i = 0; i < 2; i++) bent[random() % bent.size()] = static_cast<uint8_t>(random());
        if (size_t{bent[2]} + bent[3] * 256u > bent.size()) continue;  // nobody could tell
        const Exact exact(bent);
        auto* given = reinterpret_cast<PACL>(exact.bytes.get());
        for (DWORD index = 0; index < 5; index++) {
            LPVOID found = nullptr;
            const bool done = GetAce(given, index, &found) != FALSE;
            (done ? got : refused)++;
            if (!done) continue;
            const auto* bytes = static_cast<const uint8_t*>(found);
            ASSERT_TRUE(bytes >= exact.bytes.get() + 8 && bytes + 4 <= exact.bytes.get() + exact.size);
            const size_t size = bytes[2] + bytes[3] * 256u;
            ASSERT_LE(size, static_cast<size_t>(exact.bytes.get() + exact.size - bytes));
            ASSERT_TRUE(bytes[0] > 3 || sidLength({bytes + 8, size - 8}) != 0);
        }
    }
    EXPECT_GT(got, 10000);
    EXPECT_GT(refused, 10000);
}

TEST(Hostile, OneRuleEach) {
    Image good = descriptor(stranger, users, {}, acl({ace(0, 0, 1, admins), ace(0, 0, 1, users)}, 4));
    const auto dacl = good[16];
    const auto off = static_cast<uint8_t>(good.size() + 2);  // a whole SID where none may begin
    const Image sid = sidFromText(admins);
    good.resize(off);
    good.insert(good.end(), sid.begin(), sid.end());
    const struct {
        const char* name;
        std::vector<std::pair<size_t, int>> bytes;
    } rows[] = {
        {"revision", {{0, 2}}},
        {"not self-relative", {{3, 0}}},
        {"owner inside the header", {{4, 12}, {12, 1}}},
        {"owner off by two", {{4, off}}},
        {"owner behind the end", {{5, 1}}},
        {"owner across the group", {{21, 6}}},
        {"owner inside the list", {{4, dacl + 16}}},
        {"group is the list", {{8, dacl}}},
        {"sub-authorities", {{21, 16}}},
        {"list revision below", {{dacl, 1}}},
        {"list revision above", {{dacl, 5}}},
        {"list below its header", {{dacl + 2u, 4}}},
        {"list behind the end", {{dacl + 2u, 0xFF}}},
        {"one entry too many", {{dacl + 4u, 3}}},
        {"entry of no size", {{dacl + 10u, 0}}},
        {"entry of an odd size", {{dacl + 8u + 24 + 2, 26}}},
        {"entry below its SID", {{dacl + 10u, 12}}},
        {"SID beyond its entry", {{dacl + 17u, 15}}},
    };
    ASSERT_TRUE(descriptorValid(good));
    for (const auto& row : rows) {
        Image bad = good;
        for (const auto& [at, value] : row.bytes) bad[at] = static_cast<uint8_t>(value);
        EXPECT_FALSE(descriptorValid(bad)) << row.name;
    }
}

} /* namespace */
