/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Disk images for tests, made on the fly. */
#ifndef QUILLET_TESTS_VOLUME_IMAGES_H
#define QUILLET_TESTS_VOLUME_IMAGES_H

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "platform/offline/volume/volume.h"
#include "tests/support/fault_device.h"
#include "tests/support/scratch_directory.h"

namespace offline::images {

constexpr size_t mebibyte = 1024 * 1024;

/* What the devices of open volumes refuse from now on, and what they were asked. */
extern Faults failures;

struct ImageTest : testing::Test {
    ScratchDirectory directory;
    ImageTest() { failures = {}; }
    ~ImageTest() override { failures = {}; }
    std::string path(const std::string& name) const { return directory.at(name); }

    /* The bytes of a freshly made NTFS volume that starts at an offset of its disk. */
    ByteVector ntfs(size_t size = 4 * mebibyte, uint64_t startSector = 0) const;
};

/* Makes the file anew, with a fresh NTFS volume that starts at a sector of its disk. */
void makeNtfs(const std::string& image, size_t size, uint64_t startSector = 0);
ByteVector readFile(const std::string& path);
void writeFile(const std::string& path, const ByteVector& bytes);
std::string outputOf(const std::string& command); /* standard output and error */

template <class Number>
void put(ByteVector& bytes, size_t offset, Number value) {
    for (size_t i = 0; i < sizeof value; ++i) {
        bytes.at(offset + i) = static_cast<uint8_t>(static_cast<uint64_t>(value) >> (8 * i));
    }
}
void putText(ByteVector& bytes, size_t offset, std::string_view text);

struct TablePart {
    uint64_t start, count; /* sectors */
    uint8_t type = 0x07;   /* mbr */
};
constexpr uint32_t mbrSignature = 0x12345678;
void putMbr(ByteVector& disk, const std::vector<TablePart>& parts);
/* Protective MBR, primary and backup table; partition i has GUID bytes i + 1. */
void putGpt(ByteVector& disk, size_t sectorSize, const std::vector<TablePart>& parts);
void sealGptHeader(ByteVector& disk, size_t offset);

/* Where a file's MFT record, and the value of a resident attribute in it, lie in a volume whose MFT is in one
 * piece; mft: the field of the boot sector that says where that, or its mirror, begins. */
constexpr size_t mftField = 0x30, mirrorField = 0x38;
size_t recordAt(const ByteVector& image, FileRef file, size_t mft = mftField);
size_t attributeAt(const ByteVector& image, FileRef file, uint32_t type, size_t mft = mftField);
size_t valueAt(const ByteVector& image, FileRef file, uint32_t type, size_t mft = mftField);

/* The file of descriptors, and where the blocks of its two indexes and the first entry of one lie. */
constexpr FileRef secureFile = 9;
std::vector<size_t> secureBlocks(const ByteVector& image);
size_t firstEntry(const ByteVector& image, size_t block);

/* A self-relative descriptor whose owner and only entry are distinguished by the number. */
ByteVector descriptor(uint32_t number, uint16_t control = SE_SELF_RELATIVE | SE_DACL_PRESENT);

/* An open volume on a raw image. */
struct OpenVolume {
    DiskPtr disk;
    VolumePtr volume; /* null: refused */
    Problem problem;

    explicit OpenVolume(const std::string& path, DiskAccess access = DiskAccess::readWrite);
    operator Volume&() const { return *volume; }
    NTSTATUS close();

    FileRef make(const std::u16string& name, const ByteVector& stored = descriptor(1),
                 FileRef directory = rootDirectory, NewFile kind = NewFile::file);
    FileRef makeDirectory(const std::u16string& name, FileRef directory = rootDirectory);
    /* So many files with long names; the last one. */
    FileRef fill(FileRef directory, unsigned count);
    ByteVector read(FileRef file);
    std::vector<std::u16string> names(FileRef directory = rootDirectory);
};

/* With a raw image of a fresh volume. */
struct FreshVolumeTest : ImageTest {
    std::string image = path("volume.img");
    FreshVolumeTest() { makeNtfs(image, 4 * mebibyte); }

    /* The bytes of the image after changes of its volume. */
    template <class Changes>
    ByteVector changed(Changes changes) const {
        OpenVolume opened(image);
        changes(opened);
        EXPECT_EQ(opened.close(), STATUS_SUCCESS);
        return readFile(image);
    }
    /* What other programs read: a file of the root directory, and whether the indexes of descriptors agree;
     * words: what is to be said of them besides. */
    ByteVector copyOf(const std::string& name) const;
    void expectAudited(const std::vector<std::string>& words = {}) const;
};

} /* namespace offline::images */

#endif
