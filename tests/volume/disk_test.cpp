/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "tests/support/memory_device.h"
#include "tests/volume/images.h"

using namespace offline;

namespace {

/* Over every kind of device, for each use: what can be changed. */
TEST(DiskTest, IsChangedOnlyWhereThatWasAskedFor) {
    for (const bool protectedFromWrites : {false, true}) {
        for (const DiskAccess access : {DiskAccess::readOnly, DiskAccess::readWrite, DiskAccess::trial}) {
            auto owned = std::make_unique<MemoryDevice>(ByteVector(2048, 5));
            MemoryDevice& device = *owned;
            device.protectedFromWrites = protectedFromWrites;
            DiskPtr disk;
            ASSERT_EQ(diskOver(std::move(owned), access, disk), STATUS_SUCCESS);
            const bool changes = access == DiskAccess::readWrite && !protectedFromWrites;
            EXPECT_EQ(diskWrite(*disk, 0, ByteVector(2048, 6)),
                      changes ? STATUS_SUCCESS : STATUS_MEDIA_WRITE_PROTECTED);
            EXPECT_EQ(diskReadOnly(*disk), !changes);
            EXPECT_EQ(diskForChanges(*disk), access != DiskAccess::readOnly);
            EXPECT_EQ(diskWritable(*disk), !protectedFromWrites);
            EXPECT_EQ(device.contents(), ByteVector(2048, 5)); /* before the sync */
            EXPECT_EQ(diskSync(*disk), STATUS_SUCCESS);
            EXPECT_EQ(device.contents(), ByteVector(2048, changes ? 6 : 5));
        }
    }
}

} /* namespace */
