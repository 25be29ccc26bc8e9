/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Saving: the order on the medium, what is written, and failures of the store and of memory. */
#include "tests/hive/check.h"
#include "tests/support/scarce_memory.h"

namespace offline::test {
namespace {

void expectSaved(const RecordingStore& store, const Hive& hive) {
    EXPECT_EQ(faultOf(store.file), "");
    EXPECT_EQ(contentOf(*opened(store.file)), contentOf(hive));
}

TEST(Save, WritesChangedPagesInTheRightOrder) {
    HivePtr hive = variedHive(5);
    RecordingStore store;
    ASSERT_GE(hiveSave(*hive, store), 0);
    expectSaved(store, *hive);
    EXPECT_FALSE(hiveChanged(*hive));
    ASSERT_GE(hiveSave(*hive, store), 0);
    EXPECT_EQ(store.calls, "gbfpfBf") << "a hive without changes is not touched";
    EXPECT_EQ(store.file, hiveImage(*hive));

    /* What lies after the bins stays; a little change writes little. */
    const size_t end = store.file.size();
    store.file.resize(end + 8192, 0xAB);
    store.calls.clear();
    store.pageBytes = 0;
    const uint32_t sequence = numberAt<uint32_t>(store.file, 4);
    ASSERT_GE(hiveSetKeyDescriptor(*hive, hiveRoot(*hive), someDescriptor(2), 5), 0);
    ASSERT_GE(hiveSave(*hive, store), 0);
    EXPECT_LE(store.pageBytes, 5u * 4096);
    EXPECT_EQ(store.calls.find_first_of("gB"), store.calls.size() - 2);
    EXPECT_EQ(numberAt<uint32_t>(store.file, 4), sequence + 1);
    EXPECT_EQ(std::count(store.file.begin() + static_cast<long>(end), store.file.end(), 0xAB), 8192);
    expectSaved(store, *hive);
}

TEST(Save, FailureAtAnyCallCanBeMadeGood) {
    const ByteVector start = hiveImage(*variedHive(3));
    bool failed = true;
    for (size_t at = 0; failed; at++) {
        const HivePtr hive = opened(start);
        RecordingStore store;
        store.file = start;
        store.file.resize(start.size() + 8192, 0xAB); /* the hive grows over what comes after */
        store.failAt = static_cast<int>(at);
        ASSERT_GE(hiveSetValue(*hive, hiveRoot(*hive), u"large", 3, ByteVector(100000, 7), 6), 0);
        failed = hiveSave(*hive, store) < 0;
        EXPECT_EQ(hiveChanged(*hive), failed);
        EXPECT_EQ(failed, store.calls.size() == at + 1) << "nothing is tried after a failure";
        const bool mixed = store.calls.find('p') < at + 1 && store.calls.find('B') > at + 1;
        EXPECT_TRUE(!mixed || hiveNeedsLogs(store.file)) << "a mixture must not pass for a clean hive";
        store.failAt = -1;
        ASSERT_GE(hiveSave(*hive, store), 0);
        EXPECT_GT(numberAt<uint32_t>(store.file, 4), numberAt<uint32_t>(start, 4));
        expectSaved(store, *hive);
    }
}

/* Does a change with every one of its allocations failing in turn; it may do without some of them. */
template <class Change>
void withoutMemory(const ByteVector& image, Change change) {
    const Content before = contentOf(*opened(image));
    bool enough = false;
    for (long allocations = 0; !enough; allocations++) {
        const HivePtr hive = opened(image);
        allocationsLeft = allocations;
        const NTSTATUS status = change(*hive);
        enough = allocationsLeft >= 0;
        allocationsLeft = -1;
        ASSERT_EQ(faultOf(hiveImage(*hive)), "");
        ASSERT_TRUE(status == STATUS_SUCCESS || (status == STATUS_NO_MEMORY && !enough));
        EXPECT_NE(contentOf(*hive) == before, status == STATUS_SUCCESS) << "a failure changes nothing";
    }
}

TEST(Memory, FailureChangesNothing) {
    const HivePtr hive = variedHive(5);
    const Cell root = hiveRoot(*hive);
    const ByteVector large(300000, 1), descriptor = someDescriptor(20), classText(60000);
    const std::u16string name(100, u'п');
    Cell child = noCell;
    const auto create = [&](Hive& in) {
        return hiveCreateSubkey(in, root, name, classText, descriptor, 0, 1, child);
    };
    withoutMemory(hiveImage(*hive), create);
    withoutMemory(hiveImage(*hive), [&](Hive& in) { return hiveSetKeyDescriptor(in, root, descriptor, 1); });
    const auto set = [&](Hive& in) { return hiveSetValue(in, root, name, 3, large, 1); };
    withoutMemory(hiveImage(*hive), set);
    ASSERT_TRUE(create(*hive) >= 0 && set(*hive) >= 0);
    withoutMemory(hiveImage(*hive), [&](Hive& in) { return hiveDeleteValue(in, root, name, 1); });
    withoutMemory(hiveImage(*hive), [&](Hive& in) { return hiveDeleteKey(in, child, 1); });
}

} /* namespace */
} /* namespace offline::test */
