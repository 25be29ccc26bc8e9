/* Keys and values: one kind of change after the other, and random ones against a model. */
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "platform/offline/base/text.h"
#include "tests/hive/check.h"

namespace offline::test {
namespace {

using namespace std::string_literals;

Cell made(Hive& hive, Cell parent, std::u16string_view name, uint32_t descriptor = 1) {
    Cell child = noCell;
    EXPECT_EQ(hiveCreateSubkey(hive, parent, name, {}, someDescriptor(descriptor), 0, 7, child),
              STATUS_SUCCESS);
    return child;
}

std::u16string nameOf(const Hive& hive, Cell key) {
    char16_t name[longestKeyName];
    return {name, hiveKeyName(hive, key, name)};
}

std::vector<std::u16string> childNames(const Hive& hive, Cell key) {
    std::vector<std::u16string> names;
    Cell child = noCell;
    for (uint32_t i = 0; hiveSubkey(hive, key, i, child) == STATUS_SUCCESS; i++) {
        names.push_back(nameOf(hive, child));
    }
    return names;
}

/* The two letters with which the list of a key's subkeys begins. */
std::string listKind(const Bytes& file, Cell key) {
    uint32_t list = 0;
    memcpy(&list, file.data() + 4100 + key + 28, sizeof list);
    return {file.begin() + 4100 + list, file.begin() + 4102 + list};
}

std::u16string digits(size_t number) {
    const std::string text = std::to_string(number);
    return {text.begin(), text.end()};
}

class Versions : public testing::TestWithParam<uint32_t> {};
INSTANTIATE_TEST_SUITE_P(All, Versions, testing::Values(3, 4, 5, 6));

TEST_P(Versions, ImageOfVariedHiveIsSoundAndKeepsItsContent) {
    const HivePtr hive = variedHive(GetParam());
    const Bytes image = hiveImage(*hive);
    EXPECT_EQ(faultOf(image), "");
    const HivePtr again = opened(image);
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(hiveMinorVersion(*again), GetParam());
    EXPECT_FALSE(hiveChanged(*again));
    EXPECT_EQ(contentOf(*again, hiveRoot(*again)), contentOf(*hive, hiveRoot(*hive)));
    EXPECT_TRUE(exercise(image));
}

TEST_P(Versions, DataGrowsAndShrinksThroughAllForms) {
    const HivePtr hive = newHive(GetParam());
    const Cell root = hiveRoot(*hive);
    const std::vector<size_t> sizes{0, 1, 4, 5, 16344, 16345, 32688, 65535, 65536, 200000, 1048576};
    std::vector<size_t> order(sizes);
    order.insert(order.end(), sizes.rbegin(), sizes.rend());
    for (const size_t one : {size_t{16344}, size_t{1048576}, size_t{4}, size_t{200000}, size_t{0}})
        order.push_back(one);
    std::mt19937 random(1);
    size_t largest = 0;
    for (const size_t size : order) {
        const Bytes data = someBytes(random, size);
        ASSERT_EQ(hiveSetValue(*hive, root, u"Data", 3, data, 9), STATUS_SUCCESS);
        HiveValue value{};
        ASSERT_EQ(hiveFindValue(*hive, root, u"dATA", value), STATUS_SUCCESS);
        Bytes read(value.dataLength);
        hiveValueData(*hive, value, read);
        EXPECT_EQ(read, data);
        Bytes head(std::min<size_t>(size, 20000));
        hiveValueData(*hive, value, head);
        EXPECT_TRUE(std::equal(head.begin(), head.end(), data.begin()));
        const Bytes image = hiveImage(*hive);
        ASSERT_EQ(faultOf(image), "") << size;
        largest = std::max(largest, image.size());
    }
    EXPECT_LT(largest, 3u * 1048576) << "free cells are to be used again";
    ASSERT_EQ(hiveDeleteValue(*hive, root, u"data", 10), STATUS_SUCCESS);
    EXPECT_EQ(hiveDeleteValue(*hive, root, u"data", 10), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(faultOf(hiveImage(*hive)), "");
}

TEST_P(Versions, FiveThousandChildrenComeAndGo) {
    const HivePtr hive = newHive(GetParam());
    const Cell root = hiveRoot(*hive);
    std::vector<std::u16string> names;
    for (size_t i = 0; i < 5000; i++) names.push_back(i % 3 == 0 ? u"Ключ" + digits(i) : u"Key" + digits(i));
    std::mt19937 random(GetParam());
    std::shuffle(names.begin(), names.end(), random);
    for (const std::u16string& name : names) made(*hive, root, name);
    EXPECT_EQ(faultOf(hiveImage(*hive)), "");
    std::vector<std::u16string> sorted(names);
    std::sort(sorted.begin(), sorted.end(),
              [](const auto& a, const auto& b) { return compareFolded(a, b) < 0; });
    EXPECT_EQ(childNames(*hive, root), sorted);

    std::shuffle(names.begin(), names.end(), random);
    while (!names.empty()) {
        Cell child = noCell;
        ASSERT_EQ(hiveFindSubkey(*hive, root, names.back(), child), STATUS_SUCCESS);
        ASSERT_EQ(hiveDeleteKey(*hive, child, 8), STATUS_SUCCESS);
        ASSERT_EQ(hiveDeleteKey(*hive, child, 8), STATUS_REGISTRY_CORRUPT);
        ASSERT_EQ(hiveFindSubkey(*hive, root, names.back(), child), STATUS_OBJECT_NAME_NOT_FOUND);
        std::erase(sorted, names.back());
        const size_t middle = sorted.size() / 2;
        if (!sorted.empty()) {
            ASSERT_EQ(hiveSubkey(*hive, root, static_cast<uint32_t>(middle), child), STATUS_SUCCESS);
            ASSERT_EQ(nameOf(*hive, child), sorted[middle]);
        }
        names.pop_back();
        if (names.size() == 200) {
            ASSERT_EQ(listKind(hiveImage(*hive), root).find("ri"), std::string::npos)
                << "short leaves are joined";
        }
        if (names.size() % 700 == 0) {
            ASSERT_EQ(faultOf(hiveImage(*hive)), "");
        }
    }
    EXPECT_EQ(contentOf(*hive, root), contentOf(*newHive(3), hiveRoot(*newHive(3))));
}

TEST_P(Versions, FullLeafIsSplitWhereverTheNewKeyGoes) {
    for (const size_t place : {size_t{0}, size_t{504}, size_t{505}, size_t{506}, size_t{507}, size_t{1011}}) {
        const HivePtr hive = newHive(GetParam());
        for (size_t i = 0; i < 1012; i++) made(*hive, hiveRoot(*hive), digits(10000 + i));
        made(*hive, hiveRoot(*hive), digits(10000 + place) + u"a");
        ASSERT_EQ(faultOf(hiveImage(*hive)), "") << place;
        EXPECT_EQ(childNames(*hive, hiveRoot(*hive))[place + 1], digits(10000 + place) + u"a");
    }
}

TEST(Names, FoldAndKeepTheirLetters) {
    const HivePtr hive = newHive(5);
    const Cell root = hiveRoot(*hive);
    const std::u16string lone{u'a', 0xD801, u'b'};
    const std::u16string longest(longestKeyName, u'ж');
    const std::vector<std::u16string> names{u"über", u"Zebra", u"ключ",       lone,
                                            longest, u"ÿ",     u"with\0nul"s, u"a b\r\n"};
    for (const std::u16string& name : names) made(*hive, root, name);
    for (const std::u16string& name : names) {
        std::u16string other(name);
        for (char16_t& unit : other) unit = upcase(unit);
        Cell child = noCell;
        ASSERT_EQ(hiveFindSubkey(*hive, root, other, child), STATUS_SUCCESS);
        EXPECT_EQ(nameOf(*hive, child), name);
        EXPECT_EQ(hiveCreateSubkey(*hive, root, other, {}, someDescriptor(1), 0, 7, child),
                  STATUS_OBJECT_NAME_COLLISION);
        EXPECT_EQ(hiveSetValue(*hive, root, name, 1, Bytes(8, 1), 7), STATUS_SUCCESS);
        EXPECT_EQ(hiveSetValue(*hive, root, other, 2, Bytes(9, 2), 7), STATUS_SUCCESS);
    }
    const Content content = contentOf(*hive, root);
    ASSERT_EQ(content.values.size(), names.size());
    for (size_t i = 0; i < names.size(); i++)
        EXPECT_EQ(content.values[i], std::tuple(names[i], 2u, Bytes(9, 2)));
    EXPECT_EQ(faultOf(hiveImage(*hive)), "");
    const std::u16string longestValue(longestValueName, u'я');
    EXPECT_EQ(hiveSetValue(*hive, root, longestValue, 1, {}, 7), STATUS_SUCCESS);
    EXPECT_EQ(hiveSetValue(*hive, root, longestValue + u"x", 1, {}, 7), STATUS_INVALID_PARAMETER);
    EXPECT_NE(opened(hiveImage(*hive)), nullptr);
}

TEST(Keys, RefusalsChangeNothing) {
    const HivePtr hive = newHive(5);
    const Cell root = hiveRoot(*hive);
    const Cell key = made(*hive, root, u"Key");
    Cell kept = noCell;
    ASSERT_EQ(hiveCreateSubkey(*hive, key, u"Kept", {}, someDescriptor(2), HIVE_KEY_NO_DELETE | HIVE_KEY_LINK,
                               7, kept),
              STATUS_SUCCESS);
    const Bytes before = hiveImage(*hive);
    Cell child = noCell;
    const Bytes descriptor = someDescriptor(1);
    for (const std::u16string& name : {u""s, u"a\\b"s, std::u16string(longestKeyName + 1, u'a')}) {
        EXPECT_EQ(hiveCreateSubkey(*hive, root, name, {}, descriptor, 0, 9, child), STATUS_INVALID_PARAMETER);
    }
    EXPECT_EQ(hiveCreateSubkey(*hive, root, u"x", {}, {}, 0, 9, child), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(hiveCreateSubkey(*hive, root, u"x", {}, descriptor, HIVE_KEY_ROOT, 9, child),
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(hiveCreateSubkey(*hive, root, u"x", Bytes(65536), descriptor, 0, 9, child),
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(hiveSetKeyDescriptor(*hive, key, Bytes(65536), 9), STATUS_INVALID_PARAMETER);
    for (const Cell one : {root, key, kept}) EXPECT_EQ(hiveDeleteKey(*hive, one, 9), STATUS_CANNOT_DELETE);
    HiveKey info{};
    for (const Cell none : {noCell, Cell{0}, key + 8, Cell{0x7FFFFFF8}, Cell{4096}}) {
        EXPECT_EQ(hiveKey(*hive, none, info), STATUS_REGISTRY_CORRUPT);
        EXPECT_EQ(hiveSetValue(*hive, none, u"x", 1, {}, 9), STATUS_REGISTRY_CORRUPT);
    }
    EXPECT_EQ(hiveImage(*hive), before);
}

TEST(Keys, StampTheTimeAndShareDescriptors) {
    const HivePtr hive = newHive(6);
    const Cell root = hiveRoot(*hive);
    const auto stamp = [&](Cell key) {
        HiveKey info{};
        EXPECT_EQ(hiveKey(*hive, key, info), STATUS_SUCCESS);
        return info.lastWrite;
    };
    const Cell first = made(*hive, root, u"First", 5);
    const Cell second = made(*hive, first, u"Second", 6);
    EXPECT_EQ(stamp(root), 7u);
    /* A descriptor straight from the hive, while the room for it may move the hive. */
    Cell child = noCell;
    for (size_t i = 0; i < 300; i++) {
        ASSERT_EQ(hiveCreateSubkey(*hive, second, digits(i), {}, hiveKeyDescriptor(*hive, second), 0, 20 + i,
                                   child),
                  STATUS_SUCCESS);
    }
    EXPECT_EQ(stamp(second), 319u);
    ASSERT_EQ(hiveSetKeyDescriptor(*hive, first, hiveKeyDescriptor(*hive, second), 400), STATUS_SUCCESS);
    ASSERT_EQ(hiveSetKeyDescriptor(*hive, first, hiveKeyDescriptor(*hive, first), 401), STATUS_SUCCESS);
    ASSERT_EQ(hiveSetKeyDescriptor(*hive, root, hiveKeyDescriptor(*hive, child), 402), STATUS_SUCCESS);
    EXPECT_EQ(stamp(first), 401u);
    EXPECT_EQ(hiveKeyDescriptor(*hive, first).data(), hiveKeyDescriptor(*hive, root).data());
    ASSERT_EQ(hiveDeleteKey(*hive, child, 500), STATUS_SUCCESS);
    EXPECT_EQ(stamp(second), 500u);
    ASSERT_EQ(hiveSetValue(*hive, first, u"", 1, Bytes(3), 600), STATUS_SUCCESS);
    EXPECT_EQ(stamp(first), 600u);
    ASSERT_EQ(hiveDeleteValue(*hive, first, u"", 700), STATUS_SUCCESS);
    EXPECT_EQ(stamp(first), 700u);
    EXPECT_EQ(faultOf(hiveImage(*hive)), "");
}

TEST(Keys, NestAsDeepAsAHiveMayBe) {
    const HivePtr hive = newHive(5);
    Cell key = hiveRoot(*hive);
    for (uint32_t depth = 0; depth < deepestKey; depth++) key = made(*hive, key, u"k");
    Cell child = noCell;
    EXPECT_EQ(hiveCreateSubkey(*hive, key, u"k", {}, someDescriptor(1), 0, 7, child),
              STATUS_INVALID_PARAMETER);
    EXPECT_NE(opened(hiveImage(*hive)), nullptr);
}

/* ---- Random changes, done to a hive and to a model of it ---- */

struct Random {
    std::mt19937 engine;
    size_t below(size_t limit) { return engine() % limit; }
    std::u16string name() {
        const std::u16string start[] = {u"", u"k", u"Key", u"ü", u"Ж", u"name "};
        std::u16string text = start[below(6)] + digits(below(60));
        for (char16_t& unit : text) unit = below(2) != 0 ? upcase(unit) : unit;
        return text;
    }
    Bytes data() {
        const size_t longest[] = {5, 100, 3000, 50000};
        return someBytes(engine, below(longest[below(20) == 0 ? 3 : below(3)]));
    }
};

struct Pair { /* a key in the hive and in the model */
    Cell cell;
    Content* content;
    Content* parent;
};

Pair pick(Hive& hive, Content& root, Random& random) {
    Pair at{hiveRoot(hive), &root, nullptr};
    while (!at.content->subkeys.empty() && random.below(4) != 0) {
        const size_t index = random.below(at.content->subkeys.size());
        EXPECT_EQ(hiveSubkey(hive, at.cell, static_cast<uint32_t>(index), at.cell), STATUS_SUCCESS);
        at = {at.cell, &at.content->subkeys[index], at.content};
    }
    return at;
}

void createSubkey(Hive& hive, Pair at, Random& random) {
    Content fresh{random.name(),
                  0,
                  someBytes(random.engine, random.below(3) * 8),
                  someDescriptor(static_cast<uint32_t>(random.below(9))),
                  {},
                  {}};
    auto& subkeys = at.content->subkeys;
    const auto place = std::find_if(subkeys.begin(), subkeys.end(), [&](const Content& one) {
        return compareFolded(one.name, fresh.name) >= 0;
    });
    const bool taken = place != subkeys.end() && equalFolded(place->name, fresh.name);
    Cell child = noCell;
    ASSERT_EQ(hiveCreateSubkey(hive, at.cell, fresh.name, fresh.classText, fresh.descriptor, 0, 1, child),
              taken ? STATUS_OBJECT_NAME_COLLISION : STATUS_SUCCESS);
    if (!taken) subkeys.insert(place, fresh);
}

void setValue(Hive& hive, Pair at, Random& random, bool remove) {
    const std::u16string name = random.name();
    auto& values = at.content->values;
    const auto place = std::find_if(values.begin(), values.end(),
                                    [&](const auto& one) { return equalFolded(std::get<0>(one), name); });
    if (remove) {
        ASSERT_EQ(hiveDeleteValue(hive, at.cell, name, 1),
                  place == values.end() ? STATUS_OBJECT_NAME_NOT_FOUND : STATUS_SUCCESS);
        if (place != values.end()) values.erase(place);
        return;
    }
    const Bytes data = random.data();
    const auto type = static_cast<uint32_t>(random.engine());
    ASSERT_EQ(hiveSetValue(hive, at.cell, name, type, data, 1), STATUS_SUCCESS);
    if (place == values.end())
        values.emplace_back(name, type, data);
    else
        *place = {std::get<0>(*place), type, data};
}

void deleteKey(Hive& hive, Pair at) {
    const bool can = at.parent != nullptr && at.content->subkeys.empty();
    ASSERT_EQ(hiveDeleteKey(hive, at.cell, 1), can ? STATUS_SUCCESS : STATUS_CANNOT_DELETE);
    if (can) at.parent->subkeys.erase(at.parent->subkeys.begin() + (at.content - at.parent->subkeys.data()));
}

TEST_P(Versions, RandomChangesMatchAModel) {
    HivePtr hive = newHive(GetParam());
    Content root = contentOf(*hive, hiveRoot(*hive));
    Random random{std::mt19937(GetParam())};
    for (size_t step = 1; step <= 6000; step++) {
        const Pair at = pick(*hive, root, random);
        const size_t what = random.below(10);
        if (what < 3)
            createSubkey(*hive, at, random);
        else if (what < 6)
            setValue(*hive, at, random, false);
        else if (what < 7)
            setValue(*hive, at, random, true);
        else if (what < 9)
            deleteKey(*hive, at);
        else {
            at.content->descriptor = someDescriptor(static_cast<uint32_t>(random.below(9)));
            ASSERT_EQ(hiveSetKeyDescriptor(*hive, at.cell, at.content->descriptor, 1), STATUS_SUCCESS);
        }
        if (testing::Test::HasFatalFailure()) return;
        if (step % 500 != 0) continue;
        const Bytes image = hiveImage(*hive);
        ASSERT_EQ(faultOf(image), "") << step;
        if (step % 1000 == 0) hive = opened(image);
        ASSERT_TRUE(contentOf(*hive, hiveRoot(*hive)) == root) << step;
    }
}

} /* namespace */
} /* namespace offline::test */
