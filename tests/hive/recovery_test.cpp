/* Dirty hives and their log files: real ones, some of them next to what the platform itself made of them, and
 * logs that are forged with right hashes. */
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstring>

#include "tests/hive/check.h"

namespace offline::test {
namespace {

struct Dirty {
    Bytes hive;
    HiveLogs logs;
};

NTSTATUS openDirty(const Dirty& dirty, HivePtr& hive) {
    Problem problem;
    const NTSTATUS status = hiveOpen(dirty.hive, dirty.logs, hive, problem);
    EXPECT_EQ(status < 0, !problem.text.empty());
    return status;
}

size_t keysOf(const Content& content) {
    size_t count = 1;
    for (const Content& child : content.subkeys) count += keysOf(child);
    return count;
}

/* The number of keys of a hive that its logs make whole; 0 when they don't. */
size_t recoveredKeys(const Dirty& dirty) {
    HivePtr hive;
    if (openDirty(dirty, hive) < 0) return 0;
    EXPECT_TRUE(hiveRecovered(*hive));
    EXPECT_FALSE(hiveChanged(*hive));
    const Bytes image = hiveImage(*hive);
    EXPECT_EQ(faultOf(image), "");
    EXPECT_FALSE(hiveNeedsLogs(image));
    return keysOf(contentOf(*hive, hiveRoot(*hive)));
}

uint32_t numberAt(const Bytes& bytes, size_t at) {
    uint32_t number;
    memcpy(&number, bytes.data() + at, sizeof number);
    return number;
}

void putNumber(Bytes& bytes, size_t at, uint64_t number, size_t size = 4) {
    memcpy(bytes.data() + at, &number, size);
}

TEST(Recovery, RealHives) {
    std::map<std::string, Bytes> files = realHives("dirty");
    if (files.empty()) GTEST_SKIP() << "the shared hives are not here";
    files.merge(realHives("dirty-windows10"));
    files.merge(realHives("dirty-windows7"));
    const auto dirty = [&](const char* hive, const char* first, const char* second) {
        return Dirty{files[hive], {files[first], files[second]}};
    };
    const Dirty system = dirty("SYSTEM_B", "SYSTEM_B.LOG1", "SYSTEM_B.LOG2");
    EXPECT_EQ(recoveredKeys(system), 35595);
    EXPECT_EQ(recoveredKeys({system.hive, {system.logs.second, system.logs.first}}), 35595);
    EXPECT_EQ(recoveredKeys({system.hive, {}}), 0);
    EXPECT_EQ(recoveredKeys(dirty("UsrClass.dat", "UsrClass.dat.LOG1", "UsrClass.dat.LOG2")), 6238);
    EXPECT_EQ(recoveredKeys(dirty("transactions_NTUSER.DAT", "transactions_ntuser.dat.log1",
                                  "transactions_ntuser.dat.log2")),
              3105);

    Dirty headless = system; /* the latest log has the base block that is lost */
    std::fill_n(headless.hive.begin(), 512, uint8_t{0});
    EXPECT_EQ(recoveredKeys(headless), 35595);

    HivePtr hive;
    const Dirty fresh = dirty("NewDirtyHive", "NewDirtyHive.LOG1", "NewDirtyHive.LOG2");
    ASSERT_EQ(openDirty(fresh, hive), STATUS_SUCCESS);
    EXPECT_EQ(hiveImage(*hive), files["RecoveredHive_Windows10"]);

    const Dirty old = dirty("OldDirtyHive", "OldDirtyHive.LOG1", "");
    ASSERT_EQ(openDirty(old, hive), STATUS_SUCCESS);
    const Content there = contentOf(*hive, hiveRoot(*hive));
    const HivePtr platforms = opened(files["RecoveredHive_Windows7"]);
    EXPECT_EQ(there, contentOf(*platforms, hiveRoot(*platforms)));
    Dirty strange = old; /* a log of another time */
    strange.logs.first[12] ^= 1;
    putNumber(strange.logs.first, 508, numberAt(strange.logs.first, 508) ^ 1);
    EXPECT_EQ(openDirty(strange, hive), STATUS_REGISTRY_IO_FAILED);
}

/* ---- Forged logs ---- */

uint64_t marvin(const uint8_t* bytes, size_t length) {
    uint32_t low = 0x7A4E55C5, high = 0x82EF4D88;
    Bytes padded(bytes, bytes + length);
    padded.push_back(0x80);
    padded.resize((padded.size() + 3) / 4 * 4 + 4);
    for (size_t at = 0; at < padded.size(); at += 4) {
        low += numberAt(padded, at);
        high ^= low;
        low = std::rotl(low, 20) + high;
        high = std::rotl(high, 9) ^ low;
        low = std::rotl(low, 27) + high;
        high = std::rotl(high, 19);
    }
    return uint64_t{high} << 32 | low;
}

void seal(Bytes& file) {
    uint32_t sum = 0;
    for (size_t at = 0; at < 508; at += 4) sum ^= numberAt(file, at);
    putNumber(file, 508, sum == 0 ? 1 : sum);
}

struct Part {
    uint32_t place;
    Bytes bytes;
};

Bytes entryOf(uint32_t sequence, uint32_t binsSize, const std::vector<Part>& parts) {
    Bytes entry(40 + 8 * parts.size());
    for (size_t i = 0; i < parts.size(); i++) {
        putNumber(entry, 40 + 8 * i, parts[i].place);
        putNumber(entry, 44 + 8 * i, parts[i].bytes.size());
    }
    for (const Part& part : parts) entry.insert(entry.end(), part.bytes.begin(), part.bytes.end());
    entry.resize((entry.size() + 511) / 512 * 512);
    memcpy(entry.data(), "HvLE", 4);
    putNumber(entry, 4, entry.size());
    putNumber(entry, 12, sequence);
    putNumber(entry, 16, binsSize);
    putNumber(entry, 20, parts.size());
    return entry;
}

void sealEntry(Bytes& entry) {
    putNumber(entry, 24, marvin(entry.data() + 40, entry.size() - 40), 8);
    putNumber(entry, 32, marvin(entry.data(), 32), 8);
}

/* A log whose base block is the hive's. */
Bytes logOf(const Bytes& hive, uint32_t sequence, const std::vector<Bytes>& entries) {
    Bytes log(hive.begin(), hive.begin() + 512);
    putNumber(log, 4, sequence);
    putNumber(log, 8, sequence);
    putNumber(log, 28, 6);
    seal(log);
    for (const Bytes& entry : entries) log.insert(log.end(), entry.begin(), entry.end());
    return log;
}

/* A hive that stops at number 10, and its contents before and after two changes that only its logs hold. */
class ForgedLogs : public testing::Test {
protected:
    Bytes base, once, twice;
    uint32_t bins[3];

