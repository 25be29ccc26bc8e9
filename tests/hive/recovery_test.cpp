/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Dirty hives and their log files: real ones, some of them next to what the platform itself made of them, and
 * logs that are forged with right hashes. */
#include "platform/offline/hive/recovery.h"
#include "tests/hive/check.h"

namespace offline::test {
namespace {

struct Dirty {
    ByteVector hive;
    HiveLogs logs;
};

NTSTATUS openDirty(const Dirty& dirty, HivePtr& hive) {
    Problem problem;
    const NTSTATUS status = hiveOpen(dirty.hive, dirty.logs, hive, problem);
    EXPECT_EQ(status < 0, !problem.text.empty());
    return status;
}

/* The number of keys of a hive that its logs make whole; 0 when they don't. */
size_t recoveredKeys(const Dirty& dirty) {
    HivePtr hive;
    if (openDirty(dirty, hive) < 0) return 0;
    EXPECT_TRUE(hiveRecovered(*hive));
    EXPECT_FALSE(hiveChanged(*hive));
    const ByteVector image = hiveImage(*hive);
    EXPECT_EQ(faultOf(image), "");
    EXPECT_FALSE(hiveNeedsLogs(image));
    return keysOf(*hive).size();
}

TEST(Recovery, RealHives) {
    std::map<std::string, ByteVector> files = realHives("dirty");
    if (files.empty()) GTEST_SKIP() << "the shared hives are not here";
    files.merge(realHives("dirty-windows10"));
    files.merge(realHives("dirty-windows7"));
    const auto dirty = [&](const std::string& hive, const std::string& logs) {
        return Dirty{files[hive], {files[logs + "1"], files[logs + "2"]}};
    };
    EXPECT_EQ(recoveredKeys(dirty("SYSTEM_B", "SYSTEM_B.LOG")), 35595);
    EXPECT_EQ(recoveredKeys(dirty("UsrClass.dat", "UsrClass.dat.LOG")), 6238);
    EXPECT_EQ(recoveredKeys(dirty("transactions_NTUSER.DAT", "transactions_ntuser.dat.log")), 3105);

    HivePtr hive;
    ASSERT_EQ(openDirty(dirty("NewDirtyHive", "NewDirtyHive.LOG"), hive), STATUS_SUCCESS);
    EXPECT_EQ(hiveImage(*hive), files["RecoveredHive_Windows10"]);

    Dirty old = dirty("OldDirtyHive", "OldDirtyHive.LOG");
    ASSERT_EQ(openDirty(old, hive), STATUS_SUCCESS);
    EXPECT_EQ(contentOf(*hive), contentOf(*opened(files["RecoveredHive_Windows7"])));
    old.logs.first[12] ^= 1; /* a log of another time */
    seal(old.logs.first);
    EXPECT_EQ(openDirty(old, hive), STATUS_REGISTRY_IO_FAILED);
}

/* ---- Forged logs ---- */

struct Part {
    size_t offset;
    ByteVector bytes;
};

ByteVector entryOf(uint32_t sequence, uint32_t binsSize, const std::vector<Part>& parts) {
    ByteVector entry(40 + 8 * parts.size());
    for (size_t i = 0; i < parts.size(); i++) {
        putNumber(entry, 40 + 8 * i, parts[i].offset);
        putNumber(entry, 44 + 8 * i, parts[i].bytes.size());
    }
    for (const Part& part : parts) entry.insert(entry.end(), part.bytes.begin(), part.bytes.end());
    entry.resize((entry.size() + 511) / 512 * 512);
    memcpy(entry.data(), "HvLE", 4);
    const std::pair<size_t, size_t> fields[] = {
        {4, entry.size()}, {12, sequence}, {16, binsSize}, {20, parts.size()}};
    for (const auto& [at, number] : fields) putNumber(entry, at, number);
    return entry;
}

ByteVector sealed(ByteVector entry) {
    putNumber(entry, 24, marvin(Bytes(entry).subspan(40)), 8);
    putNumber(entry, 32, marvin(Bytes(entry).first(32)), 8);
    return entry;
}

/* A log whose base block is the hive's. */
ByteVector logOf(const ByteVector& hive, uint32_t sequence, const std::vector<ByteVector>& entries) {
    ByteVector log(hive.begin(), hive.begin() + 512);
    putNumber(log, 4, sequence);
    putNumber(log, 8, sequence);
    putNumber(log, 28, 6);
    seal(log);
    for (const ByteVector& entry : entries) log.insert(log.end(), entry.begin(), entry.end());
    return log;
}

/* What changed from one file to another, page by page. */
std::vector<Part> changes(const ByteVector& from, const ByteVector& to) {
    std::vector<Part> parts;
    for (size_t page = 4096; page < to.size(); page += 4096) {
        const auto pageOf = [&](const ByteVector& file) { return std::span(file).subspan(page, 4096); };
        const ByteVector now(pageOf(to).begin(), pageOf(to).end());
        if (page >= from.size() || !std::equal(now.begin(), now.end(), pageOf(from).begin()))
            parts.push_back({page - 4096, now});
    }
    return parts;
}

/* A hive that stops at number 10, and its contents before and after two changes that only its logs hold. */
class ForgedLogs : public testing::Test {
protected:
    ByteVector base, once, twice;
    uint32_t bins[3];

