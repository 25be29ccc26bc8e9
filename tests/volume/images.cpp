/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "tests/volume/images.h"

#include <zlib.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "platform/offline/volume/partition_layout.h"
#include "tests/support/descriptors.h"

namespace offline::images {

Faults failures;

ByteVector ImageTest::ntfs(size_t size, uint64_t startSector) const {
    makeNtfs(path("fresh.img"), size, startSector);
    return readFile(path("fresh.img"));
}

ByteVector FreshVolumeTest::copyOf(const std::string& name) const {
    outputOf("(ntfscat -f " + image + " /" + name + " >" + path("copy") + ")");
    return readFile(path("copy"));
}

void FreshVolumeTest::expectAudited(const std::vector<std::string>& words) const {
    const std::string report = outputOf("ntfssecaudit -ar " + image);
    EXPECT_NE(report.find("All keys are present in all lists"), std::string::npos) << report;
    for (const std::string& told : words) EXPECT_NE(report.find(told), std::string::npos) << report;
}

void makeNtfs(const std::string& image, size_t size, uint64_t startSector) {
    writeFile(image, {});
    std::filesystem::resize_file(image, size);
    const std::string made = outputOf("PATH=$PATH:/sbin:/usr/sbin mkntfs -F -Q -q -s 512 -H 255 -S 63 -p " +
                                      std::to_string(startSector) + " " + image);
    EXPECT_EQ(numberAt<uint64_t>(readFile(image), 3), 0x202020205346544Eu) << made;
}

ByteVector readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    ByteVector bytes(std::filesystem::file_size(path));
    EXPECT_TRUE(
        file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size())).good());
    return bytes;
}

void writeFile(const std::string& path, const ByteVector& bytes) {
    std::filesystem::remove(path); /* a file written over would be put on the medium at once */
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    ASSERT_TRUE(file.flush().good());
}

std::string outputOf(const std::string& command) {
    std::string text;
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    std::array<char, 4096> buffer;
    while (size_t count = fread(buffer.data(), 1, buffer.size(), pipe)) text.append(buffer.data(), count);
    pclose(pipe);
    return text;
}

void putText(ByteVector& bytes, size_t offset, std::string_view text) {
    ASSERT_LE(offset + text.size(), bytes.size());
    std::memcpy(bytes.data() + offset, text.data(), text.size());
}

void putMbr(ByteVector& disk, const std::vector<TablePart>& parts) {
    put<uint32_t>(disk, 440, mbrSignature);
    put<uint16_t>(disk, 510, 0xAA55);
    for (size_t i = 0; i < parts.size(); ++i) {
        size_t entry = 446 + 16 * i;
        disk[entry + 4] = parts[i].type;
        put(disk, entry + 8, static_cast<uint32_t>(parts[i].start));
        put(disk, entry + 12, static_cast<uint32_t>(parts[i].count));
    }
}

void sealGptHeader(ByteVector& disk, size_t offset) {
    put<uint32_t>(disk, offset + 16, 0);
    put<uint32_t>(disk, offset + 16, static_cast<uint32_t>(crc32_z(0, disk.data() + offset, 92)));
}

static void putGptCopy(ByteVector& disk, size_t sectorSize, uint64_t header, uint64_t array,
                       const std::vector<TablePart>& parts) {
    for (size_t i = 0; i < parts.size(); ++i) {
        size_t entry = array * sectorSize + 128 * i;
        std::memcpy(disk.data() + entry, gpt::basicData.data(), 16);
        std::memset(disk.data() + entry + 16, static_cast<int>(i + 1), 16);
        put<uint64_t>(disk, entry + 32, parts[i].start);
        put<uint64_t>(disk, entry + 40, parts[i].start + parts[i].count - 1);
    }
    size_t at = header * sectorSize;
    putText(disk, at, "EFI PART");
    put<uint32_t>(disk, at + 8, 0x10000);
    put<uint32_t>(disk, at + 12, 92);
    put<uint64_t>(disk, at + 24, header);
    put<uint64_t>(disk, at + 72, array);
    put<uint32_t>(disk, at + 80, 128);
    put<uint32_t>(disk, at + 84, 128);
    put<uint32_t>(disk, at + 88,
                  static_cast<uint32_t>(crc32_z(0, disk.data() + array * sectorSize, 128 * 128)));
    sealGptHeader(disk, at);
}

