/* Disk images for the tests of this room, made on the fly. */
#ifndef QUILLET_TESTS_VOLUME_IMAGES_H
#define QUILLET_TESTS_VOLUME_IMAGES_H

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/offline/volume/volume.h"
#include "tests/support/fault_device.h"

namespace images {

using ByteVector = std::vector<uint8_t>;
constexpr size_t mebibyte = 1024 * 1024;

/* A directory of its own for each test, removed with everything in it. */
struct ImageTest : testing::Test {
    std::string directory;
    void SetUp() override;
    void TearDown() override;
    std::string path(const std::string& name) const { return directory + "/" + name; }

    /* The bytes of a freshly made NTFS volume that starts at an offset of its disk. */
    ByteVector ntfs(size_t size = 4 * mebibyte, uint64_t startSector = 0);
    /* The path of a raw image with a fresh volume. */
    std::string ntfsImage();
};

ByteVector readFile(const std::string& path);
void writeFile(const std::string& path, const ByteVector& bytes);
std::string outputOf(const std::string& command); /* standard output and error */

/* Little-endian numbers. */
template <class Number>
void put(ByteVector& bytes, size_t offset, Number value) {
    for (size_t i = 0; i < sizeof value; ++i) {
        bytes.at(offset + i) = static_cast<uint8_t>(static_cast<uint64_t>(value) >> (8 * i));
    }
}
template <class Number>
Number get(const ByteVector& bytes, size_t offset) {
    uint64_t value = 0;
    for (size_t i = 0; i < sizeof(Number); ++i) value |= uint64_t{bytes.at(offset + i)} << (8 * i);
    return static_cast<Number>(value);
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

/* What the devices of open volumes refuse from now on, and what they were asked. */
extern offline::Faults failures;

/* An open volume on a raw image. */
struct OpenVolume {
    offline::DiskPtr disk;
    offline::VolumePtr volume;
    offline::Problem problem;

    explicit OpenVolume(const std::string& path, offline::DiskAccess access = offline::DiskAccess::readWrite);
    offline::Volume& get() const { return *volume; }
    NTSTATUS close();
};

/* A self-relative descriptor whose owner and only entry are distinguished by the number. */
ByteVector descriptor(uint32_t number, uint16_t control = SE_SELF_RELATIVE | SE_DACL_PRESENT);

} /* namespace images */

#endif
