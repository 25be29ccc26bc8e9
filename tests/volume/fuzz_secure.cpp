/* SPDX-License-Identifier: GPL-2.0-or-later */
/* A volume whose file of descriptors is damaged anywhere: every descriptor is read, and where the volume may
 * be changed, new ones are stored. The input is a list of blows of four bytes each: where (three bytes), and
 * with what. */
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "platform/offline/descriptor/security_descriptor.h"
#include "tests/volume/images.h"

namespace {

using namespace offline;
using images::ByteVector;
using images::OpenVolume;

constexpr uint32_t files = 250;

void demand(bool fulfilled) {
    if (!fulfilled) std::abort();
}

struct Target {
    int device = memfd_create("volume", 0);
    std::string path = "/proc/self/fd/" + std::to_string(device);
    ByteVector sound;
    std::vector<size_t> struck; /* the offsets that blows fall on */

    Target() {
        const std::string image =
            std::filesystem::temp_directory_path() / ("fuzz-" + std::to_string(getpid()));
        images::makeNtfs(image, 3 * images::mebibyte);
        {
            OpenVolume opened(image);
            for (uint32_t i = 0; i < files; i++) opened.make({char16_t(0x4E00 + i)}, images::descriptor(i));
            demand(opened.close() >= 0);
        }
        sound = images::readFile(image);
        std::filesystem::remove(image);
        findStruck();
        demand(struck.size() > 4000);
    }
    void strike(size_t at, size_t count) {
        for (size_t i = 0; i < count; i++) struck.push_back(at + i);
    }
    /* The record of $Secure, the beginnings of its indexes' blocks, and some descriptors in both copies. */
    void findStruck() {
        strike(images::recordAt(sound, 9), 1024);
        for (size_t at = 0; at < sound.size(); at += 4096) {
            if (images::get<uint32_t>(sound, at) != 0x58444E49) continue; /* INDX */
            const size_t entry = at + 24 + images::get<uint32_t>(sound, at + 24);
            const uint16_t dataAt = images::get<uint16_t>(sound, entry);
            if (dataAt == 20 || dataAt == 24) strike(at, 400);
        }
        const ByteVector first = images::descriptor(0);
        for (auto at = sound.begin();; ++at) {
            at = std::search(at, sound.end(), first.begin(), first.end());
            if (at == sound.end()) return;
            strike(static_cast<size_t>(at - sound.begin()) - 20, 600);
        }
    }
};

void readAll(Volume& volume, DirectoryListing& listing) {
    if (volumeList(volume, rootDirectory, listing) < 0) return;
    for (const DirectoryEntry& entry : listing.entries) {
        Bytes descriptor;
        const bool read = volumeDescriptor(volume, entry.file, descriptor) >= 0;
        demand(read == descriptorValid(descriptor));
    }
}

void storeSome(Volume& volume, const DirectoryListing& listing) {
    for (uint32_t i = 0; i < std::min<size_t>(40, listing.entries.size()); i++) {
        const FileRef file = listing.entries[i].file;
        const ByteVector fresh = images::descriptor(1000 + i);
        Bytes stored;
        if (volumeSetDescriptor(volume, file, fresh) >= 0)
            demand(volumeDescriptor(volume, file, stored) >= 0 && sameBytes(fresh, stored));
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
    static const Target target;
    images::failures = {}; /* or what the devices were asked would fill the memory */
    ByteVector image = target.sound;
    for (; size >= 4; data += 4, size -= 4) {
        const size_t place = size_t{data[0]} | size_t{data[1]} << 8 | size_t{data[2]} << 16;
        image[target.struck[place % target.struck.size()]] = data[3];
    }
    demand(pwrite(target.device, image.data(), image.size(), 0) == static_cast<ssize_t>(image.size()));
    DirectoryListing listing;
    {
        const OpenVolume opened(target.path, DiskAccess::readOnly);
        demand(opened.volume != nullptr || !opened.problem.text.empty());
        if (opened.volume != nullptr) readAll(opened, listing);
    }
    OpenVolume opened(target.path);
    if (opened.volume == nullptr) return 0;
    readAll(opened, listing);
    storeSome(opened, listing);
    (void)opened.close();
    return 0;
}
