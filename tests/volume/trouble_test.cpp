/* What trouble on a disk must not spread to, and what it must not be taken for. */
#include <algorithm>

#include "tests/volume/images.h"

using namespace offline;
using images::Bytes;
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

/* The places of a volume's flags, in the MFT and in its mirror. */
std::vector<size_t> flagPlaces(const Bytes& image) {
    const size_t cluster = image[0x0D] * size_t{512};
    std::vector<size_t> places;
    for (size_t start : {size_t{0x30}, size_t{0x38}}) {
        const size_t record = images::get<uint64_t>(image, start) * cluster + size_t{3} * 1024;
        size_t at = record + images::get<uint16_t>(image, record + 20);
        while (images::get<uint32_t>(image, at) != 0x70) at += images::get<uint32_t>(image, at + 4);
        places.push_back(at + images::get<uint16_t>(image, at + 20) + 10);
    }
    return places;
}

TEST_F(TroubleTest, FlagsWithoutANameSurviveAChange) {
    Bytes image = ntfs();
    for (size_t place : flagPlaces(image)) images::put<uint16_t>(image, place, 0x0180);
    images::writeFile(path("volume.img"), image);
    OpenVolume opened(path("volume.img"));
    ASSERT_NE(opened.volume, nullptr) << opened.problem.text;
    make(opened, u"file");
    ASSERT_EQ(volumeFlush(opened.get()), STATUS_SUCCESS);
    image = images::readFile(path("volume.img"));
    for (size_t place : flagPlaces(image)) EXPECT_EQ(images::get<uint16_t>(image, place), 0x0181);
    ASSERT_EQ(opened.close(), STATUS_SUCCESS);
    image = images::readFile(path("volume.img"));
    for (size_t place : flagPlaces(image)) EXPECT_EQ(images::get<uint16_t>(image, place), 0x0180);
}

TEST_F(TroubleTest, AFailedChangeKeepsNoOtherFromTheMedium) {
    OpenVolume opened(ntfsImage());
    const FileRef small = make(opened, u"small"), large = make(opened, u"large");
    ASSERT_EQ(volumeWriteFile(opened.get(), small, 0, Bytes(10'000, 's')), STATUS_SUCCESS);
    ASSERT_EQ(volumeWriteFile(opened.get(), large, 0, Bytes(8 * images::mebibyte)), STATUS_DISK_FULL);
    ASSERT_EQ(volumeWriteFile(opened.get(), small, 0, Bytes(10'000, 't')), STATUS_SUCCESS);
    EXPECT_EQ(volumeFlush(opened.get()), STATUS_SUCCESS);
    /* It is told all the same, and the mark stays. */
    EXPECT_LT(opened.close(), 0);
    EXPECT_NE(images::outputOf("ntfsinfo -fm " + path("volume.img")).find("0x0001 DIRTY"), std::string::npos);
}

TEST_F(TroubleTest, AnotherFileSystemsRemainsDoNotHideATable) {
    Bytes disk(8 * images::mebibyte), volume = ntfs(4 * images::mebibyte, 2048);
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
