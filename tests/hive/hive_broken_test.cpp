/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Broken, hostile and real hive files. */
#include "platform/offline/hive/base_block.h"
#include "platform/offline/hive/format.h"
#include "tests/hive/model.h"

namespace offline::test {
namespace {

using namespace regf;

/* A field of a cell that gets another number. */
struct Put {
    size_t at, size;
    uint64_t number;
    template <class T>
    Put(size_t cell, Field<T> field, uint64_t to)
        : at(pageSize + cellHeader + cell + field.at), size(sizeof(T)), number(to) {}
};
constexpr size_t firstBin = size_t{0} - cellHeader,
                 fileStart = firstBin - pageSize; /* as if they were cells */
constexpr Field<uint32_t> head{firstBin}, nameStart{nk::name};

Field<uint32_t> entry(size_t index, size_t from = 0) {
    return {from + index * 4};
}
uint32_t field(const ByteVector& file, Cell cell, Field<uint32_t> which) {
    return numberAt<uint32_t>(file, pageSize + cellHeader + cell + which.at);
}
Cell childAt(const Hive& hive, uint32_t index) {
    Cell child = noCell;
    EXPECT_GE(hiveSubkey(hive, hiveRoot(hive), index, child), 0);
    return child;
}
ByteVector with(ByteVector file, const std::vector<Put>& puts) {
    for (const Put& put : puts) putNumber(file, put.at, put.number, put.size);
    seal(file);
    return file;
}

void expectRefused(const ByteVector& file, const char* text) {
    HivePtr hive;
    Problem problem;
    EXPECT_TRUE(hiveOpen(file, hive, problem) == STATUS_REGISTRY_CORRUPT && hive == nullptr) << text;
    EXPECT_NE(problem.text.find(text), std::string::npos) << text << " / " << problem.text;
}

constexpr NTSTATUS sound = STATUS_SUCCESS, needsLogs = STATUS_REGISTRY_IO_FAILED,
                   broken = STATUS_REGISTRY_CORRUPT, none = STATUS_NOT_REGISTRY_FILE;

TEST(Broken, EachFaultIsRefusedWithItsText) {
    const HivePtr hive = variedHive(5);
    const std::u16string longest(longestValueName, u'я');
    ASSERT_GE(hiveSetValue(*hive, hiveRoot(*hive), longest, 1, {}, 1), 0);
    const ByteVector file = hiveImage(*hive);
    const Cell root = hiveRoot(*hive), alpha = childAt(*hive, 0), beta = childAt(*hive, 1);
    const Cell many = childAt(*hive, 2), index = field(file, many, nk::subkeyList);
    const Cell list = field(file, root, nk::subkeyList), values = field(file, beta, nk::valueList);
    const Cell inlined = field(file, values, entry(1)), plain = field(file, values, entry(2));
    const Cell big = field(file, values, entry(3)), descriptor = field(file, beta, nk::descriptor);
    const Cell longName = field(file, field(file, root, nk::valueList), entry(0));
    const Cell segments = field(file, field(file, big, vk::data), db::list);
    const std::pair<const char*, std::vector<Put>> faults[] = {
        // clang-format off
        {"names another place", {{firstBin, bin::offset, 8}}},
        {"the bin at 0x0 has an impossible", {{firstBin, bin::size, 8}}},
        {"impossible size", {{beta, head, 0xFF000000}}},
        {"impossible size", {{beta, head, 0xFFFFF008}}}, /* just beyond its bin */
        {"impossible size", {{beta, head, 0xFFFFFFF4}}},
        {"impossible size", {{beta, head, 0x80000000}}},
        {"impossible size", {{beta, head, 0}}},
        {"root key", {{fileStart, base::root, root ^ 8}}},
        {"not marked so", {{root, nk::flags, 0x28}}},
        {"second root", {{beta, nk::flags, HIVE_KEY_ROOT}}},
        {"does not fit", {{beta, nk::nameLength, 200}}},
        {"within a character", {{alpha, nk::flags, 0}}},
        {"has no name", {{beta, nk::nameLength, 0}}},
        {"backslash", {{beta, nameStart, '\\'}}},
        {"out of order", {{beta, nameStart, 'A'}}},
        {"out of order", {{index, entry(0, 4), field(file, index, entry(1, 4))}, {index, entry(1, 4), field(file, index, entry(0, 4))}}},
        /* in other letters, with its hash */
        {"there twice", {{beta, nameStart, 0x594E414D}, {list, entry(3, 4), field(file, list, entry(5, 4))}}},
        {"wrong hash", {{beta, nameStart, 0x63746562}}},
        {"another parent", {{beta, nk::parent, alpha}}},
        {"is used twice", {{beta, nk::valueList, field(file, many, nk::valueList)}}},
        {"is used twice", {{values, entry(1), field(file, values, entry(0))}}},
        {"is used twice", {{segments, entry(1), field(file, segments, entry(0))}}},
        {"value list", {{beta, nk::valueCount, 0x40000001}}},
        {"no allocated cell", {{beta, nk::valueList, 0x7FFFFFF8}}},
        {"no allocated cell", {{beta, nk::classCell, beta + 8}}},
        {"does not fit", {{beta, nk::classLength, 0xFFFF}}},
        {"no security descriptor", {{beta, nk::descriptor, many}}},
        {"breaks the ring", {{descriptor, sk::previous, 0x20}}},
        {"does not fit", {{descriptor, sk::length, 0xFFFFFFF0}}},
        {"number of subkeys", {{root, nk::subkeyCount, 9}}},
        /* a cycle: a child's list is its parent's */
        {"is used twice", {{beta, nk::subkeyCount, 5}, {beta, nk::subkeyList, list}}},
        {"does not fit", {{list, list::count, 0xFFFF}}},
        {"does not fit", {{index, list::count, 0xFFFF}}},
        {"is empty", {{list, list::count, 0}}},
        {"is none", {{list, list::signature, 'x'}}},
        {"is none", {{field(file, index, entry(0, 4)), list::signature, list::ri}}},
        {"ends within a character", {{plain, vk::nameLength, 3}}},
        {"name of the value", {{plain, vk::nameLength, 200}}},
        {"is too long", {{longName, vk::flags, vk::compressedName}}},
        {"impossible length", {{inlined, vk::dataSize, 0x80000005}}},
        {"is none", {{plain, vk::dataSize, 20000}}},
        {"does not fit", {{plain, vk::dataSize, 16000}}},
        {"number of segments", {{big, vk::dataSize, 0x7FFFFFFF}}},
        // clang-format on
    };
    for (const auto& [text, puts] : faults) expectRefused(with(file, puts), text);

    /* A wrong count of a descriptor's keys is taken anew. */
    const HivePtr miscounted = opened(with(file, {{descriptor, sk::refcount, 1}}));
    EXPECT_FALSE(hiveChanged(*miscounted));
    ASSERT_GE(hiveSetKeyDescriptor(*miscounted, beta, someDescriptor(77), 1), 0);
    EXPECT_EQ(faultOf(hiveImage(*miscounted)), "");

    /* A predefined handle in place of a count: there are no values, and none can be set. */
    const HivePtr predefined =
        opened(with(file, {{beta, nk::flags, 0x60}, {beta, nk::valueCount, 0x80000002}}));
    EXPECT_TRUE(valuesOf(*predefined, beta).empty());
    EXPECT_EQ(hiveSetValue(*predefined, beta, u"x", 1, {}, 1), STATUS_INVALID_PARAMETER);
}

TEST(Broken, TooDeepAChainIsRefused) {
    const HivePtr hive = newHive(5);
    Cell end = hiveRoot(*hive), child = noCell;
    for (uint32_t depth = 0; depth < deepestKey; depth++) end = made(*hive, end, u"k");
    EXPECT_EQ(hiveCreateSubkey(*hive, end, u"k", {}, ByteVector(20), 0, 7, child), STATUS_INVALID_PARAMETER);
    EXPECT_NE(opened(hiveImage(*hive)), nullptr);

    /* What hangs below another key is hung below the end of the chain. */
    const Cell other = made(*hive, hiveRoot(*hive), u"other");
    child = made(*hive, other, u"child");
    const ByteVector file = hiveImage(*hive);
    const Put list(end, nk::subkeyList, field(file, other, nk::subkeyList)), zero(other, nk::subkeyCount, 0);
    expectRefused(with(file, {zero, list, {end, nk::subkeyCount, 1}, {child, nk::parent, end}}), "too deep");
}

TEST(Broken, BaseBlockTellsWhatAFileIs) {
    const ByteVector image = hiveImage(*variedHive(4));
    const size_t size = image.size();
    const auto sized = [&](size_t length) {
        ByteVector file(image);
        file.resize(length, 0xCD);
        return file;
    };
    const auto forged = [&](auto field, uint64_t number) {
        return with(image, {{fileStart, field, number}});
    };
    ByteVector lostSum = image, lostAll = image;
    lostSum[base::fileName] ^= 1;
    lostAll[base::binsSize.at] ^= 1;
    const std::pair<NTSTATUS, ByteVector> rows[] = {
        // clang-format off
        {sound, image}, {sound, sized(size + 12345)},
        {none, {}}, {none, sized(4095)}, {none, forged(base::signature, 'R')},
        {none, forged(base::minor, 2)}, {none, forged(base::type, 6)},
        {broken, sized(4096)}, {broken, sized(size - 1)}, {broken, forged(base::binsSize, 0xFFFFF000)},
        {broken, forged(base::format, 2)}, {broken, lostAll},
        {needsLogs, lostSum}, {needsLogs, forged(base::secondarySequence, 99)},
        // clang-format on
    };
    for (const auto& [status, file] : rows) {
        HivePtr hive;
        Problem problem;
        EXPECT_EQ(hiveOpen(file, hive, problem), status) << problem.text;
    }

    /* Of the file's name as much as there is room for, from its end. */
    const std::u16string name = u"Test\\a name longer than the field", kept = name.substr(name.size() - 31);
    EXPECT_EQ(memcmp(&image[base::fileName], kept.c_str(), base::fileNameSize), 0);

    /* The two sums that no checksum may have. */
    ByteVector block(base::size);
    sealBaseBlock(block, 5, 5);
    EXPECT_EQ(numberAt<uint32_t>(block, base::checksum.at), 1u);
    sealBaseBlock(block, 0xFFFFFFFF, 0);
    EXPECT_EQ(numberAt<uint32_t>(block, base::checksum.at), 0xFFFFFFFEu);
}

/* A base block may name fewer bins than there are: they count when the hive is whole with them and only then.
 */
TEST(Broken, BinsAfterTheStatedEnd) {
    const ByteVector whole = hiveImage(*variedHive(5));
    const uint32_t size = numberAt<uint32_t>(whole, base::binsSize.at);
    size_t last = 0;
    for (size_t bin = 0; bin < size; bin += numberAt<uint32_t>(whole, pageSize + bin + bin::size.at))
        last = bin;
    for (const size_t stated : {pageSize, size / 2 & ~size_t{0xFFF}, last}) {
        const ByteVector file = with(whole, {{fileStart, base::binsSize, stated}});
        EXPECT_EQ(hiveImage(*opened(file)), whole) << stated;
        EXPECT_TRUE(exercise(file, 30));
        /* One that does not follow on the others brings nothing. */
        for (const auto field : {bin::signature, bin::offset, bin::size})
            expectRefused(with(file, {{firstBin + last, field, 0x40001000}}), "is damaged");
    }

    /* The same bins after a hive that is whole without them, and after one that is broken all the same. */
    const HivePtr small = newHive(5);
    ByteVector file = hiveImage(*small);
    file.insert(file.end(), whole.begin() + static_cast<long>(file.size()), whole.end());
    EXPECT_EQ(hiveImage(*opened(file)), file);
    EXPECT_EQ(contentOf(*opened(file)), contentOf(*small));
    expectRefused(with(file, {{hiveRoot(*small), nk::nameLength, 9999}}), "name of the key");
}

/* Flips some bytes, in cells' heads and fields rather than anywhere, and sees that what opens stays sound. */
void mutate(const ByteVector& image, uint32_t seed, size_t rounds) {
    std::mt19937 random(seed);
    const size_t size =
        std::min(image.size() - base::size, size_t{numberAt<uint32_t>(image, base::binsSize.at)});
    for (size_t round = 0; round < rounds; round++) {
        ByteVector file(image);
        for (size_t flips = 1 + random() % 3; flips > 0; flips--) {
            const size_t at = random() % 8 == 0 ? random() % base::size : base::size + random() % size;
            const uint8_t values[] = {0, 1, 0xFF, 0x7F, 0x80, static_cast<uint8_t>(random()), file[at ^ 8]};
            file[at] = values[random() % std::size(values)];
        }
        if (random() % 10 != 0) seal(file);
        ASSERT_TRUE(exercise(file, 12)) << "seed " << seed << ", round " << round;
    }
}

TEST(Broken, MutatedHivesDoNoHarm) {
    for (const uint32_t minor : {3u, 5u}) {
        HivePtr hive = newHive(minor);
        Cell key = hiveRoot(*hive);
        for (uint32_t i = 0; i < 40; i++) {
            const std::u16string name(1, static_cast<char16_t>(i % 2 != 0 ? u'a' + i : u'ж' + i));
            const Cell child = made(*hive, key, name, i % 4);
            EXPECT_GE(hiveSetValue(*hive, child, name, i, ByteVector(i == 5 ? 20000 : i % 9, 0x5A), 1), 0);
            if (i % 7 == 3) key = child;
        }
        mutate(hiveImage(*hive), minor, 400);
    }
}

TEST(Real, SoundHivesOpenAndStaySoundAndOthersAreRefused) {
    if (sharedFile("hives").empty()) GTEST_SKIP() << "the shared hives are not here";
    /* Whole folders, and those that differ from their folder: odd but possible names, names twice only in
       free cells, accounts twice only in what the values mean. */
    std::map<std::string, NTSTATUS> expected{
        // clang-format off
        {"clean", sound}, {"machine", sound}, {"broken", broken}, {"dirty", needsLogs},
        {"clean/EffectiveSizeHive", needsLogs}, {"machine/SECURITY", needsLogs}, {"broken/SAM-bad-checksum", needsLogs},
        {"broken/BogusKeyNamesHive", sound}, {"broken/DupNameHive", sound}, {"broken/SAM_DUPENAME", sound},
        {"broken/TruncatedPairHive", sound},
        // clang-format on
    };
    for (const std::string folder : {"clean", "machine", "broken", "dirty"}) {
        for (const auto& [name, image] : realHives(folder)) {
            if (name.find(".LOG") != std::string::npos || name.find(".log") != std::string::npos) continue;
            HivePtr hive;
            Problem problem;
            const std::string path = folder + "/" + name;
            const NTSTATUS status = expected[expected.contains(path) ? path : folder];
            EXPECT_EQ(hiveOpen(image, hive, problem), status) << path << problem.text;
            EXPECT_EQ(problem.text.empty(), status == sound);
            if (hive == nullptr) continue;
            ByteVector changed;
            EXPECT_EQ(hiveImage(*hive), image) << path;
            if (image.size() > 3000000) continue;
            EXPECT_TRUE(exercise(image, 100, &changed)) << path;
            EXPECT_EQ(expected[folder] == sound ? faultOf(changed) : "", "") << path;
        }
    }
}

} /* namespace */
} /* namespace offline::test */
