/* Broken, hostile and real hive files. */
#include <gtest/gtest.h>

#include <unistd.h>
#include <filesystem>
#include <fstream>

#include "platform/offline/hive/base_block.h"
#include "platform/offline/hive/format.h"
#include "tests/hive/check.h"

namespace offline::test {
namespace {

using namespace regf;

void seal(Bytes& file) {
    sealBaseBlock(std::span(file).first(base::size), 1, 1);
}

/* A hive image in which fields of cells can be set; the base block is kept in order. */
struct Forgery {
    Bytes file;

    std::span<uint8_t> cell(Cell at) { return std::span(file).subspan(pageSize + cellHeader + at); }
    template <class T>
    T field(Cell at, Field<T> which) {
        return get(std::span<const uint8_t>(cell(at)), which);
    }
    void place(Cell at, size_t offset, Cell what) { memcpy(cell(at).data() + offset, &what, sizeof what); }
    Cell placeAt(Cell at, size_t offset) { return load<Cell>(cell(at).data() + offset); }
};

struct Fault {
    const char* text; /* what the refusal must say */
    void (*forge)(Forgery& file, Cell key, Cell other);
};

const Fault faults[] = {
    {"names another place", [](Forgery& f, Cell, Cell) { f.file[pageSize + bin::place.at] = 8; }},
    {"the bin at 0x0 has an impossible", [](Forgery& f, Cell, Cell) { f.file[pageSize + bin::size.at] = 8; }},
    {"impossible size", [](Forgery& f, Cell k, Cell) { f.place(k, 0 - size_t{cellHeader}, 0xFF000000); }},
    {"impossible size", [](Forgery& f, Cell k, Cell) { f.place(k, 0 - size_t{cellHeader}, 0xFFFFFFF4); }},
    {"impossible size", [](Forgery& f, Cell k, Cell) { f.place(k, 0 - size_t{cellHeader}, 0x80000000); }},
    {"impossible size", [](Forgery& f, Cell k, Cell) { f.place(k, 0 - size_t{cellHeader}, 0); }},
    {"root key", [](Forgery& f, Cell, Cell) { f.file[base::root.at] ^= 8; }},
    {"not marked so", [](Forgery& f, Cell k, Cell) { set(f.cell(f.field(k, nk::parent)), nk::flags, 0x28); }},
    {"second root", [](Forgery& f, Cell k, Cell) { set(f.cell(k), nk::flags, HIVE_KEY_ROOT); }},
    {"does not fit", [](Forgery& f, Cell k, Cell) { set(f.cell(k), nk::nameLength, 200); }},
    {"within a character",
     [](Forgery& f, Cell k, Cell) {
         set(f.cell(k), nk::flags, 0);
         set(f.cell(k), nk::nameLength, 3);
     }},
    {"has no name", [](Forgery& f, Cell k, Cell) { set(f.cell(k), nk::nameLength, 0); }},
    {"backslash", [](Forgery& f, Cell k, Cell) { f.cell(k)[nk::name] = '\\'; }},
    {"out of order", [](Forgery& f, Cell k, Cell) { f.cell(k)[nk::name] = 'A'; }},
    {"there twice", /* in other letters, with its hash */
     [](Forgery& f, Cell k, Cell) {
         const Cell list = f.field(f.field(k, nk::parent), nk::subkeyList);
         memcpy(f.cell(k).data() + nk::name, "MANY", 4);
         f.place(list, list::entries + 12, f.placeAt(list, list::entries + 20));
     }},
    {"wrong hash", [](Forgery& f, Cell k, Cell) { f.cell(k)[nk::name + 1] = 'a'; }},
    {"another parent", [](Forgery& f, Cell k, Cell o) { set(f.cell(k), nk::parent, o); }},
    {"is used twice",
     [](Forgery& f, Cell k, Cell o) { set(f.cell(k), nk::valueList, f.field(o, nk::valueList)); }},
    {"is used twice",
     [](Forgery& f, Cell k, Cell) {
         f.place(f.field(k, nk::valueList), 4, f.placeAt(f.field(k, nk::valueList), 0));
     }},
    {"value list", [](Forgery& f, Cell k, Cell) { set(f.cell(k), nk::valueCount, 0x40000001); }},
    {"no allocated cell", [](Forgery& f, Cell k, Cell) { set(f.cell(k), nk::valueList, 0x7FFFFFF8); }},
    {"no allocated cell", [](Forgery& f, Cell k, Cell) { set(f.cell(k), nk::classCell, k + 8); }},
    {"does not fit", [](Forgery& f, Cell k, Cell) { set(f.cell(k), nk::classLength, 0xFFFF); }},
    {"no security descriptor", [](Forgery& f, Cell k, Cell o) { set(f.cell(k), nk::descriptor, o); }},
    {"breaks the ring",
     [](Forgery& f, Cell k, Cell) { set(f.cell(f.field(k, nk::descriptor)), sk::previous, 0x20); }},
    {"does not fit",
     [](Forgery& f, Cell k, Cell) { set(f.cell(f.field(k, nk::descriptor)), sk::length, 0xFFFFFFF0); }},
    {"number of subkeys",
     [](Forgery& f, Cell k, Cell) { set(f.cell(f.field(k, nk::parent)), nk::subkeyCount, 9); }},
    {"is used twice", /* a cycle: a child's list is its parent's */
     [](Forgery& f, Cell k, Cell) {
         set(f.cell(k), nk::subkeyCount, 5);
         set(f.cell(k), nk::subkeyList, f.field(f.field(k, nk::parent), nk::subkeyList));
     }},
    {"does not fit",
     [](Forgery& f, Cell k, Cell) {
         set(f.cell(f.field(f.field(k, nk::parent), nk::subkeyList)), list::count, 0xFFFF);
     }},
    {"is empty", [](Forgery& f, Cell k,
                    Cell) { set(f.cell(f.field(f.field(k, nk::parent), nk::subkeyList)), list::count, 0); }},
    {"is none",
     [](Forgery& f, Cell k, Cell) { f.cell(f.field(f.field(k, nk::parent), nk::subkeyList))[0] = 'x'; }},
    {"impossible length",
     [](Forgery& f, Cell k, Cell) {
         set(f.cell(f.placeAt(f.field(k, nk::valueList), 0)), vk::dataSize, 0x80000005);
     }},
    {"is none", [](Forgery& f, Cell k,
                   Cell) { set(f.cell(f.placeAt(f.field(k, nk::valueList), 2 * 4)), vk::dataSize, 20000); }},
    {"number of segments",
     [](Forgery& f, Cell k, Cell) {
         set(f.cell(f.placeAt(f.field(k, nk::valueList), 3 * 4)), vk::dataSize, 0x7FFFFFFF);
     }},
};

TEST(Broken, EachFaultIsRefusedWithItsText) {
    const HivePtr hive = variedHive(5);
    Cell key = noCell;
    Cell other = noCell;
    ASSERT_EQ(hiveSubkey(*hive, hiveRoot(*hive), 1, key), STATUS_SUCCESS);   /* beta */
    ASSERT_EQ(hiveSubkey(*hive, hiveRoot(*hive), 2, other), STATUS_SUCCESS); /* many */
    for (const Fault& fault : faults) {
        Forgery forged{hiveImage(*hive)};
        fault.forge(forged, key, other);
        seal(forged.file);
        HivePtr none;
        Problem problem;
        EXPECT_EQ(hiveOpen(forged.file, none, problem), STATUS_REGISTRY_CORRUPT) << fault.text;
        EXPECT_EQ(none, nullptr);
        EXPECT_NE(problem.text.find(fault.text), std::string::npos) << fault.text << " / " << problem.text;
    }
}

TEST(Broken, TooDeepAChainIsRefused) {
    const HivePtr hive = newHive(5);
    Cell ends[2] = {noCell, noCell};
    Cell second = noCell;
    for (const size_t chain : {size_t{0}, size_t{1}}) {
        Cell key = hiveRoot(*hive);
        for (size_t depth = 0; depth < 257; depth++) {
            const std::u16string name(1, static_cast<char16_t>(u'a' + chain));
            ASSERT_EQ(hiveCreateSubkey(*hive, key, name, {}, someDescriptor(1), 0, 1, key), STATUS_SUCCESS);
            if (depth == 0) second = key;
        }
        ends[chain] = key;
    }
    /* What hangs below the head of the second chain is hung below the end of the first. */
    Forgery forged{hiveImage(*hive)};
    const Cell list = forged.field(second, nk::subkeyList);
    set(forged.cell(second), nk::subkeyCount, 0);
    set(forged.cell(ends[0]), nk::subkeyCount, 1);
    set(forged.cell(ends[0]), nk::subkeyList, list);
    set(forged.cell(forged.placeAt(list, list::entries)), nk::parent, ends[0]);
    HivePtr deep;
    Problem problem;
    EXPECT_EQ(hiveOpen(forged.file, deep, problem), STATUS_REGISTRY_CORRUPT);
    EXPECT_NE(problem.text.find("lies too deep"), std::string::npos) << problem.text;
}

TEST(Broken, BaseBlockTellsWhatAFileIs) {
    const Bytes image = hiveImage(*variedHive(4));
    const auto opening = [&](auto change, bool sealed) {
        Bytes file(image);
        change(file);
        if (sealed && file.size() >= base::size) seal(file);
        HivePtr hive;
        Problem problem;
        const NTSTATUS status = hiveOpen(file, hive, problem);
        EXPECT_EQ(problem.status, status);
        return status;
    };
    EXPECT_EQ(opening([](Bytes&) {}, true), STATUS_SUCCESS);
    EXPECT_EQ(opening([](Bytes& f) { f.clear(); }, true), STATUS_NOT_REGISTRY_FILE);
    EXPECT_EQ(opening([](Bytes& f) { f.resize(4095); }, true), STATUS_NOT_REGISTRY_FILE);
    EXPECT_EQ(opening([](Bytes& f) { f[0] = 'R'; }, true), STATUS_NOT_REGISTRY_FILE);
    EXPECT_EQ(opening([](Bytes& f) { f[base::minor.at] = 2; }, true), STATUS_NOT_REGISTRY_FILE);
    EXPECT_EQ(opening([](Bytes& f) { f[base::type.at] = 6; }, true), STATUS_NOT_REGISTRY_FILE);
    EXPECT_EQ(opening([](Bytes& f) { f.resize(4096); }, true), STATUS_REGISTRY_CORRUPT);
    EXPECT_EQ(opening([](Bytes& f) { f.resize(f.size() - 1); }, true), STATUS_REGISTRY_CORRUPT);
    EXPECT_EQ(opening([](Bytes& f) { set(f, base::binsSize, 0xFFFFF000); }, true), STATUS_REGISTRY_CORRUPT);
    EXPECT_EQ(opening([](Bytes& f) { f[base::checksum.at]++; }, false), STATUS_REGISTRY_IO_FAILED);
    EXPECT_EQ(opening([](Bytes& f) { f[base::binsSize.at] = 1; }, false), STATUS_REGISTRY_CORRUPT);
    EXPECT_EQ(opening([](Bytes& f) { sealBaseBlock(std::span(f).first(4096), 2, 1); }, false),
              STATUS_REGISTRY_IO_FAILED);
    EXPECT_EQ(opening([](Bytes& f) { f.resize(f.size() + 12345, 0xCD); }, true), STATUS_SUCCESS);

    /* The two sums that no checksum may have. */
    Bytes block(base::size);
    sealBaseBlock(block, 5, 5);
    EXPECT_EQ(get(std::span<const uint8_t>(block), base::checksum), 1u);
    sealBaseBlock(block, 0xFFFFFFFF, 0);
    EXPECT_EQ(get(std::span<const uint8_t>(block), base::checksum), 0xFFFFFFFEu);
}

TEST(Broken, CountsOfDescriptorsAreTakenAnew) {
    HivePtr hive = variedHive(5);
    Cell key = noCell;
    ASSERT_EQ(hiveSubkey(*hive, hiveRoot(*hive), 1, key), STATUS_SUCCESS);
    Forgery forged{hiveImage(*hive)};
    set(forged.cell(forged.field(key, nk::descriptor)), sk::users, 1);
    hive = opened(forged.file);
    EXPECT_FALSE(hiveChanged(*hive));
    ASSERT_EQ(hiveSetKeyDescriptor(*hive, key, someDescriptor(77), 1), STATUS_SUCCESS);
    EXPECT_EQ(faultOf(hiveImage(*hive)), "");
}

/* Flips some bytes, in cells' heads and fields rather than anywhere, and sees that what opens stays sound. */
void mutate(const Bytes& image, uint32_t seed, size_t rounds) {
    std::mt19937 random(seed);
    const size_t end =
        std::min(image.size(), size_t{base::size} + get(std::span<const uint8_t>(image), base::binsSize));
    for (size_t round = 0; round < rounds; round++) {
        Bytes file(image);
        for (size_t flips = 1 + random() % 3; flips > 0; flips--) {
            const size_t at =
                random() % 8 == 0 ? random() % base::size : base::size + random() % (end - base::size);
            const uint8_t values[] = {0, 1, 0xFF, 0x7F, 0x80, static_cast<uint8_t>(random()), file[at ^ 8]};
            file[at] = values[random() % std::size(values)];
        }
        if (random() % 10 != 0) seal(file);
        ASSERT_TRUE(exercise(file)) << "seed " << seed << ", round " << round;
    }
}

TEST(Broken, MutatedHivesDoNoHarm) {
    for (const uint32_t minor : {3u, 5u}) {
        HivePtr hive = newHive(minor);
        std::mt19937 random(minor);
        Cell key = hiveRoot(*hive);
        for (uint32_t i = 0; i < 40; i++) {
            Cell child = noCell;
            const char16_t letter = static_cast<char16_t>(i % 2 != 0 ? u'a' + i : u'ж' + i);
            hiveCreateSubkey(*hive, key, {&letter, 1}, someBytes(random, i % 3), someDescriptor(i % 4), 0, 1,
                             child);
            hiveSetValue(*hive, child, {&letter, 1}, i, someBytes(random, i == 5 ? 20000 : i % 9), 1);
            if (i % 7 == 3) key = child;
        }
        mutate(hiveImage(*hive), minor, 900);
    }
    for (const auto& [name, image] : realHives("clean")) {
        if (image.size() <= 300000) mutate(image, 1, 30);
    }
}

/* ---- Real hives ---- */

TEST(Real, SoundHivesOpenAndStaySoundAndOthersAreRefused) {
    struct Folder {
        const char* name;
        std::map<std::string, NTSTATUS> expected; /* of the hives that differ from the rest */
        NTSTATUS rest;
    };
    const Folder folders[] = {
        {"clean", {{"EffectiveSizeHive", STATUS_REGISTRY_IO_FAILED}}, STATUS_SUCCESS},
        {"machine", {{"SECURITY", STATUS_REGISTRY_IO_FAILED}}, STATUS_SUCCESS},
        /* Odd but possible names, names twice only in free cells, accounts twice only in what the values
           mean. */
        {"broken",
         {{"BogusKeyNamesHive", STATUS_SUCCESS},
          {"DupNameHive", STATUS_SUCCESS},
          {"SAM_DUPENAME", STATUS_SUCCESS},
          {"TruncatedPairHive", STATUS_SUCCESS},
          {"SAM-bad-checksum", STATUS_REGISTRY_IO_FAILED}},
         STATUS_REGISTRY_CORRUPT},
        {"dirty", {}, STATUS_REGISTRY_IO_FAILED},
    };
    if (sharedFile("hives").empty()) GTEST_SKIP() << "the shared hives are not here";
    for (const Folder& folder : folders) {
        for (const auto& [name, image] : realHives(folder.name)) {
            if (name.find(".LOG") != std::string::npos || name.find(".log") != std::string::npos) continue;
            HivePtr hive;
            Problem problem;
            const NTSTATUS status = hiveOpen(image, hive, problem);
            const auto other = folder.expected.find(name);
            EXPECT_EQ(status, other != folder.expected.end() ? other->second : folder.rest)
                << name << problem.text;
            EXPECT_EQ(problem.text.empty(), status >= 0);
            if (status < 0) continue;
            EXPECT_EQ(hiveImage(*hive), image) << name;
            EXPECT_TRUE(exercise(image)) << name;
        }
    }
}

/* Rewrites the descriptor of every key and the data of many values, and makes and deletes keys. */
void rework(Hive& hive, std::mt19937& random) {
    std::vector<Cell> keys{hiveRoot(hive)};
    Cell child = noCell;
    for (size_t i = 0; i < keys.size(); i++) {
        for (uint32_t at = 0; hiveSubkey(hive, keys[i], at, child) >= 0; at++) keys.push_back(child);
        Bytes descriptor(hiveKeyDescriptor(hive, keys[i]).begin(), hiveKeyDescriptor(hive, keys[i]).end());
        descriptor.back() ^= 0x55;
        ASSERT_EQ(hiveSetKeyDescriptor(hive, keys[i], descriptor, 1), STATUS_SUCCESS);
        HiveValue value{};
        for (uint32_t at = 0; hiveValue(hive, keys[i], at, value) >= 0; at += 3) {
            std::u16string name(value.nameLength, u'\0');
            hiveValueName(hive, value, name.data());
            const Bytes data = someBytes(random, random() % 4 == 0 ? random() % 300 : value.dataLength);
            ASSERT_EQ(hiveSetValue(hive, keys[i], name, value.type, data, 1), STATUS_SUCCESS);
        }
    }
    for (size_t i = 0; i < keys.size(); i += 5) {
        const NTSTATUS made = hiveCreateSubkey(hive, keys[i], u"Übung", {}, someDescriptor(3), 0, 2, child);
        ASSERT_EQ(made, STATUS_SUCCESS);
    }
    for (size_t i = keys.size(); i > 0; i -= std::min<size_t>(i, 3)) hiveDeleteKey(hive, keys[i - 1], 3);
}

TEST(Real, IndependentCheckerFindsReworkedHivesSound) {
    const std::string checker = sharedFile("tools/hivecheck");
    if (checker.empty()) GTEST_SKIP() << "the independent checker is not here";
    std::mt19937 random(1);
    std::map<std::string, Bytes> images;
    for (const char* folder : {"clean", "machine"}) {
        for (const auto& [name, image] : realHives(folder)) {
            HivePtr hive;
            Problem problem;
            if (image.size() > 3000000 || hiveOpen(image, hive, problem) < 0) continue;
            rework(*hive, random);
            images[std::string(folder) + "-" + name] = hiveImage(*hive);
        }
    }
    for (const uint32_t minor : {3u, 4u, 5u, 6u})
        images["varied-" + std::to_string(minor)] = hiveImage(*variedHive(minor));
    const auto folder = std::filesystem::path(testing::TempDir()) / ("hives-" + std::to_string(getpid()));
    std::filesystem::create_directories(folder);
    for (const auto& [name, image] : images) {
        EXPECT_EQ(faultOf(image), "") << name;
        std::ofstream(folder / name, std::ios::binary)
            .write(reinterpret_cast<const char*>(image.data()), static_cast<std::streamsize>(image.size()));
    }
    EXPECT_EQ(system(("python3 '" + checker + "' " + folder.string() + "/* | grep -v ' sound$'").c_str()),
              256)
        << "a line without \"sound\" is a hive that is not";
    std::filesystem::remove_all(folder);
}

} /* namespace */
} /* namespace offline::test */
