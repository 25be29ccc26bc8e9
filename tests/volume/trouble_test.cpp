/* What trouble on a disk must not spread to, and what it must not be taken for. */
#include <algorithm>
#include <filesystem>

#include "tests/volume/images.h"

/* The library's ntfs_device_mount leaks what it has opened when a read fails. */
extern "C" void __lsan_disable() __attribute__((weak));
extern "C" void __lsan_enable() __attribute__((weak));

using namespace offline;
using images::ByteVector;
using images::descriptor;
using images::OpenVolume;

namespace {

struct TroubleTest : images::ImageTest {
    static FileRef make(OpenVolume& opened, std::u16string_view name) {
        FileRef file = 0;
        EXPECT_EQ(volumeCreate(opened.get(), rootDirectory, name, NewFile::file, descriptor(1000), file),
                  STATUS_SUCCESS);
        return file;
    }
};

/* The offsets of a volume's flags, in the MFT and in its mirror. */
std::vector<size_t> flagOffsets(const ByteVector& image) {
    const size_t cluster = image[0x0D] * size_t{512};
    std::vector<size_t> offsets;
    for (size_t start : {size_t{0x30}, size_t{0x38}}) {
        const size_t record = images::get<uint64_t>(image, start) * cluster + size_t{3} * 1024;
        size_t at = record + images::get<uint16_t>(image, record + 20);
        while (images::get<uint32_t>(image, at) != 0x70) at += images::get<uint32_t>(image, at + 4);
        offsets.push_back(at + images::get<uint16_t>(image, at + 20) + 10);
    }
    return offsets;
}

TEST_F(TroubleTest, FlagsWithoutANameSurviveAChange) {
    ByteVector image = ntfs();
    for (size_t offset : flagOffsets(image)) images::put<uint16_t>(image, offset, 0x0180);
    images::writeFile(path("volume.img"), image);
    OpenVolume opened(path("volume.img"));
    ASSERT_NE(opened.volume, nullptr) << opened.problem.text;
    make(opened, u"file");
    ASSERT_EQ(volumeFlush(opened.get()), STATUS_SUCCESS);
    image = images::readFile(path("volume.img"));
    for (size_t offset : flagOffsets(image)) EXPECT_EQ(images::get<uint16_t>(image, offset), 0x0181);
    ASSERT_EQ(opened.close(), STATUS_SUCCESS);
    image = images::readFile(path("volume.img"));
    for (size_t offset : flagOffsets(image)) EXPECT_EQ(images::get<uint16_t>(image, offset), 0x0180);
}

TEST_F(TroubleTest, AFailedChangeKeepsNoOtherFromTheMedium) {
    OpenVolume opened(ntfsImage());
    const FileRef small = make(opened, u"small"), large = make(opened, u"large");
    ASSERT_EQ(volumeWriteFile(opened.get(), small, 0, ByteVector(10'000, 's')), STATUS_SUCCESS);
    ASSERT_EQ(volumeWriteFile(opened.get(), large, 0, ByteVector(8 * images::mebibyte)), STATUS_DISK_FULL);
    ASSERT_EQ(volumeWriteFile(opened.get(), small, 0, ByteVector(10'000, 't')), STATUS_SUCCESS);
    EXPECT_EQ(volumeFlush(opened.get()), STATUS_SUCCESS);
    /* It is told all the same, and the mark stays. */
    EXPECT_LT(opened.close(), 0);
    EXPECT_NE(images::outputOf("ntfsinfo -fm " + path("volume.img")).find("0x0001 DIRTY"), std::string::npos);
}

/* The offset of a file's MFT record, by the name that is in it. */
size_t recordOffset(const ByteVector& image, std::u16string_view name) {
    const std::string_view wanted(reinterpret_cast<const char*>(name.data()), name.size() * 2);
    const std::string_view all(reinterpret_cast<const char*>(image.data()), image.size());
    for (size_t at = 0; at + 1024 <= image.size(); at += 1024) {
        if (all.substr(at, 4) == "FILE" && all.substr(at, 1024).find(wanted) != all.npos) return at;
    }
    return 0;
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
    void operator()(Volume& volume) {
        FileRef file = 0;
        DirectoryListing listing;
        std::span<const uint8_t> stored;
        std::vector<uint8_t> bytes;
        FileInfo info = {};
        if (good(volumeList(volume, rootDirectory, listing))) right &= listing.entries.size() == 302;
        if (good(volumeFind(volume, u"\\deep\\file 7", file))) {
            if (good(volumeFileInfo(volume, file, info))) right &= info.size == 100'000;
            if (good(volumeDescriptor(volume, file, stored)))
                right &= std::ranges::equal(stored, descriptor(7));
            if (good(volumeReadFile(volume, file, 1 << 20, bytes)))
                right &= bytes == ByteVector(100'000, 'x');
        }
        FileRef none = 0;
        const NTSTATUS missing = volumeFind(volume, u"file 7777", none);
        if (missing != STATUS_OBJECT_NAME_NOT_FOUND) good(missing);
    }
};

/* Each read of a whole use fails in its turn, alone or with all that follow. */
TEST_F(TroubleTest, ARefusedReadIsNamedAndRemembered) {
    {
        OpenVolume opened(ntfsImage());
        FileRef deep = 0, file = 0;
        for (unsigned i = 0; i < 300; ++i)
            make(opened, u"a rather long name of a file " + std::u16string(1, char16_t(0x4E00 + i)));
        ASSERT_GE(volumeCreate(opened.get(), rootDirectory, u"deep", NewFile::directory, descriptor(1), deep),
                  0);
        make(opened, u"other");
        for (uint32_t i = 0; i < 20; ++i) {
            const auto name = u"file " + std::u16string(i < 10 ? 1 : 2, char16_t(u'0' + i % 10));
            ASSERT_GE(volumeCreate(opened.get(), deep, name, NewFile::file, descriptor(i), file), 0);
            ASSERT_GE(volumeWriteFile(opened.get(), file, 0, ByteVector(100'000, 'x')), 0);
        }
        ASSERT_EQ(opened.close(), STATUS_SUCCESS);
    }
    for (const bool once : {true, false}) {
        size_t refusals = 0, passed = 0, served = 0;
        for (long turn = 0;; ++turn) {
            images::failures = {};
            images::failures.preadsLeft = turn;
            images::failures.once = once;
            if (__lsan_disable != nullptr) __lsan_disable();
            OpenVolume opened(path("volume.img"), DiskAccess::readOnly);
            if (__lsan_enable != nullptr) __lsan_enable();
            if (opened.volume == nullptr) {
                EXPECT_EQ(opened.problem.status, STATUS_IO_DEVICE_ERROR) << opened.problem.text;
                continue;
            }
            Use use;
            use(opened.get());
            EXPECT_TRUE(use.right) << turn;
            Problem problem;
            const NTSTATUS told = diskReadWhole(*opened.disk, problem);
            /* Told also where the second copy of the descriptors has served. */
            const bool bySecond = told < 0 && use.worst >= 0;
            EXPECT_EQ(told, bySecond ? STATUS_IO_DEVICE_ERROR : use.worst) << turn << problem.text;
            served += bySecond ? 1 : 0;
            EXPECT_EQ(problem.text.find("(Input/output error)") != std::string::npos, told < 0)
                << problem.text;
            if (!images::failures.refused) break;
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
    {
        OpenVolume opened(ntfsImage());
        file = make(opened, u"broken");
        beyond = make(opened, u"beyond");
        ASSERT_GE(volumeCreate(opened.get(), rootDirectory, u"headless", NewFile::directory, descriptor(1),
                               headless),
                  0);
        for (unsigned i = 0; i < 60; ++i) {
            FileRef unused = 0;
            const auto name = u"a rather long name of a file " + std::u16string(1, char16_t(0x4E00 + i));
            ASSERT_GE(volumeCreate(opened.get(), headless, name, NewFile::file, descriptor(1), unused), 0);
        }
        ASSERT_EQ(opened.close(), STATUS_SUCCESS);
    }
    ByteVector image = images::readFile(path("volume.img"));
    images::putText(image, recordOffset(image, u"broken") + 510,
                    "??"); /* where the update sequence is checked */
    /* An update sequence at the end of its record, and attributes that would leave it room there. */
    images::put<uint16_t>(image, recordOffset(image, u"beyond") + 4, 1022);
    images::put<uint16_t>(image, recordOffset(image, u"beyond") + 20, 0xFFF8);
    size_t blocks =
        recordOffset(image, u"headless"); /* the attribute that says where the index's blocks are */
    ASSERT_NE(blocks, 0u);
    blocks += images::get<uint16_t>(image, blocks + 20);
    while (images::get<uint32_t>(image, blocks) != 0xA0) blocks += images::get<uint32_t>(image, blocks + 4);
    images::putText(image, blocks + images::get<uint16_t>(image, blocks + 10) + 6, "1"); /* $I30 */
    images::writeFile(path("volume.img"), image);

    OpenVolume opened(path("volume.img"), DiskAccess::readOnly);
    ASSERT_NE(opened.volume, nullptr) << opened.problem.text;
    Problem problem;
    EXPECT_EQ(diskReadWhole(*opened.disk, problem), STATUS_SUCCESS);
    FileInfo info = {};
    std::span<const uint8_t> stored;
    EXPECT_EQ(volumeFileInfo(opened.get(), file, info), STATUS_FILE_CORRUPT_ERROR);
    EXPECT_EQ(volumeDescriptor(opened.get(), file, stored), STATUS_FILE_CORRUPT_ERROR);
    EXPECT_EQ(diskReadWhole(*opened.disk, problem), STATUS_DISK_CORRUPT_ERROR);
    EXPECT_NE(
        problem.text.find(
            ": 1 file or directory of its volumes can't be read or reached for damage, the first by MFT "
            "record " +
            std::to_string(file & 0xFFFFFFFF)),
        std::string::npos)
        << problem.text;
    EXPECT_EQ(volumeFileInfo(opened.get(), beyond, info), STATUS_FILE_CORRUPT_ERROR);
    /* An index without its blocks is no empty one. */
    DirectoryListing listing;
    FileRef found = 0;
    EXPECT_EQ(volumeList(opened.get(), headless, listing), STATUS_FILE_CORRUPT_ERROR);
    EXPECT_EQ(volumeLookUp(opened.get(), headless, u"no such file", found), STATUS_FILE_CORRUPT_ERROR);
    EXPECT_EQ(diskTrouble(*opened.disk).damaged, 3u);
}

/* Another program cuts the image off while it is in use: nothing is read as zeros, and no write makes it
 * longer. */
TEST_F(TroubleTest, ADiskThatBecomesShorterIsADevicesError) {
    FileRef file = 0;
    {
        OpenVolume opened(ntfsImage());
        file = make(opened, u"file");
        ASSERT_EQ(volumeWriteFile(opened.get(), file, 0, ByteVector(1 << 20, 'x')), STATUS_SUCCESS);
        ASSERT_EQ(opened.close(), STATUS_SUCCESS);
    }
    OpenVolume opened(path("volume.img"));
    ASSERT_NE(opened.volume, nullptr) << opened.problem.text;
    std::filesystem::resize_file(path("volume.img"), 64 * 1024);
    std::vector<uint8_t> bytes;
    EXPECT_EQ(volumeReadFile(opened.get(), file, 1 << 21, bytes), STATUS_IO_DEVICE_ERROR);
    Problem problem;
    EXPECT_EQ(diskReadWhole(*opened.disk, problem), STATUS_IO_DEVICE_ERROR);
    EXPECT_NE(problem.text.find("became shorter"), std::string::npos) << problem.text;
    EXPECT_LT(volumeWriteFile(opened.get(), file, 0, ByteVector(1 << 20, 'y')), 0);
    EXPECT_LT(opened.close(), 0);
    EXPECT_EQ(std::filesystem::file_size(path("volume.img")), 64u * 1024);
}

TEST_F(TroubleTest, AnotherFileSystemsRemainsDoNotHideATable) {
    ByteVector disk(8 * images::mebibyte), volume = ntfs(4 * images::mebibyte, 2048);
    std::copy(volume.begin(), volume.end(), disk.begin() + images::mebibyte);
    images::putText(disk, 0x438, "\x53\xEF"); /* ext was on the whole disk once */
    auto search = [&](std::vector<Partition>& partitions) {
        images::writeFile(path("disk"), disk);
        DiskPtr opened;
        Problem problem;
        EXPECT_EQ(diskOpen(path("disk"), DiskAccess::readOnly, opened, problem), STATUS_SUCCESS);
        diskPartitions(*opened, partitions, problem);
        return problem.text;
    };
    std::vector<Partition> partitions;
    images::put<uint16_t>(disk, 510, 0xAA55); /* a table without entries, as a boot sector can look */
    EXPECT_NE(search(partitions).find("(found: ext)"), std::string::npos);
    images::putMbr(disk, {{2048, volume.size() / 512, 0x07}});
    EXPECT_EQ(search(partitions), "");
    ASSERT_EQ(partitions.size(), 1u);
    EXPECT_EQ(partitions[0].start, images::mebibyte);
}

} /* namespace */
