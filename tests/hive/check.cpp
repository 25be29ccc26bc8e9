/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "tests/hive/check.h"

#include <filesystem>
#include <set>

#include "platform/offline/base/unicode.h"

namespace offline::test {
namespace {

/* Reads a file by the published layout; every fault ends in an exception. */
struct Reader {
    const ByteVector& file;
    std::set<uint32_t> used{};
    std::map<uint32_t, uint32_t> refcounts{};

    void want(bool holds, const char* what, size_t offset) const {
        if (!holds) throw std::runtime_error(std::string(what) + " at " + std::to_string(offset));
    }
    uint32_t number(size_t at, size_t size) const {
        want(at < file.size() && file.size() - at >= size, "end of file", at);
        uint32_t value = 0;
        memcpy(&value, &file[at], size);
        return value;
    }
    uint32_t u16(size_t at) const { return number(at, 2); }
    uint32_t u32(size_t at) const { return number(at, 4); }
    int64_t sizeOf(uint32_t cell) const { return static_cast<int32_t>(u32(4096 + size_t{cell})); }

    /* The file offset of a cell's data, the cell counted as used once. */
    size_t use(uint32_t cell, size_t length) {
        want(cell % 8 == 0 && sizeOf(cell) < -4, "no cell", cell);
        want(fits(cell, length), "short cell", cell);
        want(used.insert(cell).second, "cell used twice", cell);
        return 4100 + size_t{cell};
    }
    bool fits(uint32_t cell, size_t length) const { return static_cast<size_t>(-sizeOf(cell)) - 4 >= length; }
    std::u16string name(size_t at, size_t length, bool compressed) const {
        std::u16string text;
        const size_t width = compressed ? 1 : 2;
        for (size_t i = 0; i < length; i += width) text += static_cast<char16_t>(number(at + i, width));
        return text;
    }

    void value(uint32_t cell, uint32_t longestName, uint32_t longestData) {
        const size_t at = use(cell, 20);
        want(u16(at) == 0x6B76 && fits(cell, 20 + u16(at + 2)), "value", cell);
        const bool compressed = (u16(at + 16) & 1) != 0;
        const std::u16string text = name(at + 20, u16(at + 2), compressed);
        const bool wide = std::any_of(text.begin(), text.end(), [](char16_t unit) { return unit > 0xFF; });
        want(text.empty() ? !compressed : wide != compressed, "form of the name", cell);
        const uint32_t size = u32(at + 4), count = (size + 16343) / 16344;
        want(2 * text.size() <= longestName && (size & 0x7FFFFFFF) <= longestData, "longest fields", cell);
        if ((size & 0x80000000) != 0 || size == 0) return;
        const bool isBig = size > 16344 && u32(24) > 3;
        const size_t big = use(u32(at + 8), isBig ? 12 : size);
        if (!isBig) return;
        want(u16(big) == 0x6264 && u16(big + 2) == count, "big data", cell);
        const size_t list = use(u32(big + 4), 4 * count);
        for (size_t i = list; i < list + 4 * count; i += 4)
            want(use(u32(i), 16344) != 0 && sizeOf(u32(i)) == -16352, "segment", u32(i));
    }

    /* A child as a list has it, with the hash or the first characters of its name. */
    struct Child {
        uint32_t cell;
        size_t kind;
        uint32_t hint;
    };
    void leaf(uint32_t cell, bool belowIndex, std::vector<Child>& children) {
        const size_t at = use(cell, 4), kind = u16(at), count = u16(at + 2);
        const size_t width = kind == 0x666C || kind == 0x686C ? 8 : 4, end = at + 4 + count * width;
        want(count != 0 && fits(cell, end - at), "list", cell);
        const bool index = kind == 0x6972, known = kind == 0x696C || kind == (u32(24) > 4 ? 0x686C : 0x666C);
        want(index ? !belowIndex : known, "form of list", cell);
        for (size_t i = at + 4; index && i < end; i += 4) leaf(u32(i), true, children);
        for (size_t i = at + 4; !index && i < end; i += width)
            children.push_back({u32(i), kind, width == 8 ? u32(i + 4) : 0});
    }

    /* A name's first four characters; 0 when they are not all ASCII, for then the platform's are not known.
     */
    static uint32_t charactersOf(const std::u16string& text) {
        uint32_t all = 0;
        for (size_t i = 0; i < std::min<size_t>(text.size(), 4); i++) {
            if (text[i] > 0x7F) return 0;
            all |= uint32_t{text[i]} << (8 * i);
        }
        return all;
    }

