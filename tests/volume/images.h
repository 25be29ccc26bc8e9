/* Disk images for the tests of this room, made on the fly. */
#ifndef QUILLET_TESTS_VOLUME_IMAGES_H
#define QUILLET_TESTS_VOLUME_IMAGES_H

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/offline/volume/volume.h"

namespace images {

using ByteVector = std::vector<uint8_t>;
constexpr size_t mebibyte = 1024 * 1024;

/* A directory of its own for each test, removed with everything in it. */
/* A loop device over a part of a file, until the end; without a name where the system lends none. */
struct LoopDevice {
    std::string name;
    LoopDevice(const std::string& file, uint64_t offset, uint64_t size);
    ~LoopDevice();
    LoopDevice(const LoopDevice&) = delete;
    LoopDevice& operator=(const LoopDevice&) = delete;
};

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

/* The calls of the system that fail from now on: those after the first so many. */
struct Failures {
    long preadsLeft = -1, pwritesLeft = -1, fdatasyncsLeft = -1; /* negative: all succeed */
    bool once = false;                                           /* only the first of those fails */
    bool refused = false;                                        /* a read was */
    int pwriteError = 5;
    std::vector<std::pair<char, long>> calls; /* 'w' and its offset, 's' */
};
extern Failures failures;

} /* namespace images */

#endif
