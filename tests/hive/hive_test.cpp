/* Keys and values: one kind of change after the other, and random ones against a model. */
#include "platform/offline/base/unicode.h"
#include "tests/hive/check.h"

namespace offline::test {
namespace {

using namespace std::string_literals;

std::vector<std::u16string> childNames(const Hive& hive) {
    std::vector<std::u16string> names;
    char16_t name[longestKeyName];
    Cell child = noCell;
    for (uint32_t i = 0; hiveSubkey(hive, hiveRoot(hive), i, child) == STATUS_SUCCESS; i++)
        names.emplace_back(name, hiveKeyName(hive, child, name));
    return names;
}

class Versions : public testing::TestWithParam<uint32_t> {};
INSTANTIATE_TEST_SUITE_P(All, Versions, testing::Values(3, 4, 5, 6));

TEST_P(Versions, ImageOfVariedHiveIsSoundAndKeepsItsContent) {
    const HivePtr hive = variedHive(GetParam());
    const ByteVector image = hiveImage(*hive);
    EXPECT_EQ(faultOf(image), "");
    const HivePtr again = opened(image);
    EXPECT_TRUE(hiveMinorVersion(*again) == GetParam() && !hiveChanged(*again));
    EXPECT_EQ(contentOf(*again), contentOf(*hive));
    ByteVector after;
    EXPECT_TRUE(exercise(image, &after));
    EXPECT_EQ(faultOf(after), "");
}

TEST_P(Versions, DataGrowsAndShrinksThroughAllForms) {
    const HivePtr hive = newHive(GetParam());
    const Cell root = hiveRoot(*hive);
    std::mt19937 random(1);
    std::vector<size_t> sizes{0, 1, 4, 5, 16344, 16345, 32688, 65535, 65536, 200000, 1048576};
    for (size_t i = sizes.size(); i > 0; i--) sizes.push_back(sizes[i - 1]);
    for (const size_t size : {16344, 1048576, 4, 200000, 0}) sizes.push_back(size);
    for (const size_t size : sizes) {
        const ByteVector data = someBytes(random, size);
        ASSERT_GE(hiveSetValue(*hive, root, u"Data", 3, data, 9), 0);
        EXPECT_EQ(valuesOf(*hive, root).at(0), std::tuple(u"Data", 3u, data));
        HiveValue value{};
        ASSERT_GE(hiveFindValue(*hive, root, u"dATA", value), 0);
        ByteVector start(std::min<size_t>(size, 20000));
        hiveValueData(*hive, value, start);
        EXPECT_TRUE(std::equal(start.begin(), start.end(), data.begin()));
        ASSERT_EQ(faultOf(hiveImage(*hive)), "") << size;
    }
    EXPECT_LT(hiveImage(*hive).size(), 3u * 1048576) << "free cells are to be used again";
    ASSERT_GE(hiveDeleteValue(*hive, root, u"data", 10), 0);
    EXPECT_EQ(faultOf(hiveImage(*hive)), "");
}

TEST_P(Versions, FiveThousandChildrenComeAndGo) {
    const HivePtr hive = newHive(GetParam());
    const Cell root = hiveRoot(*hive);
    std::vector<std::u16string> names;
    for (size_t i = 0; i < 5000; i++) names.push_back((i % 3 == 0 ? u"Ключ" : u"Key") + digits(i));
    std::mt19937 random(GetParam());
    std::shuffle(names.begin(), names.end(), random);
    for (const std::u16string& name : names) made(*hive, root, name);
    const auto below = [](const auto& a, const auto& b) { return compareFolded(a, b) < 0; };
    std::shuffle(names.begin(), names.end(), random);
    for (; !names.empty(); names.pop_back()) {
        const ByteVector image = names.size() % 400 == 200 ? hiveImage(*hive) : ByteVector();
        if (!image.empty()) {
            ASSERT_EQ(faultOf(image), "");
            std::vector<std::u16string> sorted(names);
            std::sort(sorted.begin(), sorted.end(), below);
            EXPECT_EQ(childNames(*hive), sorted);
            const uint32_t kind = numberAt(image, 4100 + numberAt(image, 4100 + root + 28)) & 0xFFFF;
            EXPECT_TRUE(names.size() != 200 || kind != 0x6972) << "short leaves are joined";
        }
        Cell child = noCell, last = noCell;
        ASSERT_GE(hiveFindSubkey(*hive, root, names.back(), child), 0);
        ASSERT_GE(hiveSubkey(*hive, root, static_cast<uint32_t>(names.size() - 1), last), 0);
        ASSERT_GE(hiveDeleteKey(*hive, child, 8), 0);
        ASSERT_EQ(hiveDeleteKey(*hive, child, 8), STATUS_REGISTRY_CORRUPT);
        ASSERT_EQ(hiveFindSubkey(*hive, root, names.back(), child), STATUS_OBJECT_NAME_NOT_FOUND);
    }
    EXPECT_EQ(faultOf(hiveImage(*hive)), "");
    EXPECT_EQ(contentOf(*hive), contentOf(*newHive(3)));
}

TEST_P(Versions, FullLeafIsSplitWhereverTheNewKeyGoes) {
    for (const size_t index : {0u, 504u, 505u, 506u, 507u, 1011u}) {
        const HivePtr hive = newHive(GetParam());
        for (size_t i = 0; i < 1012; i++) made(*hive, hiveRoot(*hive), digits(10000 + i));
        made(*hive, hiveRoot(*hive), digits(10000 + index) + u"a");
        ASSERT_EQ(faultOf(hiveImage(*hive)), "") << index;
        EXPECT_EQ(childNames(*hive).at(index + 1), digits(10000 + index) + u"a");
    }
}

TEST(Names, FoldAndKeepTheirLetters) {
    const HivePtr hive = newHive(5);
    const Cell root = hiveRoot(*hive);
    const std::u16string longest(longestKeyName, u'ж'), longestValue(longestValueName, u'я');
    for (const std::u16string& name :
         {u"über"s, u"Zebra"s, u"ключ"s, u"a\xD801Z"s, u"ÿ"s, u"with\0nul"s, longest}) {
        std::u16string other(name);
        for (char16_t& unit : other) unit = upcase(unit);
        Cell child = noCell, found = made(*hive, root, name);
        EXPECT_EQ(hiveCreateSubkey(*hive, root, other, {}, ByteVector(20), 0, 7, child),
                  STATUS_OBJECT_NAME_COLLISION);
        EXPECT_TRUE(hiveFindSubkey(*hive, root, other, child) >= 0 && child == found);
        EXPECT_EQ(contentOf(*hive, child).name, name);
        EXPECT_GE(hiveSetValue(*hive, root, name, 1, ByteVector(8, 1), 7), 0);
        EXPECT_GE(hiveSetValue(*hive, root, other, 2, ByteVector(9, 2), 7), 0);
        EXPECT_EQ(valuesOf(*hive, root).back(), std::tuple(name, 2u, ByteVector(9, 2)));
    }
    EXPECT_EQ(valuesOf(*hive, root).size(), 7u);
    EXPECT_GE(hiveSetValue(*hive, root, longestValue, 1, {}, 7), 0);
    EXPECT_EQ(hiveSetValue(*hive, root, longestValue + u"x", 1, {}, 7), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(faultOf(hiveImage(*hive)), "");
    EXPECT_NE(opened(hiveImage(*hive)), nullptr);
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

TEST(Keys, StampTheTimeAndShareDescriptors) {
    const HivePtr hive = newHive(6);
    const Cell root = hiveRoot(*hive), first = made(*hive, root, u"First", 5);
    const Cell second = made(*hive, first, u"Second", 6);
    const auto stamp = [&](NTSTATUS status, Cell key) {
        HiveKey info{};
        EXPECT_TRUE(status >= 0 && hiveKey(*hive, key, info) >= 0);
        return info.lastWrite;
    };
    const auto of = [&](Cell key) { return hiveKeyDescriptor(*hive, key); };
    EXPECT_EQ(stamp(0, root), 7u);
    /* A descriptor straight from the hive, while the room for it may move the hive. */
    Cell child = noCell;
    for (size_t i = 0; i < 300; i++)
        EXPECT_EQ(stamp(hiveCreateSubkey(*hive, second, digits(i), {}, of(second), 0, i, child), second), i);
    EXPECT_EQ(stamp(hiveSetKeyDescriptor(*hive, first, of(second), 400), first), 400u);
    EXPECT_EQ(stamp(hiveSetKeyDescriptor(*hive, first, of(first), 401), first), 401u);
    EXPECT_EQ(stamp(hiveSetKeyDescriptor(*hive, root, of(child), 402), root), 402u);
    EXPECT_EQ(of(first).data(), of(root).data());
    EXPECT_EQ(stamp(hiveDeleteKey(*hive, child, 500), second), 500u);
    EXPECT_EQ(stamp(hiveSetValue(*hive, first, u"", 1, ByteVector(3), 600), first), 600u);
    EXPECT_EQ(stamp(hiveDeleteValue(*hive, first, u"", 700), first), 700u);
    EXPECT_EQ(faultOf(hiveImage(*hive)), "");
}

/* ---- Random changes, done to a hive and to a model of it ---- */

struct Random {
    std::mt19937 engine;
    size_t below(size_t limit) { return engine() % limit; }
    std::u16string name() {
        const char16_t* const start[] = {u"", u"k", u"Key", u"ü", u"Ж", u"name "};
        std::u16string text = start[below(6)] + digits(below(60));
        for (char16_t& unit : text) unit = below(2) != 0 ? upcase(unit) : unit;
        return text;
    }
    ByteVector data() {
        const size_t longest[] = {5, 100, 3000, 50000};
        return someBytes(engine, below(longest[below(20) == 0 ? 3 : below(3)]));
    }
};

/* One change of a random key, in the hive and in the model. */
void change(Hive& hive, Content& root, Random& random) {
    Cell cell = hiveRoot(hive);
    Content *key = &root, *parent = nullptr;
    while (!key->subkeys.empty() && random.below(4) != 0) {
        const size_t index = random.below(key->subkeys.size());
        ASSERT_GE(hiveSubkey(hive, cell, static_cast<uint32_t>(index), cell), 0);
        parent = key;
        key = &key->subkeys[index];
    }
    const size_t what = random.below(10);
    const auto seed = static_cast<uint32_t>(random.below(9));
    const std::u16string name = random.name();
    const auto isValue = [&](const auto& one) { return equalFolded(get<0>(one), name); };
    const auto isAfter = [&](const Content& one) { return compareFolded(one.name, name) >= 0; };
    auto& values = key->values;
    const auto value = std::find_if(values.begin(), values.end(), isValue);
    const bool there = value != values.end();
    if (what < 3) {
        const auto next = std::find_if(key->subkeys.begin(), key->subkeys.end(), isAfter);
        const bool taken = next != key->subkeys.end() && equalFolded(next->name, name);
        Cell child = noCell;
        const Content fresh{name, random.data(), someDescriptor(seed), {}, {}};
        ASSERT_EQ(hiveCreateSubkey(hive, cell, name, fresh.classText, fresh.descriptor, 0, 1, child),
                  taken ? STATUS_OBJECT_NAME_COLLISION : STATUS_SUCCESS);
        if (!taken) key->subkeys.insert(next, fresh);
    } else if (what < 6) {
        const ByteVector data = random.data();
        ASSERT_GE(hiveSetValue(hive, cell, name, seed, data, 1), 0);
        if (!there) values.emplace_back(name, seed, data);
        if (there) *value = {get<0>(*value), seed, data};
    } else if (what < 7) {
        ASSERT_EQ(hiveDeleteValue(hive, cell, name, 1),
                  there ? STATUS_SUCCESS : STATUS_OBJECT_NAME_NOT_FOUND);
        if (there) values.erase(value);
    } else if (what < 9) {
        const bool can = parent != nullptr && key->subkeys.empty();
        ASSERT_EQ(hiveDeleteKey(hive, cell, 1), can ? STATUS_SUCCESS : STATUS_CANNOT_DELETE);
        if (can) parent->subkeys.erase(parent->subkeys.begin() + (key - parent->subkeys.data()));
    } else {
        key->descriptor = someDescriptor(seed);
        ASSERT_GE(hiveSetKeyDescriptor(hive, cell, key->descriptor, 1), 0);
    }
}

TEST_P(Versions, RandomChangesMatchAModel) {
    HivePtr hive = newHive(GetParam());
    Content root = contentOf(*hive);
    Random random{std::mt19937(GetParam())};
    for (size_t step = 1; step <= 6000; step++) {
        change(*hive, root, random);
        if (HasFatalFailure()) return;
        if (step % 500 != 0) continue;
        const ByteVector image = hiveImage(*hive);
        ASSERT_EQ(faultOf(image), "") << step;
        if (step % 1000 == 0) hive = opened(image);
        ASSERT_TRUE(contentOf(*hive) == root) << step;
    }
}

} /* namespace */
} /* namespace offline::test */