    std::u16string key(uint32_t cell, uint32_t parent) {
        const size_t at = use(cell, 76), values = u32(at + 36);
        want(u16(at) == 0x6B6E && fits(cell, 76 + u16(at + 72)), "key", cell);
        want(parent == noCell || u32(at + 16) == parent, "parent", cell);
        if (u16(at + 74) != 0) use(u32(at + 48), u16(at + 74));
        refcounts[u32(at + 44)]++;
        const size_t list = values != 0 ? use(u32(at + 40), 4 * values) : 0;
        for (size_t i = 0; i < values; i++) value(u32(list + 4 * i), u32(at + 60), u32(at + 64));
        std::vector<Child> children;
        if (u32(at + 20) != 0) leaf(u32(at + 28), false, children);
        want(children.size() == u32(at + 20), "number of subkeys", cell);
        std::u16string last;
        for (const auto& [child, kind, hint] : children) {
            std::u16string text = key(child, cell);
            const uint32_t start = charactersOf(text);
            uint32_t sum = 0;
            for (char16_t& unit : text) sum = sum * 37 + (unit = upcase(unit));
            want(2 * text.size() <= u16(at + 52), "longest subkey name", cell);
            want(kind != 0x686C || hint == sum, "hash", child);
            want(kind != 0x666C || start == 0 || hint == start, "first characters", child);
            want(text > last, "order", child);
            last = text;
        }
        return name(at + 76, u16(at + 72), (u16(at + 2) & 0x20) != 0);
    }

    void ring(uint32_t first) {
        std::set<ByteVector> seen;
        uint32_t cell = first;
        do {
            const size_t at = use(cell, 20), length = u32(at + 16);
            want(u16(at) == 0x6B73 && fits(cell, 20 + length), "descriptor", cell);
            want(u32(at + 12) == refcounts[cell], "count of descriptor", cell);
            want(seen.emplace(&file[at + 20], &file[at + 20] + length).second, "descriptor stored twice",
                 cell);
            want(u32(4100 + u32(at + 4) + 8) == cell, "ring", cell);
            cell = u32(at + 4);
        } while (cell != first);
        for (const auto& [user, count] : refcounts)
            want(used.contains(user), "descriptor outside the ring", user);
    }

    void cells() const {
        size_t lost = used.size();
        uint32_t cell = 0;
        while (cell < u32(40)) {
            const size_t at = 4096 + size_t{cell};
            want(u32(at) == 0x6E696268 && u32(at + 4) == cell && u32(at + 8) % 4096 == 0, "bin", cell);
            const uint32_t end = cell + u32(at + 8);
            bool free = false;
            for (cell += 32; cell < end; cell += static_cast<uint32_t>(std::abs(sizeOf(cell)))) {
                const int64_t size = sizeOf(cell);
                want(size != 0 && size % 8 == 0, "size", cell);
                want(size < 0 || !free, "free cells side by side", cell);
                want(size > 0 || used.contains(cell), "lost cell", cell);
                lost -= size < 0 ? 1 : 0;
                free = size > 0;
            }
            want(cell == end, "end of bin", cell);
        }
        want(cell == u32(40) && lost == 0, "end of bins", cell);
    }
};

} /* namespace */

void putNumber(ByteVector& bytes, size_t at, uint64_t number, size_t size) {
    for (size_t i = 0; i < size; i++) bytes.at(at + i) = static_cast<uint8_t>(number >> (8 * i));
}

void seal(ByteVector& file) {
    uint32_t sum = 0;
    for (size_t at = 0; at < 508; at += 4) sum ^= numberAt<uint32_t>(file, at);
    putNumber(file, 508, sum == 0 || sum == UINT32_MAX ? sum ^ 1 : sum);
}

std::string faultOf(const ByteVector& file) try {
    Reader reader{file};
    ByteVector sealed(file);
    seal(sealed);
    reader.want(sealed == file && reader.u32(4) == reader.u32(8), "base block", 0);
    reader.key(reader.u32(36), noCell);
    reader.ring(reader.u32(4100 + reader.u32(36) + 44));
    reader.cells();
    return "";
} catch (const std::runtime_error& error) {
    return error.what();
}

Values valuesOf(const Hive& hive, Cell key) {
    Values values;
    HiveValue value{};
    for (uint32_t i = 0; hiveValue(hive, key, i, value) >= 0; i++) {
        std::u16string name(value.nameLength, u'\0');
        hiveValueName(hive, value, name.data());
        ByteVector data(value.dataLength), start(std::min<size_t>(value.dataLength, 20000));
        hiveValueData(hive, value, data);
        hiveValueData(hive, value, start);
        EXPECT_TRUE(std::equal(start.begin(), start.end(), data.begin()));
        values.emplace_back(name, value.type, data);
        EXPECT_GE(hiveFindValue(hive, key, name, value), 0);
    }
    return values;
}

Content contentOf(const Hive& hive, Cell key) {
    if (key == noCell) key = hiveRoot(hive);
    char16_t name[longestKeyName];
    const auto text = hiveKeyClass(hive, key), descriptor = hiveKeyDescriptor(hive, key);
    HiveKey info{};
    EXPECT_GE(hiveKey(hive, key, info), 0);
    Content content{{name, hiveKeyName(hive, key, name)},
                    {text.begin(), text.end()},
                    {descriptor.begin(), descriptor.end()},
                    info.lastWrite,
                    valuesOf(hive, key)};
    std::vector<Cell> children;
    Cell child = noCell;
    for (uint32_t i = 0; hiveSubkey(hive, key, i, child) >= 0; i++) {
        children.push_back(child);
        content.subkeys.push_back(contentOf(hive, child));
    }
    EXPECT_TRUE(children.size() == info.subkeyCount && content.values.size() == info.valueCount);
    for (size_t i = 0; i < children.size(); i++)
        EXPECT_TRUE(hiveFindSubkey(hive, key, content.subkeys[i].name, child) >= 0 && child == children[i]);
    return content;
}

std::vector<Cell> keysOf(const Hive& hive) {
    std::vector<Cell> keys{hiveRoot(hive)};
    Cell child = noCell;
    for (size_t i = 0; i < keys.size(); i++)
        for (uint32_t at = 0; hiveSubkey(hive, keys[i], at, child) >= 0; at++) keys.push_back(child);
    return keys;
}

ByteVector someBytes(std::mt19937& random, size_t length) {
    ByteVector bytes(length);
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<uint8_t>(random()); });
    return bytes;
}

