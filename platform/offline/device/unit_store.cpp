#include "platform/offline/device/unit_store.h"

#include <fcntl.h>
#include <unistd.h>

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

uint8_t* UnitStore::place(uint32_t slot) const {
    if (slot >= inMemory / unitSize) return nullptr;
    return chunks[slot / chunkUnits].get() + slot % chunkUnits * unitSize;
}

DeviceError UnitStore::write(uint32_t slot, size_t offset, Bytes bytes) {
    while (slot < inMemory / unitSize && slot / chunkUnits >= chunks.size()) {
        chunks.push_back(std::make_unique_for_overwrite<uint8_t[]>(chunkUnits * unitSize));
    }
    if (uint8_t* const kept = place(slot)) {
        std::memcpy(kept + offset, bytes.data(), bytes.size());
        return 0;
    }
    if (const DeviceError error = openFile()) return error;
    uint64_t at = (slot - inMemory / unitSize) * unitSize + offset;
    while (!bytes.empty()) {
        const ssize_t done = pwrite(file, bytes.data(), bytes.size(), static_cast<off_t>(at));
        if (done < 0 && errno == EINTR) continue;
        if (done <= 0) return done < 0 ? errno : EIO;
        bytes = bytes.subspan(static_cast<size_t>(done));
        at += static_cast<uint64_t>(done);
    }
    return 0;
}

DeviceError UnitStore::read(uint32_t slot, size_t offset, std::span<uint8_t> bytes) const {
    if (const uint8_t* const kept = place(slot)) {
        std::memcpy(bytes.data(), kept + offset, bytes.size());
        return 0;
    }
    uint64_t at = (slot - inMemory / unitSize) * unitSize + offset;
    while (!bytes.empty()) {
        const ssize_t done = pread(file, bytes.data(), bytes.size(), static_cast<off_t>(at));
        if (done < 0 && errno == EINTR) continue;
        if (done <= 0) return done < 0 ? errno : EIO;
        bytes = bytes.subspan(static_cast<size_t>(done));
        at += static_cast<uint64_t>(done);
    }
    return 0;
}

} /* namespace offline */
