#include "tests/hive/check.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <stdexcept>

#include "platform/offline/base/text.h"

namespace offline::test {
namespace {

/* Reads a file by the published layout; every wrong place ends in an exception. */
struct Reader {
    const Bytes& file;
    std::set<uint32_t> used;
    std::map<uint32_t, uint32_t> users;

    uint32_t number(size_t at, size_t size) const {
        if (at > file.size() - size) throw std::runtime_error("a place behind the file");
        uint32_t value = 0;
        for (size_t i = 0; i < size; i++) value |= uint32_t{file[at + i]} << (8 * i);
        return value;
    }
    uint32_t u16(size_t at) const { return number(at, 2); }
    uint32_t u32(size_t at) const { return number(at, 4); }

    void fail(const char* what, uint32_t cell) const {
        throw std::runtime_error(std::string(what) + " at " + std::to_string(cell));
    }
    size_t room(uint32_t cell) const {
        return static_cast<size_t>(-static_cast<int32_t>(u32(4096 + cell))) - 4;
    }
    /* The file offset of a cell's data, the cell counted as used once. */
    size_t use(uint32_t cell, size_t length) {
        if (cell % 8 != 0 || static_cast<int32_t>(u32(4096 + size_t{cell})) >= 0) fail("no cell", cell);
        if (room(cell) < length) fail("short cell", cell);
        if (!used.insert(cell).second) fail("cell used twice", cell);
        return 4100 + size_t{cell};
    }
    std::u16string name(size_t at, size_t length, bool latin) const {
        std::u16string text;
        for (size_t i = 0; i < length; i += latin ? 1 : 2)
            text += static_cast<char16_t>(number(at + i, latin ? 1 : 2));
        return text;
    }

    void value(uint32_t cell, uint32_t longestName, uint32_t longestData) {
        const size_t at = use(cell, 20);
        if (u16(at) != 0x6B76 || room(cell) < 20 + u16(at + 2)) fail("value", cell);
        const std::u16string text = name(at + 20, u16(at + 2), (u16(at + 16) & 1) != 0);
        const bool wide = std::any_of(text.begin(), text.end(), [](char16_t unit) { return unit > 0xFF; });
        if (!text.empty() && wide == ((u16(at + 16) & 1) != 0)) fail("form of the name", cell);
        const uint32_t size = u32(at + 4);
        if (2 * text.size() > longestName || (size & 0x7FFFFFFF) > longestData) fail("longest fields", cell);
        if ((size & 0x80000000) != 0 || size == 0) return;
        if (size <= 16344 || u32(24) == 3) {
            use(u32(at + 8), size);
            return;
        }
        const size_t big = use(u32(at + 8), 12);
        const uint32_t count = (size + 16343) / 16344;
        if (u16(big) != 0x6264 || u16(big + 2) != count) fail("big data", cell);
        const size_t list = use(u32(big + 4), 4 * count);
        for (uint32_t i = 0; i < count; i++) {
            use(u32(list + 4 * i), 16344);
            if (room(u32(list + 4 * i)) != 16348) fail("segment", u32(list + 4 * i));
        }
    }

    std::vector<std::pair<uint32_t, uint32_t>> leaf(uint32_t cell,
                                                    uint32_t kindAbove) { /* children and hints */
        const size_t at = use(cell, 4);
        const uint32_t kind = u16(at);
        const uint32_t count = u16(at + 2);
        const uint32_t width = kind == 0x666C || kind == 0x686C ? 8 : 4;
        if (count == 0 || room(cell) < 4 + count * width) fail("list", cell);
        std::vector<std::pair<uint32_t, uint32_t>> children;
        for (uint32_t i = 0; i < count; i++) {
            const uint32_t child = u32(at + 4 + i * width);
            if (kind == 0x6972) {
                if (kindAbove != 0) fail("ri below ri", cell);
                const auto below = leaf(child, kind);
                children.insert(children.end(), below.begin(), below.end());
            } else {
                children.emplace_back(child, kind == 0x686C ? u32(at + 8 + i * width) : 0);
            }
        }
        if (kind != 0x6972 && kind != 0x696C && kind != (u32(24) > 4 ? 0x686C : 0x666C))
            fail("form of list", cell);
        return children;
    }

    std::u16string key(uint32_t cell, uint32_t parent) {
        const size_t at = use(cell, 76);
        if (u16(at) != 0x6B6E || room(cell) < 76 + u16(at + 72)) fail("key", cell);
        if (parent != noCell && u32(at + 16) != parent) fail("parent", cell);
        if (u16(at + 74) != 0) use(u32(at + 48), u16(at + 74));
        users[u32(at + 44)]++;
        if (u32(at + 36) != 0) {
            const size_t list = use(u32(at + 40), 4 * u32(at + 36));
            for (uint32_t i = 0; i < u32(at + 36); i++) value(u32(list + 4 * i), u32(at + 60), u32(at + 64));
        }
        if (u32(at + 20) != 0) {
            const auto children = leaf(u32(at + 28), 0);
            if (children.size() != u32(at + 20)) fail("number of subkeys", cell);
            std::u16string last;
            for (const auto& [child, hash] : children) {
                std::u16string text = key(child, cell);
                if (2 * text.size() > u16(at + 52)) fail("longest subkey name", cell);
                uint32_t sum = 0;
                for (char16_t& unit : text) sum = sum * 37 + (unit = upcase(unit));
                if (hash != 0 && hash != sum) fail("hash", child);
                if (text <= last) fail("order", child);
                last = text;
            }
        }
        return name(at + 76, u16(at + 72), (u16(at + 2) & 0x20) != 0);
    }