ByteVector someDescriptor(uint32_t seed) {
    std::mt19937 random(seed);
    return someBytes(random, 48 + seed % 7 * 16);
}

std::u16string digits(size_t number) {
    const std::string text = std::to_string(number);
    return {text.begin(), text.end()};
}

HivePtr newHive(uint32_t minor) {
    HivePtr hive;
    const char16_t* const file = u"\\SystemRoot\\Test\\a name longer than the field";
    EXPECT_GE(hiveCreate(minor, u"ROOT", file, someDescriptor(0), hive), 0);
    return hive;
}

HivePtr opened(const ByteVector& file) {
    HivePtr hive;
    Problem problem;
    EXPECT_TRUE(hiveOpen(file, hive, problem) >= 0 && problem.text.empty()) << problem.text;
    return hive;
}

Cell made(Hive& hive, Cell parent, std::u16string_view name, uint32_t descriptor) {
    Cell child = noCell;
    const ByteVector text(descriptor % 3 * 2, 'c');
    EXPECT_GE(hiveCreateSubkey(hive, parent, name, text, someDescriptor(descriptor), 0, 7, child), 0);
    return child;
}

HivePtr variedHive(uint32_t minor) {
    HivePtr hive = newHive(minor);
    std::mt19937 random(minor);
    Cell key = noCell;
    for (const char16_t* name : {u"Alpha", u"beta", u"Ünder", u"Ключ", u"many"}) {
        key = made(*hive, hiveRoot(*hive), name, 1 + static_cast<uint32_t>(random() % 2));
        char16_t value[] = u"aж";
        for (const size_t length : {0u, 3u, 40u, 20000u}) {
            EXPECT_GE(hiveSetValue(*hive, key, value, 3, someBytes(random, length), 2), 0);
            value[0]++;
        }
    }
    for (size_t i = 0; i < 1100; i++) made(*hive, key, digits(i));
    return hive;
}

std::string sharedFile(const std::string& name) {
    const char* shared = getenv("QUILLET_SHARED");
    const std::string path = (shared != nullptr ? shared : QUILLET_SOURCE_DIR "/../shared") + ("/" + name);
    return std::filesystem::exists(path) ? path : "";
}

std::map<std::string, ByteVector> realHives(const std::string& folder) {
    std::map<std::string, ByteVector> hives;
    const std::string path = sharedFile("hives/" + folder);
    if (path.empty()) return hives;
    for (const auto& entry : std::filesystem::directory_iterator(path)) {
        FILE* pipe = popen(("xz -dc '" + entry.path().string() + "'").c_str(), "r");
        ByteVector& bytes = hives[entry.path().stem().string()];
        for (int byte; (byte = fgetc(pipe)) != EOF;) bytes.push_back(static_cast<uint8_t>(byte));
        pclose(pipe);
    }
    return hives;
}

} /* namespace offline::test */