    void SetUp() override {
        const HivePtr hive = variedHive(5);
        base = hiveImage(*hive);
        ASSERT_EQ(hiveSetValue(*hive, hiveRoot(*hive), u"first", 3, ByteVector(100'000), 0), STATUS_SUCCESS);
        once = hiveImage(*hive);
        made(*hive, hiveRoot(*hive), u"second");
        twice = hiveImage(*hive);
        putNumber(base, 4, 11);
        putNumber(base, 8, 10);
        seal(base);
        for (size_t i = 0; i < 3; i++) bins[i] = numberAt<uint32_t>(*std::array{&base, &once, &twice}[i], 40);
    }

    /* How many of the two changes the logs bring. */
    int reached(const HiveLogs& logs) const {
        HivePtr hive;
        if (openDirty({base, logs}, hive) < 0) return 0;
        HiveValue value;
        Cell key;
        EXPECT_EQ(faultOf(hiveImage(*hive)), "");
        return (hiveFindValue(*hive, hiveRoot(*hive), u"first", value) >= 0 ? 1 : 0) +
               (hiveFindSubkey(*hive, hiveRoot(*hive), u"second", key) >= 0 ? 1 : 0);
    }
};

TEST_F(ForgedLogs, WhichEntriesCount) {
    EXPECT_EQ(marvin(ByteVector{1, 2, 3, 4, 5, 6, 7}), 0x391BE7722D5DE3EF);
    const ByteVector one = sealed(entryOf(10, bins[1], changes(base, once)));
    const ByteVector two = sealed(entryOf(11, bins[2], changes(once, twice)));
    const ByteVector gap = sealed(entryOf(12, bins[2], changes(once, twice)));
    const ByteVector stale = sealed(entryOf(9, bins[1], changes(base, once)));
    ByteVector torn = two, tornHead = two, unsealed = logOf(base, 10, {one});
    for (uint8_t* byte : {&torn.back(), &tornHead[8], &unsealed[60]}) *byte ^= 1;
    EXPECT_EQ(reached({logOf(base, 10, {one, two}), {}}), 2);
    EXPECT_EQ(reached({logOf(base, 11, {two}), logOf(base, 10, {one})}), 2);
    EXPECT_EQ(reached({logOf(base, 10, {one, gap}), {}}), 1);
    EXPECT_EQ(reached({logOf(base, 10, {one}), logOf(base, 12, {gap})}), 1);
    EXPECT_EQ(reached({logOf(base, 10, {one, torn}), {}}), 1);
    EXPECT_EQ(reached({logOf(base, 10, {one, tornHead}), {}}), 1);
    EXPECT_EQ(reached({logOf(base, 9, {one}), {}}), 0);   /* not the entry that the log names */
    EXPECT_EQ(reached({logOf(base, 9, {stale}), {}}), 0); /* from before the hive was saved */
    EXPECT_EQ(reached({unsealed, {}}), 0);
}

/* The base block is lost; the log has one, and no entry or one that was never finished. */
TEST_F(ForgedLogs, ABaseBlockFromALogWithoutEntries) {
    ByteVector torn = sealed(entryOf(10, bins[2], changes(once, twice)));
    torn.back() ^= 1;
    for (const HiveLogs& logs : {HiveLogs{logOf(once, 10, {}), {}}, HiveLogs{{}, logOf(once, 10, {torn})}}) {
        ByteVector lost = once;
        std::fill_n(lost.begin(), 4096, uint8_t{0});
        HivePtr hive;
        ASSERT_EQ(openDirty({lost, logs}, hive), STATUS_SUCCESS);
        EXPECT_TRUE(hiveRecovered(*hive));
        EXPECT_EQ(contentOf(*hive), contentOf(*opened(once)));
        lost.resize(lost.size() - 4096);
        EXPECT_LT(openDirty({lost, logs}, hive), 0) << "a bin is missing";
    }
    /* Of two, the later one, wherever it stands: a change is then saved under a number above both. */
    for (const HiveLogs& logs : {HiveLogs{logOf(base, 9, {}), logOf(once, 10, {})},
                                 HiveLogs{logOf(once, 10, {}), logOf(base, 9, {})}}) {
        ByteVector lost = once;
        std::fill_n(lost.begin(), 4096, uint8_t{0});
        HivePtr hive;
        ASSERT_EQ(openDirty({lost, logs}, hive), STATUS_SUCCESS);
        EXPECT_EQ(contentOf(*hive), contentOf(*opened(once)));
        EXPECT_GT(numberAt<uint32_t>(hiveImage(*hive), 4), 10u);
    }
}

TEST_F(ForgedLogs, EntriesThatReachBeyondTheirBounds) {
    const std::pair<size_t, uint64_t> rows[] = {
        // clang-format off
        {20, 0xFFFFFFFF}, /* parts than there is room to list */
        {44, 0xFFFFF000}, {44, 0x20000}, {44, 0}, /* a part longer than the bins or the entry, or empty */
        {40, bins[1]}, {40, 0xFFFFFFFF}, /* after the bins */
        {16, 0x7FFFF000}, {16, bins[1] + 512}, /* bins that nothing could fill */
        {4, 0}, {4, 0xFFFFFE00},
        // clang-format on
    };
    for (const auto& [at, number] : rows) {
        ByteVector entry = entryOf(10, bins[1], changes(base, once));
        putNumber(entry, at, number);
        EXPECT_EQ(reached({logOf(base, 10, {sealed(entry)}), {}}), 0) << at << ": " << number;
    }
}

/* What came from the logs goes to the file with the first change, and the file grows as it must. */
TEST_F(ForgedLogs, SavedWithTheFirstChange) {
    RecordingStore store;
    store.file = base;
    HivePtr hive;
    const ByteVector log = logOf(base, 10, {sealed(entryOf(10, bins[2], changes(base, twice)))});
    ASSERT_EQ(openDirty({base, {log, {}}}, hive), STATUS_SUCCESS);
    ASSERT_EQ(hiveSave(*hive, store), STATUS_SUCCESS);
    EXPECT_EQ(store.calls, "");
    ASSERT_EQ(hiveSetValue(*hive, hiveRoot(*hive), u"third", 1, {}, 0), STATUS_SUCCESS);
    ASSERT_EQ(hiveSave(*hive, store), STATUS_SUCCESS);
    EXPECT_FALSE(hiveRecovered(*hive));
    EXPECT_EQ(contentOf(*opened(store.file)), contentOf(*hive));
    EXPECT_GT(numberAt<uint32_t>(store.file, 4), 10u);
    EXPECT_EQ(faultOf(store.file), "");
}

} /* namespace */
} /* namespace offline::test */
