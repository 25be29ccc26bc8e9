/* The contents of an overlay's changed units by slot: in memory up to a bound, then in a temporary file that
 * has no name, so that it is gone with the process whatever ends it. */
#ifndef QUILLET_OFFLINE_DEVICE_UNIT_STORE_H
#define QUILLET_OFFLINE_DEVICE_UNIT_STORE_H

#include <memory>
#include <span>
#include <string>
#include <vector>

#include "platform/offline/base/bytes.h"
#include "platform/offline/device/block_device.h"

namespace offline {

constexpr size_t unitSize = 1024; /* bytes; at the end of a device a unit may be short */

struct UnitStore {
    /* The temporary file is made in the directory when the units in memory reach the bound, in bytes. */
    UnitStore(std::string inDirectory, size_t bound) : directory(std::move(inDirectory)), inMemory(bound) {}
    ~UnitStore();
    UnitStore(const UnitStore&) = delete;
    UnitStore& operator=(const UnitStore&) = delete;

    /* Both take a part of one slot; read asks for what was written only. write may throw std::bad_alloc. */
    DeviceError write(uint32_t slot, size_t offset, Bytes bytes);
    DeviceError read(uint32_t slot, size_t offset, std::span<uint8_t> bytes) const;

    const std::string directory;

private:
    static constexpr size_t chunkUnits = 1024;
    const size_t inMemory;
    std::vector<std::unique_ptr<uint8_t[]>> chunks;
    int file = -1;

    uint8_t* place(uint32_t slot) const; /* null when it is kept in the file */
    DeviceError openFile();
};

} /* namespace offline */

#endif
