/* SPDX-License-Identifier: GPL-2.0-or-later */
/* A volume whose file of descriptors is damaged anywhere: every descriptor is read, and where the volume may
 * be changed, new ones are stored. The input is a list of blows of four bytes each: where (three bytes), and
 * with what. */
#include <algorithm>
#include <cstdlib>

#include "platform/offline/descriptor/security_descriptor.h"
#include "tests/volume/images.h"

namespace offline::images {
namespace {

constexpr uint32_t files = 250;

void demand(bool fulfilled) {
    if (!fulfilled) std::abort();
}

struct Target {
    ScratchDirectory directory;
    const std::string image = directory.at("volume.img");
    ByteVector sound;
    std::vector<size_t> struck; /* the offsets that blows fall on */

    Target() {
        makeNtfs(image, 3 * mebibyte);
        OpenVolume opened(image);
        for (uint32_t i = 0; i < files; i++) opened.make({char16_t(0x4E00 + i)}, descriptor(i));
        demand(opened.close() >= 0);
        sound = readFile(image);
        findStruck();
        demand(struck.size() > 4000);
    }
    void strike(size_t at, size_t count) {
        for (size_t i = 0; i < count; i++) struck.push_back(at + i);
    }
    /* The record of $Secure, the beginnings of its indexes' blocks, and some descriptors in both copies. */
    void findStruck() {
        strike(recordAt(sound, secureFile), 1024);
        for (const size_t block : secureBlocks(sound)) strike(block, 400);
        const ByteVector first = descriptor(0);
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
        const ByteVector fresh = descriptor(1000 + i);
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
    failures = {}; /* or what the devices were asked would fill the memory */
    ByteVector image = target.sound;
    for (; size >= 4; data += 4, size -= 4) {
        const size_t place = size_t{data[0]} | size_t{data[1]} << 8 | size_t{data[2]} << 16;
        image[target.struck[place % target.struck.size()]] = data[3];
    }
    writeFile(target.image, image);
    DirectoryListing listing;
    {
        const OpenVolume opened(target.image, DiskAccess::readOnly);
        demand(opened.volume != nullptr || !opened.problem.text.empty());
        if (opened.volume != nullptr) readAll(opened, listing);
    }
    OpenVolume opened(target.image);
    if (opened.volume == nullptr) return 0;
    readAll(opened, listing);
    storeSome(opened, listing);
    (void)opened.close();
    return 0;
}

} /* namespace offline::images */
