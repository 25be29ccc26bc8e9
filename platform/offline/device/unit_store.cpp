#include "platform/offline/device/unit_store.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/offline/base/streams.h"

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

size_t UnitStore::lengthInChunk(uint64_t position, size_t wanted) const {
    return std::min({uint64_t{wanted}, chunkBytes - position % chunkBytes, bound() - position});
}

uint8_t* UnitStore::inChunk(uint64_t position) const {
    return chunks[position / chunkBytes].get() + position % chunkBytes;
}

DeviceError UnitStore::write(uint32_t slot, size_t offset, Bytes bytes) {
    uint64_t position = uint64_t{slot} * unitSize + offset;
    while (!bytes.empty() && position < bound()) {
        while (position / chunkBytes >= chunks.size()) {
            chunks.push_back(std::make_unique_for_overwrite<uint8_t[]>(chunkBytes));
        }
        const size_t length = lengthInChunk(position, bytes.size());
        std::memcpy(inChunk(position), bytes.data(), length);
        position += length;
        bytes = bytes.subspan(length);
    }
    return bytes.empty() ? 0 : writeFile(position - bound(), bytes);
}

DeviceError UnitStore::read(uint32_t slot, size_t offset, std::span<uint8_t> bytes) const {
    uint64_t position = uint64_t{slot} * unitSize + offset;
    while (!bytes.empty() && position < bound()) {
        const size_t length = lengthInChunk(position, bytes.size());
        std::memcpy(bytes.data(), inChunk(position), length);
        position += length;
        bytes = bytes.subspan(length);
    }
    return bytes.empty() ? 0 : readFile(position - bound(), bytes);
}

DeviceError UnitStore::writeFile(uint64_t offset, Bytes bytes) {
    if (const DeviceError error = openFile()) return error;
    while (!bytes.empty()) {
        const ssize_t done = pwrite(file, bytes.data(), bytes.size(), static_cast<off_t>(offset));
        if (done < 0 && errno == EINTR) continue;
        if (done <= 0) return done < 0 ? errno : EIO;
        bytes = bytes.subspan(static_cast<size_t>(done));
        offset += static_cast<uint64_t>(done);
    }
    return 0;
}

DeviceError UnitStore::readFile(uint64_t offset, std::span<uint8_t> bytes) const {
    while (!bytes.empty()) {
        const ssize_t done = pread(file, bytes.data(), bytes.size(), static_cast<off_t>(offset));
        if (done < 0 && errno == EINTR) continue;
        if (done <= 0) return done < 0 ? errno : EIO;
        bytes = bytes.subspan(static_cast<size_t>(done));
        offset += static_cast<uint64_t>(done);
    }
    return 0;
}

} /* namespace offline */