    void ring(uint32_t first) {
        std::set<std::string> seen;
        uint32_t cell = first;
        do {
            const size_t at = use(cell, 20);
            const uint32_t length = u32(at + 16);
            if (u16(at) != 0x6B73 || room(cell) < 20 + length) fail("descriptor", cell);
            if (u32(at + 12) != users[cell]) fail("count of descriptor", cell);
            if (!seen.insert(std::string(file.begin() + static_cast<long>(at) + 20,
                                         file.begin() + static_cast<long>(at + 20 + length)))
                     .second) {
                fail("descriptor stored twice", cell);
            }
            if (u32(4100 + u32(at + 4) + 8) != cell) fail("ring", cell);
            cell = u32(at + 4);
        } while (cell != first);
        for (const auto& [user, count] : users) {
            if (!used.contains(user)) fail("descriptor outside the ring", user);
        }
    }

    void cells() const {
        size_t lost = used.size();
        uint32_t bin = 0;
        for (; bin < u32(40); bin += u32(4096 + bin + 8)) {
            if (u32(4096 + bin) != 0x6E696268 || u32(4096 + bin + 4) != bin ||
                u32(4096 + bin + 8) % 4096 != 0) {
                fail("bin", bin);
            }
            bool free = false;
            uint32_t cell = bin + 32;
            while (cell < bin + u32(4096 + bin + 8)) {
                const int32_t size = static_cast<int32_t>(u32(4096 + cell));
                if (size == 0 || size % 8 != 0) fail("size", cell);
                if (size > 0 && free) fail("free cells side by side", cell);
                if (size < 0 && !used.contains(cell)) fail("lost cell", cell);
                lost -= size < 0 ? 1 : 0;
                free = size > 0;
                cell += static_cast<uint32_t>(std::abs(size));
            }
            if (cell != bin + u32(4096 + bin + 8)) fail("end of bin", bin);
        }
        if (bin != u32(40) || lost != 0) fail("end of bins", bin);
    }
};

} /* namespace */

std::string faultOf(const Bytes& file) {
    Reader reader{file, {}, {}};
    try {
        uint32_t sum = 0;
        for (size_t at = 0; at < 508; at += 4) sum ^= reader.u32(at);
        if (sum == 0 || sum == UINT32_MAX) sum ^= 1;
        if (reader.u32(508) != sum) return "checksum";
        if (reader.u32(4) != reader.u32(8)) return "sequence numbers";
        const uint32_t root = reader.u32(36);
        reader.key(root, noCell);
        reader.ring(reader.u32(4100 + root + 44));
        reader.cells();
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "";
}

Content contentOf(const Hive& hive, Cell key) {
    Content content;
    HiveKey info{};
    EXPECT_EQ(hiveKey(hive, key, info), STATUS_SUCCESS);
    content.flags = info.flags & (HIVE_KEY_LINK | HIVE_KEY_NO_DELETE);
    char16_t name[longestKeyName];
    content.name.assign(name, hiveKeyName(hive, key, name));
    const auto classText = hiveKeyClass(hive, key);
    content.classText.assign(classText.begin(), classText.end());
    const auto descriptor = hiveKeyDescriptor(hive, key);
    content.descriptor.assign(descriptor.begin(), descriptor.end());
    HiveValue value{};
    for (uint32_t i = 0; hiveValue(hive, key, i, value) >= 0; i++) {
        std::u16string text(value.nameLength, u'\0');
        hiveValueName(hive, value, text.data());
        Bytes data(value.dataLength);
        hiveValueData(hive, value, data);
        content.values.emplace_back(text, value.type, data);
    }
    EXPECT_EQ(content.values.size(), info.valueCount);
    Cell child = noCell;
    for (uint32_t i = 0; hiveSubkey(hive, key, i, child) >= 0; i++) {
        content.subkeys.push_back(contentOf(hive, child));
    }
    EXPECT_EQ(content.subkeys.size(), info.subkeyCount);
    return content;
}

Bytes someDescriptor(uint32_t seed) {
    std::mt19937 random(seed);
    return someBytes(random, 48 + seed % 7 * 16);
}

Bytes someBytes(std::mt19937& random, size_t length) {
    Bytes bytes(length);
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<uint8_t>(random()); });
    return bytes;
}

HivePtr newHive(uint32_t minor) {
    HivePtr hive;
    EXPECT_EQ(hiveCreate(minor, u"ROOT", u"\\SystemRoot\\Test\\a name longer than the field",
                         someDescriptor(0), hive),
              STATUS_SUCCESS);
    return hive;
}

