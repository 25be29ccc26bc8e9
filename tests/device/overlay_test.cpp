/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/device/overlay.h"

#include <gtest/gtest.h>

#include "tests/device/machine.h"
#include "tests/device/model.h"
#include "tests/support/fault_device.h"

namespace offline::test {
namespace {

/* Most units, differences too, lie in a temporary file, and the disk's last one is short. */
TEST(Overlay, IsWhatWasWrittenElseWhatLiesBelow) {
    Machine machine;
    ByteVector bytes(900 * 1024 + 700);
    for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(machine.random());
    MachineDisk disk(machine, "/a/disk", bytes);
    Overlay overlay(disk, "/tmp", 8 * unitSize);
    compareWithModel(overlay, 1, 9000);
    EXPECT_EQ(disk.medium.now, bytes);
    EXPECT_GT(overlay.changedUnits(), 512u);
}

/* A changed unit hides what can't be read below it. */
TEST(Overlay, ReadsAroundWhatIsBroken) {
    Faults faults;
    faults.badStart = 2048, faults.badEnd = 3072;
    Machine machine;
    FaultDevice broken(std::make_unique<MachineDisk>(machine, "/a/disk", ByteVector(8192, 1)), faults);
    Overlay overlay(broken, "/tmp");
    ByteVector bytes(8192);
    EXPECT_EQ(overlay.read(0, bytes), EIO);
    EXPECT_EQ(overlay.write(2050, Bytes(bytes).first(8)), EIO);
    EXPECT_EQ(overlay.flush(), 0);
    EXPECT_EQ(overlay.write(2048, ByteVector(1024, 2)), 0);
    EXPECT_EQ(overlay.read(1, std::span(bytes).first(8191)), 0);
    EXPECT_EQ(bytes[2046], 1);
    EXPECT_EQ(bytes[2047], 2);
    EXPECT_EQ(bytes[3071], 1);
}

/* Nothing is lost unsaid when the temporary file can't be written. */
TEST(Overlay, RemembersWhatItCouldNotKeep) {
    Machine machine;
    MachineDisk disk(machine, "/a/disk", ByteVector(64 * 1024));
    Overlay overlay(disk, "/nowhere", 2 * unitSize);
    const ByteVector bytes(unitSize, 1);
    EXPECT_EQ(overlay.write(0, bytes), 0);
    EXPECT_EQ(overlay.write(4096, bytes), 0);
    EXPECT_NE(overlay.write(8192, bytes), 0);
    EXPECT_EQ(overlay.write(0, bytes), 0);
    EXPECT_NE(overlay.flush(), 0);
    ByteVector read(unitSize, 9);
    EXPECT_EQ(overlay.read(8192, read), 0);
    EXPECT_EQ(read, ByteVector(unitSize));
}

/* In whatever order units come the index finds them, in theirs, and stays small. */
TEST(ChangedUnits, SmallInEveryOrder) {
    constexpr uint64_t count = 20'000;
    const std::vector<std::function<uint64_t(uint64_t)>> orders = {
        [](uint64_t number) { return number; },
        [](uint64_t number) { return count - number; },
        [](uint64_t number) { return number * 2'654'435'761 % (count * 64 + 1); },
        [](uint64_t number) { return number % 2 == 0 ? number * 700'000 : (uint64_t{1} << 40) - number; },
        [](uint64_t number) { return number / 1024 % 2 == 0 ? number * 1024 : (number - 1024) * 1024 + 1; },
    };
    for (const auto& order : orders) {
        ChangedUnits index;
        std::map<uint64_t, uint32_t> model;
        for (uint64_t number = 0; number < count; ++number) {
            const uint64_t unit = order(number);
            if (!model.emplace(unit, number).second) continue;
            index.put(unit, static_cast<uint32_t>(number));
            ASSERT_LE(index.memory(), 24 * index.count() + 32 * 1024);
        }
        uint64_t from = 0;
        UnitRun run;
        for (const auto& [wanted, slot] : model) {
            if (wanted >= from) {
                ASSERT_TRUE(index.next(from, 3, run));
                ASSERT_EQ(run.unit, wanted);
                ASSERT_LE(run.count, 3u);
                from = run.unit + run.count;
            }
            ASSERT_EQ(index.slotOf(wanted), slot);
            ASSERT_EQ(run.slot + (wanted - run.unit), slot);
        }
        EXPECT_FALSE(index.next(from, 3, run));
        EXPECT_EQ(index.slotOf(from), ChangedUnits::noSlot);
    }
}

}  // namespace
}  // namespace offline::test
