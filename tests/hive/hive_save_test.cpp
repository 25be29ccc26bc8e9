/* Saving: the order on the medium, what is written, and failures of the store and of memory. */
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

#include "tests/hive/check.h"

namespace {
/* Counts down with every allocation while it is not negative; the one at 0 fails. */
long allocationsLeft = -1;
} /* namespace */

[[gnu::noinline]] void* operator new(size_t size) {
    if (allocationsLeft >= 0 && allocationsLeft-- == 0) throw std::bad_alloc();
    if (void* const block = malloc(size)) return block;
    throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* block) noexcept {
    free(block);
}
[[gnu::noinline]] void operator delete(void* block, size_t) noexcept {
    free(block);
}

namespace offline::test {
namespace {

/* A file in memory that notes every call and fails at one of them. */
struct RecordingStore : HiveStore {
    Bytes file;
    std::string calls; /* g row, b ase block with unequal numbers, B with equal ones, p ages, f lush */
    size_t pageBytes = 0;
    int failAt = -1;

    NTSTATUS note(char call) {
        calls += call;
        return failAt >= 0 && failAt-- == 0 ? STATUS_IO_DEVICE_ERROR : STATUS_SUCCESS;
    }
    NTSTATUS write(uint64_t offset, std::span<const uint8_t> bytes) override {
        const bool clean = std::equal(bytes.begin() + 4, bytes.begin() + 8, bytes.begin() + 8);
        const NTSTATUS status = note(offset != 0 ? 'p' : clean ? 'B' : 'b');
        if (offset != 0) pageBytes += bytes.size();
        if (status < 0) return status;
        if (offset + bytes.size() > file.size()) return STATUS_DISK_FULL;
        std::copy(bytes.begin(), bytes.end(), file.begin() + static_cast<long>(offset));
        return status;
    }
    NTSTATUS grow(uint64_t size) override {
        const NTSTATUS status = note('g');
        if (status >= 0 && file.size() < size) file.resize(size);
        return status;
    }
    NTSTATUS flush() override { return note('f'); }
};

uint32_t sequenceOf(const Bytes& file) {
    return uint32_t{file[4]} | uint32_t{file[5]} << 8;
}

TEST(Save, WritesChangedPagesInTheRightOrder) {
    HivePtr hive = variedHive(5);
    RecordingStore store;
    ASSERT_EQ(hiveSave(*hive, store), STATUS_SUCCESS);
    EXPECT_EQ(store.calls, "gbfpfBf");
    EXPECT_EQ(faultOf(store.file), "");
    EXPECT_FALSE(hiveChanged(*hive));
    ASSERT_EQ(hiveSave(*hive, store), STATUS_SUCCESS);
    EXPECT_EQ(store.calls.size(), 7u) << "a hive without changes is not touched";
    EXPECT_EQ(store.file, hiveImage(*hive));

    /* What lies behind the bins stays; a little change writes little. */
    const size_t end = store.file.size();
    store.file.resize(end + 8192, 0xAB);
    hive = opened(store.file);
    store.calls.clear();
    store.pageBytes = 0;
    const uint32_t sequence = sequenceOf(store.file);
    ASSERT_EQ(hiveSetKeyDescriptor(*hive, hiveRoot(*hive), someDescriptor(2), 5), STATUS_SUCCESS);
    EXPECT_TRUE(hiveChanged(*hive));
    ASSERT_EQ(hiveSave(*hive, store), STATUS_SUCCESS);
    EXPECT_LE(store.pageBytes, 5u * 4096);
    EXPECT_EQ(store.calls.find_first_of("gB"), store.calls.size() - 2);
    EXPECT_EQ(sequenceOf(store.file), sequence + 1);
    EXPECT_EQ(store.file.size(), end + 8192);
    EXPECT_EQ(std::count(store.file.begin() + static_cast<long>(end), store.file.end(), 0xAB), 8192);
    EXPECT_EQ(faultOf(store.file), "");

    /* It grows over what lies behind. */
    ASSERT_EQ(hiveSetValue(*hive, hiveRoot(*hive), u"large", 3, Bytes(100000, 7), 6), STATUS_SUCCESS);
    ASSERT_EQ(hiveSave(*hive, store), STATUS_SUCCESS);
    EXPECT_EQ(faultOf(store.file), "");
    EXPECT_EQ(contentOf(*opened(store.file), hiveRoot(*hive)), contentOf(*hive, hiveRoot(*hive)));
}

TEST(Save, FailureAtAnyCallCanBeMadeGood) {
    HivePtr hive = variedHive(3);
    RecordingStore store;
    ASSERT_EQ(hiveSave(*hive, store), STATUS_SUCCESS);
    const Bytes start = store.file;
    bool failed = true;
    for (int at = 0; failed; at++) {
        hive = opened(start);
        store = RecordingStore{};
        store.file = start;
        store.failAt = at;
        ASSERT_EQ(hiveSetValue(*hive, hiveRoot(*hive), u"large", 3, Bytes(100000, 7), 6), STATUS_SUCCESS);
        failed = hiveSave(*hive, store) < 0;
        EXPECT_EQ(hiveChanged(*hive), failed);
        EXPECT_EQ(failed, store.calls.size() == static_cast<size_t>(at) + 1)
            << "nothing is tried after a failure";
        HivePtr torn;
        Problem problem;
        const NTSTATUS status = hiveOpen(store.file, torn, problem);
        if (store.calls.find('p') != std::string::npos && store.calls.find('B') == std::string::npos) {
            EXPECT_EQ(status, STATUS_REGISTRY_IO_FAILED) << "a mixture must not pass for a clean hive";
        }
        store.failAt = -1;
        ASSERT_EQ(hiveSave(*hive, store), STATUS_SUCCESS);
        EXPECT_EQ(faultOf(store.file), "");
        EXPECT_GT(sequenceOf(store.file), sequenceOf(start));
        EXPECT_EQ(contentOf(*opened(store.file), hiveRoot(*hive)), contentOf(*hive, hiveRoot(*hive)));
    }
}

/* Does a change with every one of its allocations failing in turn. */
template <class Change>
void withoutMemory(Hive& hive, Change change) {
    const Content before = contentOf(hive, hiveRoot(hive));
    for (long allocations = 0;; allocations++) {
        allocationsLeft = allocations;
        const NTSTATUS status = change();
        const bool enough = allocationsLeft >= 0;
        allocationsLeft = -1;
        ASSERT_EQ(faultOf(hiveImage(hive)), "");
        if (enough) {
            ASSERT_EQ(status, STATUS_SUCCESS);
            return;
        }
        if (status >= 0) return; /* it could do without */
        ASSERT_EQ(status, STATUS_NO_MEMORY);
        ASSERT_TRUE(contentOf(hive, hiveRoot(hive)) == before) << "a failure changes nothing";
    }
}

TEST(Memory, FailureChangesNothing) {
    const HivePtr hive = variedHive(5);
    const Cell root = hiveRoot(*hive);
    const Bytes large(300000, 1);
    const Bytes descriptor = someDescriptor(20);
    const Bytes other = someDescriptor(21);
    const std::u16string name(100, u'п');
    Cell child = noCell;
    withoutMemory(*hive, [&] {
        return hiveCreateSubkey(*hive, root, name, std::span(large).first(60000), descriptor, 0, 1, child);
    });
    withoutMemory(*hive, [&] { return hiveSetValue(*hive, root, name, 3, large, 1); });
    withoutMemory(*hive, [&] { return hiveSetKeyDescriptor(*hive, root, other, 1); });
    withoutMemory(*hive, [&] { return hiveDeleteValue(*hive, root, name, 1); });
    withoutMemory(*hive, [&] { return hiveDeleteKey(*hive, child, 1); });

    const Bytes image = hiveImage(*hive);
    for (long allocations = 0; allocations < 5; allocations++) {
        HivePtr again;
        Problem problem;
        Bytes file(image);
        allocationsLeft = allocations;
        const NTSTATUS status = hiveOpen(std::move(file), again, problem);
        allocationsLeft = -1;
        EXPECT_EQ(status, STATUS_NO_MEMORY);
    }
}

} /* namespace */
} /* namespace offline::test */