HivePtr opened(const Bytes& file) {
    HivePtr hive;
    Problem problem;
    EXPECT_EQ(hiveOpen(file, hive, problem), STATUS_SUCCESS) << problem.text;
    return hive;
}

HivePtr variedHive(uint32_t minor) {
    HivePtr hive = newHive(minor);
    std::mt19937 random(minor);
    Cell key = noCell;
    for (const char16_t* name : {u"Alpha", u"beta", u"Ünder", u"Ключ", u"many"}) {
        EXPECT_EQ(hiveCreateSubkey(*hive, hiveRoot(*hive), name, someBytes(random, 6),
                                   someDescriptor(static_cast<uint32_t>(random() % 3)), 0, 1, key),
                  STATUS_SUCCESS);
        char16_t value[] = u"aж";
        for (const uint32_t length : {0u, 3u, 40u, 20000u}) {
            EXPECT_EQ(hiveSetValue(*hive, key, value, 3, someBytes(random, length), 2), STATUS_SUCCESS);
            value[0]++;
        }
    }
    HiveKey info{};
    hiveFindSubkey(*hive, hiveRoot(*hive), u"MANY", key);
    for (uint32_t i = 0; i < 1100; i++) {
        Cell child = noCell;
        const std::string digits = std::to_string(i);
        hiveCreateSubkey(*hive, key, std::u16string(digits.begin(), digits.end()), {}, someDescriptor(1), 0,
                         3, child);
    }
    EXPECT_EQ(hiveKey(*hive, key, info), STATUS_SUCCESS);
    EXPECT_EQ(info.subkeyCount, 1100u);
    return hive;
}

bool exercise(const Bytes& file) {
    HivePtr hive;
    Problem problem;
    if (hiveOpen(file, hive, problem) < 0) return !problem.text.empty();
    std::vector<Cell> keys{hiveRoot(*hive)};
    for (size_t i = 0; i < keys.size(); i++) {
        char16_t name[longestValueName];
        Cell child = noCell;
        for (uint32_t at = 0; hiveSubkey(*hive, keys[i], at, child) >= 0; at++) {
            Cell found = noCell;
            const size_t length = hiveKeyName(*hive, child, name);
            if (hiveFindSubkey(*hive, keys[i], {name, length}, found) < 0 || found != child) return false;
            keys.push_back(child);
        }
        HiveValue value{};
        for (uint32_t at = 0; hiveValue(*hive, keys[i], at, value) >= 0; at++) {
            hiveValueName(*hive, value, name);
            Bytes data(value.dataLength);
            hiveValueData(*hive, value, data);
            if (hiveFindValue(*hive, keys[i], {name, value.nameLength}, value) < 0) return false;
        }
        hiveKeyClass(*hive, keys[i]);
        if (hiveKeyDescriptor(*hive, keys[i]).empty()) return false;
    }
    const size_t step = 1 + keys.size() / 12; /* a hive of thousands of keys is changed in some of them */
    for (size_t i = 0; i < keys.size(); i += step) {
        HiveValue value{};
        Cell child = noCell;
        char16_t name[longestValueName];
        if (hiveValue(*hive, keys[i], 0, value) >= 0) {
            hiveValueName(*hive, value, name);
            hiveSetValue(*hive, keys[i], {name, value.nameLength}, 1, Bytes(i * 997 % 40000), 5);
            if (i % 2 == 0) hiveDeleteValue(*hive, keys[i], {name, value.nameLength}, 6);
        }
        hiveSetValue(*hive, keys[i], u"added", 4, Bytes(4 + i % 3), 7);
        hiveSetKeyDescriptor(*hive, keys[i], someDescriptor(static_cast<uint32_t>(i % 5)), 8);
        hiveCreateSubkey(*hive, keys[i], u"ADDED", {}, someDescriptor(9), 0, 9, child);
    }
    for (size_t i = keys.size(); i > 0; i -= std::min(i, step)) hiveDeleteKey(*hive, keys[i - 1], 10);
    HivePtr again;
    return hiveOpen(hiveImage(*hive), again, problem) >= 0;
}

std::string sharedFile(const std::string& name) {
    const char* shared = getenv("QUILLET_SHARED");
    const std::string path =
        std::string(shared != nullptr ? shared : QUILLET_SOURCE_DIR "/../shared") + "/" + name;
    return std::filesystem::exists(path) ? path : "";
}

std::map<std::string, Bytes> realHives(const std::string& folder) {
    std::map<std::string, Bytes> hives;
    const std::string path = sharedFile("hives/" + folder);
    if (path.empty()) return hives;
    for (const auto& entry : std::filesystem::directory_iterator(path)) {
        FILE* pipe = popen(("xz -dc '" + entry.path().string() + "'").c_str(), "r");
        if (pipe == nullptr) continue;
        Bytes& bytes = hives[entry.path().stem().string()];
        uint8_t buffer[65536];
        for (size_t got = 0; (got = fread(buffer, 1, sizeof buffer, pipe)) != 0;) {
            bytes.insert(bytes.end(), buffer, buffer + got);
        }
        pclose(pipe);
    }
    return hives;
}

} /* namespace offline::test */
