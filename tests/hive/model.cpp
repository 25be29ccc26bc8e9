/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "tests/hive/model.h"

#include "platform/offline/base/unicode.h"

namespace offline::test {
namespace {

using namespace std::string_literals;

Values::iterator valueOf(Content& key, const std::u16string& name) {
    return std::find_if(key.values.begin(), key.values.end(),
                        [&](const auto& one) { return equalFolded(get<0>(one), name); });
}

std::u16string someName(std::mt19937& random) {
    static const std::u16string starts[] = {
        u"",       u"k",        u"Key", u"ü",          u"Ж",
        u"name z", u"a\xD801Z", u"ÿ",   u"with\0nul"s, std::u16string(253, u'ж')};
    std::u16string text = starts[random() % 10] + digits(random() % 60);
    for (char16_t& unit : text) unit = random() % 2 != 0 ? upcase(unit) : unit;
    return text;
}

/* In every form, and just at their borders. */
ByteVector someData(std::mt19937& random) {
    const size_t small[] = {0, 4, 5, random() % 100, random() % 3000};
    const size_t large[] = {16344, 16345, 32688, 32689, random() % 300000};
    return someBytes(random, random() % 20 == 0 ? large[random() % 5] : small[random() % 5]);
}

} /* namespace */

std::vector<Content>::iterator placeOf(Content& parent, const std::u16string& name) {
    return std::lower_bound(
        parent.subkeys.begin(), parent.subkeys.end(), name,
        [](const Content& one, const std::u16string& text) { return compareFolded(one.name, text) < 0; });
}

void Twins::create(Cell cell, Content& parent, const Content& fresh, Bytes source) {
    const auto place = placeOf(parent, fresh.name);
    const bool taken = place != parent.subkeys.end() && equalFolded(place->name, fresh.name);
    Cell child = noCell;
    ASSERT_EQ(hiveCreateSubkey(*hive, cell, fresh.name, fresh.classText, source, 0, ++time, child),
              taken ? STATUS_OBJECT_NAME_COLLISION : STATUS_SUCCESS);
    if (taken) return;
    parent.lastWrite = time;
    const auto made = parent.subkeys.insert(place, fresh);
    made->lastWrite = time;
    Cell there = noCell;
    ASSERT_GE(hiveSubkey(*hive, cell, static_cast<uint32_t>(made - parent.subkeys.begin()), there), 0);
    ASSERT_EQ(there, child);
}

void Twins::remove(Cell cell, Content& parent, const std::u16string& name) {
    const auto place = placeOf(parent, name);
    const bool empty = place->subkeys.empty();
    Cell child = noCell;
    HiveKey info{};
    ASSERT_GE(hiveFindSubkey(*hive, cell, name, child), 0);
    ASSERT_EQ(hiveDeleteKey(*hive, child, ++time), empty ? STATUS_SUCCESS : STATUS_CANNOT_DELETE);
    if (!empty) return;
    parent.subkeys.erase(place);
    parent.lastWrite = time;
    ASSERT_EQ(hiveKey(*hive, child, info), STATUS_REGISTRY_CORRUPT);
    ASSERT_EQ(hiveFindSubkey(*hive, cell, name, child), STATUS_OBJECT_NAME_NOT_FOUND);
}

void Twins::set(Cell cell, Content& key, const std::u16string& name, uint32_t type, const ByteVector& data) {
    ASSERT_GE(hiveSetValue(*hive, cell, name, type, data, ++time), 0);
    const auto value = valueOf(key, name);
    key.lastWrite = time;
    if (value == key.values.end()) {
        key.values.emplace_back(name, type, data);
    } else {
        *value = {get<0>(*value), type, data};
    }
}

void Twins::erase(Cell cell, Content& key, const std::u16string& name) {
    const auto value = valueOf(key, name);
    const bool there = value != key.values.end();
    ASSERT_EQ(hiveDeleteValue(*hive, cell, name, ++time),
              there ? STATUS_SUCCESS : STATUS_OBJECT_NAME_NOT_FOUND);
    if (!there) return;
    key.values.erase(value);
    key.lastWrite = time;
}

void Twins::describe(Cell cell, Content& key, const ByteVector& descriptor, Bytes source) {
    ASSERT_GE(hiveSetKeyDescriptor(*hive, cell, source, ++time), 0);
    key.descriptor = descriptor;
    key.lastWrite = time;
}

void Twins::change(std::mt19937& random) {
    Cell cell = hiveRoot(*hive), above = noCell;
    Content *key = &root, *parent = nullptr;
    while (!key->subkeys.empty() && random() % 4 != 0) {
        const size_t index = random() % key->subkeys.size();
        above = cell;
        parent = key;
        ASSERT_GE(hiveSubkey(*hive, above, static_cast<uint32_t>(index), cell), 0);
        key = &parent->subkeys[index];
    }
    constexpr uint16_t predefinedHandle = 0x40;
    HiveKey info{};
    ASSERT_GE(hiveKey(*hive, cell, info), 0);
    const uint16_t refusing = parent == nullptr ? predefinedHandle : predefinedHandle | HIVE_KEY_NO_DELETE;
    if ((info.flags & refusing) != 0) return;
    const bool shared = parent != nullptr && random() % 2 == 0;
    const ByteVector descriptor =
        shared ? parent->descriptor : someDescriptor(static_cast<uint32_t>(random() % 9));
    const Bytes source = shared ? hiveKeyDescriptor(*hive, above) : Bytes(descriptor);
    const std::u16string name = someName(random);
    const size_t what = random() % 10;
    if (what < 3) {
        create(cell, *key, {name, someBytes(random, random() % 90), descriptor}, source);
    } else if (what < 6) {
        set(cell, *key, name, static_cast<uint32_t>(what), someData(random));
    } else if (what < 7) {
        erase(cell, *key, name);
    } else if (what < 9) {
        if (parent != nullptr) remove(above, *parent, std::u16string(key->name));
    } else {
        describe(cell, *key, descriptor, source);
    }
}

void Twins::compare() const {
    ASSERT_TRUE(contentOf(*hive) == root);
}

bool exercise(const ByteVector& file, size_t changes, ByteVector* after) {
    HivePtr hive;
    Problem problem;
    if (hiveOpen(file, hive, problem) < 0) return !problem.text.empty();
    Twins twins(std::move(hive));
    std::mt19937 random(static_cast<uint32_t>(changes));
    for (size_t i = 0; i < changes; i++) twins.change(random);
    twins.compare();
    const ByteVector image = hiveImage(*twins.hive);
    if (after != nullptr) *after = image;
    twins.hive = opened(image);
    if (twins.hive != nullptr) twins.compare();
    return !testing::Test::HasFailure();
}

} /* namespace offline::test */