    void SetUp() override {
        const HivePtr hive = variedHive(5);
        Cell child;
        const Bytes large = someDescriptor(1);
        base = hiveImage(*hive);
        ASSERT_EQ(hiveSetValue(*hive, hiveRoot(*hive), u"first", 3, Bytes(100'000), 0), STATUS_SUCCESS);
        once = hiveImage(*hive);
        ASSERT_EQ(hiveCreateSubkey(*hive, hiveRoot(*hive), u"second", {}, large, 0, 0, child),
                  STATUS_SUCCESS);
        twice = hiveImage(*hive);
        putNumber(base, 4, 11);
        putNumber(base, 8, 10);
        seal(base);
        for (int i = 0; i < 3; i++) bins[i] = numberAt(*std::array{&base, &once, &twice}[i], 40);
    }

    /* What changed from one file to another, page by page. */
    static std::vector<Part> changes(const Bytes& from, const Bytes& to) {
        std::vector<Part> parts;
        for (size_t page = 4096; page < to.size(); page += 4096) {
            const auto begin = to.begin() + static_cast<ptrdiff_t>(page);
            const bool same = page < from.size() &&
                              std::equal(begin, begin + 4096, from.begin() + static_cast<ptrdiff_t>(page));
            if (!same) parts.push_back({static_cast<uint32_t>(page - 4096), Bytes(begin, begin + 4096)});
        }
        return parts;
    }

    /* How many of the two changes the logs bring. */
    int reached(const HiveLogs& logs) const {
        HivePtr hive;
        if (openDirty({base, logs}, hive) < 0) return 0;
        HiveValue value;
        Cell key;
        const bool first = hiveFindValue(*hive, hiveRoot(*hive), u"first", value) >= 0;
        const bool second = hiveFindSubkey(*hive, hiveRoot(*hive), u"second", key) >= 0;
        EXPECT_EQ(faultOf(hiveImage(*hive)), "");
        return (first ? 1 : 0) + (second ? 1 : 0);
    }
};

TEST_F(ForgedLogs, WhichEntriesCount) {
    Bytes one = entryOf(10, bins[1], changes(base, once));
    Bytes two = entryOf(11, bins[2], changes(once, twice));
    Bytes gap = entryOf(12, bins[2], changes(once, twice));
    for (Bytes* entry : {&one, &two, &gap}) sealEntry(*entry);
    Bytes torn = two;
    torn.back() ^= 1;
    Bytes tornHead = two;
    tornHead[8] ^= 1;
    EXPECT_EQ(reached({logOf(base, 10, {one, two}), {}}), 2);
    EXPECT_EQ(reached({logOf(base, 11, {two}), logOf(base, 10, {one})}), 2);
    EXPECT_EQ(reached({logOf(base, 10, {one, gap}), {}}), 1);
    EXPECT_EQ(reached({logOf(base, 10, {one}), logOf(base, 12, {gap})}), 1);
    EXPECT_EQ(reached({logOf(base, 10, {one, torn}), {}}), 1);
    EXPECT_EQ(reached({logOf(base, 10, {one, tornHead}), {}}), 1);
    EXPECT_EQ(reached({logOf(base, 9, {one}), {}}), 0); /* not the entry that the log names */
    Bytes stale = entryOf(9, bins[1], changes(base, once));
    sealEntry(stale);
    EXPECT_EQ(reached({logOf(base, 9, {stale}), {}}), 0); /* from before the hive was saved */
    Bytes unsealed = logOf(base, 10, {one});
    unsealed[60] ^= 1;
    EXPECT_EQ(reached({unsealed, {}}), 0);
}

TEST_F(ForgedLogs, EntriesThatReachBeyondTheirBounds) {
    const std::vector<Part> good = changes(base, once);
    const auto tried = [&](size_t at, uint64_t number) {
        Bytes entry = entryOf(10, bins[1], good);
        putNumber(entry, at, number);
        sealEntry(entry);
        return reached({logOf(base, 10, {entry}), {}});
    };
    EXPECT_EQ(tried(20, 0xFFFFFFFF), 0); /* parts than there is room to list */
    EXPECT_EQ(tried(44, 0xFFFFF000), 0); /* a part longer than the entry */
    EXPECT_EQ(tried(44, 0), 0);
    EXPECT_EQ(tried(40, bins[1]), 0); /* behind the bins */
    EXPECT_EQ(tried(40, 0xFFFFFFFF), 0);
    EXPECT_EQ(tried(16, 0x7FFFF000), 0); /* bins that nothing could fill */
    EXPECT_EQ(tried(16, bins[1] + 512), 0);
    EXPECT_EQ(tried(4, 0), 0);
    EXPECT_EQ(tried(4, 0xFFFFFE00), 0);
}

/* What came from the logs goes to the file with the first change, and the file grows as it must. */
TEST_F(ForgedLogs, SavedWithTheFirstChange) {
    struct Memory final : HiveStore {
        Bytes file;
        NTSTATUS write(uint64_t offset, std::span<const uint8_t> bytes) override {
            if (offset + bytes.size() > file.size()) return STATUS_DISK_FULL;
            std::copy(bytes.begin(), bytes.end(), file.begin() + static_cast<ptrdiff_t>(offset));
            return STATUS_SUCCESS;
        }
        NTSTATUS grow(uint64_t size) override {
            file.resize(size);
            return STATUS_SUCCESS;
        }
        NTSTATUS flush() override { return STATUS_SUCCESS; }
    } store;
    store.file = base;
    Bytes both = entryOf(10, bins[2], changes(base, twice));
    sealEntry(both);
    HivePtr hive;
    ASSERT_EQ(openDirty({base, {logOf(base, 10, {both}), {}}}, hive), STATUS_SUCCESS);
    ASSERT_EQ(hiveSave(*hive, store), STATUS_SUCCESS);
    EXPECT_EQ(store.file, base);
    ASSERT_EQ(hiveSetValue(*hive, hiveRoot(*hive), u"third", 1, {}, 0), STATUS_SUCCESS);
    ASSERT_EQ(hiveSave(*hive, store), STATUS_SUCCESS);
    EXPECT_FALSE(hiveRecovered(*hive));
    const HivePtr again = opened(store.file);
    EXPECT_EQ(contentOf(*again, hiveRoot(*again)), contentOf(*hive, hiveRoot(*hive)));
    EXPECT_GT(numberAt(store.file, 4), 10u);
    EXPECT_EQ(faultOf(store.file), "");
}

} /* namespace */
} /* namespace offline::test */