void putGpt(ByteVector& disk, size_t sectorSize, const std::vector<TablePart>& parts) {
    putMbr(disk, {{1, 0xFFFFFFFF, 0xEE}});
    uint64_t sectors = disk.size() / sectorSize, arraySectors = 128 * 128 / sectorSize;
    putGptCopy(disk, sectorSize, 1, 2, parts);
    putGptCopy(disk, sectorSize, sectors - 1, sectors - 1 - arraySectors, parts);
}

size_t recordAt(const ByteVector& image, FileRef file, size_t mft) {
    return numberAt<uint64_t>(image, mft) * image[0x0D] * 512 + (file & UINT32_MAX) * 1024;
}

size_t attributeAt(const ByteVector& image, FileRef file, uint32_t type, size_t mft) {
    size_t at = recordAt(image, file, mft);
    at += numberAt<uint16_t>(image, at + 20);
    while (numberAt<uint32_t>(image, at) < type) at += numberAt<uint32_t>(image, at + 4);
    EXPECT_EQ(numberAt<uint32_t>(image, at), type);
    return at;
}

size_t valueAt(const ByteVector& image, FileRef file, uint32_t type, size_t mft) {
    const size_t at = attributeAt(image, file, type, mft);
    return at + numberAt<uint16_t>(image, at + 20);
}

std::vector<size_t> secureBlocks(const ByteVector& image) {
    std::vector<size_t> blocks;
    for (size_t at = 0; at < image.size(); at += 4096) {
        if (numberAt<uint32_t>(image, at) != 0x58444E49) continue; /* INDX */
        const auto dataAt = numberAt<uint16_t>(image, firstEntry(image, at));
        if (dataAt == 20 || dataAt == 24) blocks.push_back(at);
    }
    return blocks;
}

size_t firstEntry(const ByteVector& image, size_t block) {
    return block + 24 + numberAt<uint32_t>(image, block + 24);
}

ByteVector descriptor(uint32_t number, uint16_t control) {
    const std::string who = "S-1-5-21-1-2-3-" + std::to_string(number);
    ByteVector bytes = ::descriptor(who, admins, {}, acl({ace(0, 0, 0x1F01FF, who)}));
    put(bytes, 2, control);
    return bytes;
}

OpenVolume::OpenVolume(const std::string& path, DiskAccess access) {
    std::vector<offline::Partition> partitions;
    BlockDevicePtr file;
    if (deviceOpen(path, access, file, problem) < 0) return;
    file = std::make_unique<offline::FaultDevice>(std::move(file), failures);
    if (diskOver(std::move(file), access, disk) < 0) return;
    if (diskPartitions(*disk, partitions, problem) < 0) return;
    volumeOpen(*disk, partitions.at(0), volume, problem);
}

NTSTATUS OpenVolume::close() {
    NTSTATUS status = volumeClose(std::move(volume));
    disk.reset();
    return status;
}

FileRef OpenVolume::make(const std::u16string& name, const ByteVector& descriptor, FileRef directory,
                         NewFile kind) {
    FileRef file = 0;
    EXPECT_EQ(volumeCreate(*volume, directory, name, kind, descriptor, file), STATUS_SUCCESS);
    return file;
}

FileRef OpenVolume::makeDirectory(const std::u16string& name, FileRef directory) {
    return make(name, descriptor(1), directory, NewFile::directory);
}

FileRef OpenVolume::fill(FileRef directory, unsigned count) {
    FileRef last = 0;
    for (unsigned i = 0; i < count; ++i) {
        const std::u16string name =
            u"a rather long name of a file " + std::u16string(1, char16_t(0x4E00 + i));
        last = make(name, descriptor(1), directory);
    }
    return last;
}

ByteVector OpenVolume::read(FileRef file) {
    Bytes bytes;
    EXPECT_EQ(volumeDescriptor(*volume, file, bytes), STATUS_SUCCESS);
    return {bytes.begin(), bytes.end()};
}

std::vector<std::u16string> OpenVolume::names(FileRef directory) {
    DirectoryListing listing;
    EXPECT_EQ(volumeList(*volume, directory, listing), STATUS_SUCCESS);
    std::vector<std::u16string> result;
    for (const DirectoryEntry& entry : listing.entries) result.emplace_back(listing.name(entry));
    return result;
}

} /* namespace offline::images */
