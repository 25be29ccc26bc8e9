/* SPDX-License-Identifier: GPL-2.0-or-later */
/* What an overlay keeps of its changed units, by slot, all slots of one size: in memory up to a bound, then
 * in a temporary file that has no name, so that it is gone with the process whatever ends it. */
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
    /* Sizes in bytes. The temporary file is made in the directory when the slots in memory reach the bound.
     */
    UnitStore(std::string inDirectory, size_t sizeOfSlot, size_t bound)
        : directory(std::move(inDirectory)), slotSize(sizeOfSlot), inMemory(bound) {}
    ~UnitStore();
    UnitStore(const UnitStore&) = delete;
    UnitStore& operator=(const UnitStore&) = delete;

    /* From an offset in a slot on, into those after it too; read asks for what was written only. write may
     * throw std::bad_alloc. */
    DeviceError write(uint32_t slot, size_t offset, Bytes bytes);
    DeviceError read(uint32_t slot, size_t offset, std::span<uint8_t> bytes) const;

    const std::string directory;

private:
    struct Free {
        void operator()(uint8_t* freed) const;
    };
    using Chunk = std::unique_ptr<uint8_t[], Free>;
    static constexpr size_t chunkBytes = 2048 * unitSize; /* what the processor maps at once where it can */
    const size_t slotSize;
    const size_t inMemory;
    std::vector<Chunk> chunks;
    int file = -1;
    static constexpr size_t tailBytes = 256 * unitSize;
    ByteVector tail;        /* what was written last, and is not in the file yet: */
    uint64_t tailStart = 0; /* from this offset in it on */

    /* Bytes of all slots one after the other: those before the bound are in memory, the others in the file.
     */
    uint64_t bound() const { return inMemory / slotSize * slotSize; }
    static Chunk newChunk();
    size_t lengthInChunk(uint64_t position, size_t wanted) const;
    uint8_t* inChunk(uint64_t position) const;
    DeviceError openFile();
    DeviceError writeOn(uint64_t offset, Bytes bytes);
    DeviceError readOn(uint64_t offset, std::span<uint8_t> bytes) const;
};

} /* namespace offline */

#endif
