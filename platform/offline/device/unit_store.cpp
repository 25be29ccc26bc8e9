/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/device/unit_store.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include "platform/offline/base/streams.h"
#include "platform/offline/device/file_transfer.h"

namespace offline {
namespace {

/* For file systems without unnamed files. */
int createAndUnlink(const std::string& directory) {
    std::string path = directory + "/.quillet-XXXXXX";
    const int file = mkostemp(path.data(), O_CLOEXEC);
    if (file >= 0) unlink(path.c_str());
    return file;
}

} /* namespace */

UnitStore::~UnitStore() {
    if (file >= 0) close(file);
}

DeviceError UnitStore::openFile() {
    if (file >= 0) return 0;
    int opened = open(directory.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (opened < 0 && (errno == EOPNOTSUPP || errno == EISDIR || errno == EINVAL || errno == ENOENT)) {
        opened = createAndUnlink(directory);
    }
    file = aboveStandard(opened);
    return file >= 0 ? 0 : errno;
}

void UnitStore::Free::operator()(uint8_t* freed) const {
    free(freed);
}

UnitStore::Chunk UnitStore::newChunk() {
    Chunk chunk(static_cast<uint8_t*>(aligned_alloc(chunkBytes, chunkBytes)));
    if (chunk == nullptr) throw std::bad_alloc();
    madvise(chunk.get(), chunkBytes, MADV_HUGEPAGE); /* a wish */
    return chunk;
}

size_t UnitStore::lengthInChunk(uint64_t position, size_t wanted) const {
    return std::min({uint64_t{wanted}, chunkBytes - position % chunkBytes, bound() - position});
}

uint8_t* UnitStore::inChunk(uint64_t position) const {
    return chunks[position / chunkBytes].get() + position % chunkBytes;
}

DeviceError UnitStore::write(uint32_t slot, size_t offset, Bytes bytes) {
    uint64_t position = uint64_t{slot} * slotSize + offset;
    while (!bytes.empty() && position < bound()) {
        while (position / chunkBytes >= chunks.size()) {
            chunks.push_back(newChunk());
        }
        const size_t length = lengthInChunk(position, bytes.size());
        std::memcpy(inChunk(position), bytes.data(), length);
        position += length;
        bytes = bytes.subspan(length);
    }
    return bytes.empty() ? 0 : writeOn(position - bound(), bytes);
}

DeviceError UnitStore::read(uint32_t slot, size_t offset, std::span<uint8_t> bytes) const {
    uint64_t position = uint64_t{slot} * slotSize + offset;
    while (!bytes.empty() && position < bound()) {
        const size_t length = lengthInChunk(position, bytes.size());
        std::memcpy(bytes.data(), inChunk(position), length);
        position += length;
        bytes = bytes.subspan(length);
    }
    return bytes.empty() ? 0 : readOn(position - bound(), bytes);
}

/* New slots follow each other: they are gathered in the tail, and go to the file together when another one
 * has no room in it. */
DeviceError UnitStore::writeOn(uint64_t offset, Bytes bytes) {
    if (const DeviceError error = openFile()) return error;
    tail.reserve(tailBytes);
    while (!bytes.empty()) {
        DeviceError error = 0;
        size_t length = 0;
        if (offset < tailStart) {
            length = static_cast<size_t>(std::min<uint64_t>(bytes.size(), tailStart - offset));
            error = fileWriteAt(file, offset, bytes.first(length));
        } else if (offset > tailStart + tail.size() || offset == tailStart + tailBytes) {
            error = fileWriteAt(file, tailStart, tail);
            if (error == 0) tail.clear();
            if (error == 0) tailStart = offset;
        } else {
            const size_t start = offset - tailStart;
            length = std::min(bytes.size(), tailBytes - start);
            tail.resize(std::max(tail.size(), start + length));
            std::memcpy(&tail[start], bytes.data(), length);
        }
        if (error != 0) return error;
        bytes = bytes.subspan(length);
        offset += length;
    }
    return 0;
}

DeviceError UnitStore::readOn(uint64_t offset, std::span<uint8_t> bytes) const {
    while (!bytes.empty()) {
        const bool inTail = offset >= tailStart && offset < tailStart + tail.size();
        const uint64_t most = inTail               ? tailStart + tail.size() - offset
                              : offset < tailStart ? tailStart - offset
                                                   : bytes.size();
        const auto part = bytes.first(static_cast<size_t>(std::min<uint64_t>(bytes.size(), most)));
        if (inTail) {
            std::memcpy(part.data(), &tail[offset - tailStart], part.size());
        } else if (const DeviceError error = fileReadAt(file, offset, part)) {
            return error;
        }
        bytes = bytes.subspan(part.size());
        offset += part.size();
    }
    return 0;
}

} /* namespace offline */
