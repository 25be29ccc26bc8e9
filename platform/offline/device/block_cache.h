/* SPDX-License-Identifier: GPL-2.0-or-later */
/* A write-back cache of a device's blocks, over any kind of device.
 *
 * NTFS is read and written in records of 1 KiB. A block is first read only where it was touched; when the
 * touches follow each other, the rest is read at once, so that walking in the order of the disk costs
 * one call for each block, and jumping about costs no more than what is asked for. What is long and not in
 * it is read past it. */
#ifndef QUILLET_OFFLINE_DEVICE_BLOCK_CACHE_H
#define QUILLET_OFFLINE_DEVICE_BLOCK_CACHE_H

#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "platform/nt.h"
#include "platform/offline/device/block_device.h"

namespace offline {

using UnitMask = uint16_t; /* a bit for each unit of a block */
constexpr uint32_t cacheUnitSize =
    1024; /* bytes; what is read and written at least, so that holes stay holes */
constexpr uint32_t cacheUnitsPerBlock = 16;
constexpr uint32_t cacheBlockSize = cacheUnitSize * cacheUnitsPerBlock;
constexpr size_t cacheBlocks = 1024; /* 16 MiB at most */

struct CacheBlock {
    static constexpr uint64_t none = UINT64_MAX;
    uint64_t number = none; /* of the block on the device */
    UnitMask valid = 0;     /* the units that hold the device's bytes or newer ones */
    UnitMask dirty = 0;     /* the units that are newer than the device */
    bool used = false;      /* since the clock's hand last passed */
    std::unique_ptr<uint8_t[]> bytes;
};

/* What the device refused of what was needed. A caller who gets a failing status may pass over what it was
 * after; here it is remembered all the same. */
struct CacheTrouble {
    uint64_t readsRefused = 0;
    uint64_t firstRefused = 0; /* bytes */
    DeviceError readError = 0; /* of the first */
    bool writeRefused = false;
    DeviceError writeError = 0; /* of the first */
};

struct RefusedRead {
    DeviceError error = 0;
    uint64_t offset = 0; /* bytes */
    size_t count = 0;    /* bytes */
};

/* The device is somebody else's and outlives it. Others look at the trouble alone. */
struct BlockCache {
    explicit BlockCache(BlockDevice& below) : device(below), size(below.size()) {}

    BlockDevice& device;
    const uint64_t size; /* bytes */
    CacheTrouble trouble;

    std::vector<CacheBlock> blocks;
    std::unordered_map<uint64_t, uint32_t> blockIndex; /* block number to its index in blocks */
    uint32_t lastBlock = 0;                            /* index of the block found last */
    uint32_t hand = 0;

    RefusedRead refused; /* the last */
};

/* Offsets and sizes in bytes. A range that does not lie on the device is STATUS_INVALID_PARAMETER. */
NTSTATUS cacheRead(BlockCache& cache, uint64_t offset, std::span<uint8_t> bytes);
NTSTATUS cacheWrite(BlockCache& cache, uint64_t offset, Bytes bytes);

/* The same in one call of the device, past the cache and in agreement with it: for whoever goes through a
 * long stretch once. What is in the cache as a whole is taken from there, and what is read so is not missed
 * when the device refuses it. */
NTSTATUS cacheReadPast(BlockCache& cache, uint64_t offset, std::span<uint8_t> bytes);
NTSTATUS cacheWritePast(BlockCache& cache, uint64_t offset, Bytes bytes);

/* Where bytes lie on the device. */
struct ByteRange {
    uint64_t offset = 0, count = 0;
};

/* Reads into the cache what will be asked for soon, in reads that are under way at once. A few hundred
 * kilobytes at most: what is too much, does not lie on the device, or can't be read is left to whoever asks
 * for it. */
void cacheReadAhead(BlockCache& cache, std::span<const ByteRange> ranges);

/* Everything that was written is on the medium when it succeeds. What the device does not take stays here,
 * and is tried again the next time. Without this nothing is sure to reach the device. */
NTSTATUS cacheSync(BlockCache& cache);

} /* namespace offline */

#endif
