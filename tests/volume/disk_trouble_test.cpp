/* SPDX-License-Identifier: GPL-2.0-or-later */
/* What trouble on a disk must not spread to, and what it must not be taken for. */
#include <algorithm>

#include "tests/device/machine.h"
#include "tests/volume/images.h"

/* The library's ntfs_device_mount leaks what it has opened when a read fails. */
extern "C" void __lsan_disable() __attribute__((weak));
extern "C" void __lsan_enable() __attribute__((weak));

namespace offline::images {
namespace {

using TroubleTest = FreshVolumeTest;

TEST(DiskTest, IsChangedOnlyWhereThatWasAskedFor) {
    for (const auto& [access, protectedFromWrites] : {std::pair{DiskAccess::readOnly, false},
                                                      {DiskAccess::trial, false},
                                                      {DiskAccess::readWrite, true}}) {
        test::Machine machine;
        auto device = std::make_unique<test::MachineDisk>(machine, "disk", ByteVector(2048));
        device->protectedFromWrites = protectedFromWrites;
        DiskPtr disk;
        ASSERT_EQ(diskOver(std::move(device), access, disk), STATUS_SUCCESS);
        EXPECT_EQ(diskWrite(*disk, 0, ByteVector(2048, 6)), STATUS_MEDIA_WRITE_PROTECTED);
        EXPECT_TRUE(diskReadOnly(*disk));
        EXPECT_EQ(diskForChanges(*disk), access != DiskAccess::readOnly);
        EXPECT_EQ(diskWritable(*disk), !protectedFromWrites);
    }
}

/* What a commit writes first: both copies of the flags, one bit apart from what lies there. */
TEST_F(TroubleTest, TheDirtyMarkIsNotedAndNothingElseOfTheFlagsChanges) {
    ByteVector bytes = readFile(image);
    std::vector<size_t> flags; /* in the MFT and in its mirror */
    for (size_t mft : {mftField, mirrorField}) flags.push_back(valueAt(bytes, 3, 0x70, mft) + 10);
    for (size_t at : flags) put<uint16_t>(bytes, at, 0x0180);
    writeFile(image, bytes);
    OpenVolume opened(image);
    ASSERT_NE(opened.volume, nullptr) << opened.problem.text;
    EXPECT_TRUE(diskMarks(*opened.disk).empty());
    opened.make(u"file");
    opened.make(u"other");
    ByteVector marked = bytes;
    for (const DirtyMark& mark : diskMarks(*opened.disk))
        std::copy(mark.bytes.begin(), mark.bytes.end(), marked.begin() + static_cast<ptrdiff_t>(mark.offset));
    for (size_t at : flags) put<uint16_t>(bytes, at, 0x0181);
    EXPECT_EQ(marked, bytes);
    ASSERT_EQ(opened.close(), STATUS_SUCCESS);
    bytes = readFile(image);
    for (size_t at : flags) EXPECT_EQ(numberAt<uint16_t>(bytes, at), 0x0180);
}

TEST_F(TroubleTest, AFailedChangeKeepsNoOtherFromTheMedium) {
    OpenVolume opened(image);
    const FileRef small = opened.make(u"small"), large = opened.make(u"large");
    ASSERT_EQ(volumeWriteFile(opened, large, 0, ByteVector(8 * mebibyte)), STATUS_DISK_FULL);
    const ByteVector written(10'000, 't');
    ASSERT_EQ(volumeWriteFile(opened, small, 0, written), STATUS_SUCCESS);
    EXPECT_EQ(volumeFlush(opened), STATUS_SUCCESS);
    EXPECT_EQ(opened.close(), STATUS_DISK_FULL); /* it is told all the same */
    EXPECT_EQ(copyOf("small"), written);
}

/* What a caller does with a volume, by path; the worst status, and whether all was as it should be. */
struct Use {
    NTSTATUS worst = STATUS_SUCCESS;
    bool right = true;

    bool good(NTSTATUS status) {
        if (status < 0) worst = status;
        EXPECT_TRUE(status >= 0 || status == STATUS_IO_DEVICE_ERROR) << std::hex << status;
        return status >= 0;
    }
    explicit Use(Volume& volume) {
        FileRef file = 0, none = 0;
        DirectoryListing listing;
        Bytes stored;
        ByteVector bytes;
        FileInfo info = {};
        if (good(volumeList(volume, rootDirectory, listing))) right &= listing.entries.size() == 301;
        if (good(volumeFind(volume, u"\\deep\\file 7", file))) {
            if (good(volumeFileInfo(volume, file, info))) right &= info.size == 100'000;
            if (good(volumeDescriptor(volume, file, stored)))
                right &= std::ranges::equal(stored, descriptor(7));
            if (good(volumeReadFile(volume, file, 1 << 20, bytes)))
                right &= bytes == ByteVector(100'000, 'x');
        }
        const NTSTATUS missing = volumeFind(volume, u"file 7777", none);
        if (missing != STATUS_OBJECT_NAME_NOT_FOUND) good(missing);
    }
};

/* Each read of a whole use fails in its turn, alone or with all that follow. */
TEST_F(TroubleTest, ARefusedReadIsNamedAndRemembered) {
    changed([](OpenVolume& opened) {
        opened.fill(rootDirectory, 300);
        const FileRef deep = opened.makeDirectory(u"deep");
        for (char16_t i = 0; i < 20; ++i) {
            const auto name = u"file " + std::u16string(i < 10 ? 1 : 2, static_cast<char16_t>(u'0' + i % 10));
            const FileRef file = opened.make(name, descriptor(i), deep);
            ASSERT_GE(volumeWriteFile(opened, file, 0, ByteVector(100'000, 'x')), 0);
        }
    });
    for (const bool once : {true, false}) {
        size_t refusals = 0, passed = 0, served = 0;
        for (long turn = 0;; ++turn) {
            failures = {};
            failures.readsLeft = turn;
            failures.once = once;
            if (__lsan_disable != nullptr) __lsan_disable();
            OpenVolume opened(image, DiskAccess::readOnly);
            if (__lsan_enable != nullptr) __lsan_enable();
            if (opened.volume == nullptr) {
                EXPECT_EQ(opened.problem.status, STATUS_IO_DEVICE_ERROR) << opened.problem.text;
                continue;
            }
            const bool inOpening = failures.refused;
            const Use use(opened);
            EXPECT_TRUE(use.right) << turn;
            Problem problem;
            const NTSTATUS told = diskReadWhole(*opened.disk, problem);
            /* Told also where the second copy of the descriptors has served. */
            const bool bySecond = told < 0 && use.worst >= 0;
            EXPECT_EQ(told, bySecond ? STATUS_IO_DEVICE_ERROR : use.worst) << turn << problem.text;
            EXPECT_FALSE(told < 0 && inOpening) << "opened without what could not be read";
            served += bySecond ? 1 : 0;
            EXPECT_EQ(problem.text.find("(Input/output error)") != std::string::npos, told < 0)
                << problem.text;
            if (!failures.refused) break;
            ++(told < 0 ? refusals : passed);
        }
        EXPECT_GT(refusals, 5u);
        EXPECT_LE(served, 1u);
        /* What is read ahead in vain is not missed. */
        EXPECT_TRUE(!once || passed > 0);
    }
}

TEST_F(TroubleTest, DamageIsRememberedOnceForAFile) {
    FileRef file = 0, beyond = 0, headless = 0;
    ByteVector bytes = changed([&](OpenVolume& opened) {
        file = opened.make(u"broken");
        beyond = opened.make(u"beyond");
        headless = opened.makeDirectory(u"headless");
        opened.fill(headless, 60);
    });
    putText(bytes, recordAt(bytes, file) + 510, "??"); /* the update sequence's place */
    /* An update sequence at the end of its record, and attributes that would leave it room there. */
    put<uint16_t>(bytes, recordAt(bytes, beyond) + 4, 1022);
    put<uint16_t>(bytes, recordAt(bytes, beyond) + 20, 0xFFF8);
    const size_t blocks = attributeAt(bytes, headless, 0xA0); /* where the index's blocks are */
    putText(bytes, blocks + numberAt<uint16_t>(bytes, blocks + 10) + 6, "1"); /* $I30 */
    writeFile(image, bytes);

    OpenVolume opened(image, DiskAccess::readOnly);
    ASSERT_NE(opened.volume, nullptr) << opened.problem.text;
    Problem problem;
    EXPECT_EQ(diskReadWhole(*opened.disk, problem), STATUS_SUCCESS);
    FileInfo info = {};
    Bytes stored;
    EXPECT_EQ(volumeFileInfo(opened, file, info), STATUS_FILE_CORRUPT_ERROR);
    EXPECT_EQ(volumeDescriptor(opened, file, stored), STATUS_FILE_CORRUPT_ERROR);
    EXPECT_EQ(diskReadWhole(*opened.disk, problem), STATUS_DISK_CORRUPT_ERROR);
    const std::string words =
        ": 1 file or directory of its volumes can't be read or reached for damage, the first by MFT record " +
        std::to_string(file & UINT32_MAX);
    EXPECT_NE(problem.text.find(words), std::string::npos) << problem.text;
    EXPECT_EQ(volumeFileInfo(opened, beyond, info), STATUS_FILE_CORRUPT_ERROR);
    /* An index without its blocks is no empty one. */
    DirectoryListing listing;
    FileRef found = 0;
    EXPECT_EQ(volumeList(opened, headless, listing), STATUS_FILE_CORRUPT_ERROR);
    EXPECT_EQ(volumeLookUp(opened, headless, u"no such file", found), STATUS_FILE_CORRUPT_ERROR);
    EXPECT_EQ(diskTrouble(*opened.disk).damaged, 3u);
}

} /* namespace */
} /* namespace offline::images */
