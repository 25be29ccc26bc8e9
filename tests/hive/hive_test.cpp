/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Keys and values: changes beside a model, and what is refused. */
#include "tests/hive/model.h"

namespace offline::test {
namespace {

class Versions : public testing::TestWithParam<uint32_t> {};
INSTANTIATE_TEST_SUITE_P(All, Versions, testing::Values(3, 4, 6));

TEST_P(Versions, RandomChangesMatchAModel) {
    Twins twins(newHive(GetParam()));
    std::mt19937 random(GetParam());
    for (size_t step = 1; step <= 5000; step++) {
        twins.change(random);
        if (HasFatalFailure()) return;
        if (step % 500 != 0) continue;
        twins.compare();
        const ByteVector image = hiveImage(*twins.hive);
        ASSERT_EQ(faultOf(image), "") << step;
        EXPECT_LT(image.size(), 4u << 20) << "free cells are to be used again";
        if (step % 1000 == 0) twins.hive = opened(image);
    }
}

/* Through all forms of lists, under two keys by turns, and back to nothing. */
TEST_P(Versions, ThousandsOfChildrenComeAndGo) {
    Twins twins(newHive(GetParam()));
    const ByteVector descriptor = someDescriptor(3);
    const Cell root = hiveRoot(*twins.hive), inner = made(*twins.hive, root, u"inner");
    twins.root = contentOf(*twins.hive);
    std::vector<std::u16string> names;
    for (size_t i = 0; i < 1600; i++) names.push_back((i % 3 == 0 ? u"Ключ" : u"Key") + digits(i));
    std::mt19937 random(GetParam());
    std::shuffle(names.begin(), names.end(), random);
    for (const std::u16string& name : names) {
        twins.create(root, twins.root, {name, {}, descriptor}, descriptor);
        twins.create(inner, *placeOf(twins.root, u"inner"), {name, {}, descriptor}, descriptor);
    }
    std::shuffle(names.begin(), names.end(), random);
    for (; !names.empty() && !HasFailure(); names.pop_back()) {
        if (names.size() % 500 == 100) {
            for (int turn = 0; turn < 2; turn++) twins.compare(); /* it is remembered what was read last */
            const ByteVector image = hiveImage(*twins.hive);
            EXPECT_EQ(faultOf(image), "");
            const bool isIndex =
                numberAt<uint32_t>(image, 4100 + numberAt<uint32_t>(image, 4100 + inner + 28)) % 0x10000 ==
                0x6972;
            EXPECT_EQ(isIndex, names.size() > 100) << "short leaves are joined";
        }
        twins.remove(inner, *placeOf(twins.root, u"inner"), names.back());
        twins.remove(root, twins.root, names.back());
    }
    twins.remove(root, twins.root, u"inner");
    twins.compare();
    EXPECT_EQ(faultOf(hiveImage(*twins.hive)), "");
}

TEST(Keys, RefusalsChangeNothing) {
    const HivePtr hive = newHive(5);
    const Cell root = hiveRoot(*hive), key = made(*hive, root, u"Key");
    const std::u16string tooLong(longestKeyName + 1, u'a');
    const ByteVector one(20), large(65536);
    Cell kept = noCell, child = noCell;
    ASSERT_GE(hiveCreateSubkey(*hive, key, u"Kept", {}, one, HIVE_KEY_NO_DELETE | HIVE_KEY_LINK, 7, kept), 0);
    EXPECT_TRUE(hiveKeyIsLink(*hive, kept) && !hiveKeyIsLink(*hive, key));
    const ByteVector before = hiveImage(*hive);
    const auto create = [&](std::u16string_view name, const ByteVector& text, const ByteVector& descriptor,
                            uint16_t flags) {
        return hiveCreateSubkey(*hive, root, name, text, descriptor, flags, 9, child);
    };
    for (const NTSTATUS status :
         {create(u"", {}, one, 0), create(u"a\\b", {}, one, 0), create(tooLong, {}, one, 0),
          create(u"x", {}, {}, 0), create(u"x", large, one, 0), create(u"x", {}, large, 0),
          create(u"x", {}, one, HIVE_KEY_ROOT), hiveSetKeyDescriptor(*hive, key, large, 9)})
        EXPECT_EQ(status, STATUS_INVALID_PARAMETER);
    for (const Cell which : {root, key, kept})
        EXPECT_EQ(hiveDeleteKey(*hive, which, 9), STATUS_CANNOT_DELETE);
    for (const Cell none : {noCell, Cell{0}, key + 8, Cell{0x7FFFFFF8}, Cell{4096}})
        EXPECT_EQ(hiveSetValue(*hive, none, u"x", 1, {}, 9), STATUS_REGISTRY_CORRUPT);
    EXPECT_EQ(hiveImage(*hive), before);
}

} /* namespace */
} /* namespace offline::test */
