/* A volume whose file of descriptors is damaged anywhere: every descriptor is read, and where the volume may
 * be changed, new ones are stored. The input is a list of blows of four bytes each: where (three bytes), and
 * with what. */
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "platform/offline/descriptor/security_descriptor.h"
#include "platform/offline/volume/volume.h"

namespace {

using namespace offline;
using Image = std::vector<uint8_t>;

constexpr size_t imageSize = 3 * 1024 * 1024;
constexpr uint32_t files = 250;
int device = -1;
std::string path;
Image sound;
std::vector<size_t> targets; /* the offsets that are struck */

void demand(bool fulfilled) {
    if (!fulfilled) std::abort();
}

Image numbered(uint32_t number) {
    DescriptorParts parts;
    const Image sid = sidFromText("S-1-5-21-1-2-3-" + std::to_string(number));
    parts.control = SE_DACL_PRESENT;
    parts.owner = parts.group = sid;
    return layOut(parts);
}

struct Opened {
    DiskPtr disk;
    VolumePtr volume;
    explicit Opened(DiskAccess access) {
        Problem problem;
        std::vector<Partition> partitions;
        demand(diskOpen(path, access, disk, problem) >= 0);
        if (diskPartitions(*disk, partitions, problem) < 0 || partitions.empty()) return;
        if (volumeOpen(*disk, partitions[0], volume, problem) < 0) demand(!problem.text.empty());
    }
};

void addTargets(size_t at, size_t count) {
    for (size_t i = 0; i < count; i++) targets.push_back(at + i);
}

uint64_t number(size_t at, size_t size) {
    uint64_t value = 0;
    std::memcpy(&value, &sound[at], size);
    return value;
}

/* The record of $Secure, the beginnings of its indexes' blocks, and some descriptors in both copies. */
void findTargets() {
    addTargets(number(0x30, 8) * sound[0x0D] * 512 + size_t{9} * 1024, 1024);
    for (size_t at = 0; at < imageSize; at += 4096) {
        const size_t entry = at + 24 + number(at + 24, 4);
        if (std::memcmp(&sound[at], "INDX", 4) != 0 || entry + 2 > imageSize) continue;
        if (number(entry, 2) == 20 || number(entry, 2) == 24) addTargets(at, 400);
    }
    const Image first = numbered(0);
    for (auto at = sound.begin();; ++at) {
        at = std::search(at, sound.end(), first.begin(), first.end());
        if (at == sound.end()) break;
        addTargets(static_cast<size_t>(at - sound.begin()) - 20, 600);
    }
}

void putImage() {
    demand(pwrite(device, sound.data(), imageSize, 0) == static_cast<ssize_t>(imageSize));
}

void prepare() {
    device = memfd_create("volume", 0);
    const std::string number = std::to_string(device);
    path = "/proc/self/fd/" + number;
    demand(ftruncate(device, imageSize) == 0);
    const std::string outside = "/proc/" + std::to_string(getpid()) + "/fd/" + number;
    demand(std::system(("PATH=$PATH:/sbin:/usr/sbin mkntfs -F -Q -q -s 512 -H 255 -S 63 -p 0 " + outside +
                        " >/dev/null 2>&1")
                           .c_str()) == 0);
    {
        Opened opened(DiskAccess::readWrite);
        demand(opened.volume != nullptr);
        for (uint32_t i = 0; i < files; i++) {
            FileRef made = 0;
            const std::u16string name(1, static_cast<char16_t>(0x4E00 + i));
            demand(volumeCreate(*opened.volume, rootDirectory, name, NewFile::file, numbered(i), made) >= 0);
        }
        demand(volumeClose(std::move(opened.volume)) >= 0);
    }
    sound.resize(imageSize);
    demand(pread(device, sound.data(), imageSize, 0) == static_cast<ssize_t>(imageSize));
    findTargets();
    demand(targets.size() > 4000);
}

void readAll(Volume& volume, DirectoryListing& listing) {
    if (volumeList(volume, rootDirectory, listing) < 0) return;
    for (const DirectoryEntry& entry : listing.entries) {
        std::span<const uint8_t> descriptor;
        const bool read = volumeDescriptor(volume, entry.file, descriptor) >= 0;
        demand(read == descriptorValid(descriptor));
    }
}

void storeSome(Volume& volume, const DirectoryListing& listing) {
    uint32_t count = 0;
    for (const DirectoryEntry& entry : listing.entries) {
        const Image fresh = numbered(1000 + count);
        std::span<const uint8_t> stored;
        if (volumeSetDescriptor(volume, entry.file, fresh) >= 0) {
            demand(volumeDescriptor(volume, entry.file, stored) >= 0 &&
                   std::equal(fresh.begin(), fresh.end(), stored.begin(), stored.end()));
        }
        if (++count == 40) break;
    }
}

} /* namespace */

/* What libntfs-3g leaks itself; its functions have no frame pointers to follow. */
extern "C" const char* __lsan_default_suppressions() {
    return "leak:ntfs_open_secure\n";
}
extern "C" const char* __asan_default_options() {
    return "fast_unwind_on_malloc=0";
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (device < 0) prepare();
    putImage();
    for (; size >= 4; data += 4, size -= 4) {
        const size_t at =
            targets[(size_t{data[0]} | size_t{data[1]} << 8 | size_t{data[2]} << 16) % targets.size()];
        demand(pwrite(device, data + 3, 1, static_cast<off_t>(at)) == 1);
    }
    DirectoryListing listing;
    {
        const Opened opened(DiskAccess::readOnly);
        if (opened.volume != nullptr) readAll(*opened.volume, listing);
    }
    Opened opened(DiskAccess::readWrite);
    if (opened.volume == nullptr) return 0;
    readAll(*opened.volume, listing);
    storeSome(*opened.volume, listing);
    (void)volumeClose(std::move(opened.volume));
    return 0;
}
