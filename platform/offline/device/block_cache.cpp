/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/device/block_cache.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

#include "platform/offline/base/guarded.h"
#include "platform/offline/device/device_error.h"

namespace offline {
namespace {

constexpr UnitMask allUnits = (1u << cacheUnitsPerBlock) - 1;

/* Where in what the device refused it is that it refuses, to the unit. */
uint64_t refusedUnit(BlockCache& cache, const RefusedRead& refused) {
    std::array<uint8_t, cacheUnitSize> unit;
    for (size_t done = 0; done < refused.count; done += unit.size()) {
        const size_t count = std::min(unit.size(), refused.count - done);
        if (cache.device.read(refused.offset + done, std::span(unit).first(count)) != 0)
            return refused.offset + done;
    }
    return refused.offset;
}

/* Remembers that what the device refused last was needed. */
NTSTATUS readRefused(BlockCache& cache) {
    CacheTrouble& trouble = cache.trouble;
    if (trouble.readsRefused++ == 0) {
        trouble.firstRefused = refusedUnit(cache, cache.refused);
        trouble.readError = cache.refused.error;
    }
    return STATUS_IO_DEVICE_ERROR;
}

NTSTATUS writeRefused(BlockCache& cache, DeviceError error) {
    if (!cache.trouble.writeRefused) cache.trouble.writeError = error;
    cache.trouble.writeRefused = true;
    return deviceStatus(error);
}

NTSTATUS readWhole(BlockCache& cache, uint8_t* bytes, size_t count, uint64_t offset) {
    const DeviceError error = cache.device.read(offset, {bytes, count});
    if (error == 0) return STATUS_SUCCESS;
    cache.refused = {error, offset, count};
    return deviceStatus(error);
}

NTSTATUS writeWhole(BlockCache& cache, const uint8_t* bytes, size_t count, uint64_t offset) {
    const DeviceError error = cache.device.write(offset, {bytes, count});
    return error == 0 ? STATUS_SUCCESS : writeRefused(cache, error);
}

/* Calls transfer(bytes, count, offset) for each run of neighbouring units in the mask; the device's last unit
 * may be short. Units whose transfer succeeded are taken out of the mask. */
template <class Transfer>
NTSTATUS forUnits(const BlockCache& cache, CacheBlock& block, UnitMask& mask, Transfer transfer) {
    for (uint32_t unit = 0; unit < cacheUnitsPerBlock;) {
        if ((mask >> unit & 1) == 0) {
            ++unit;
            continue;
        }
        uint32_t end = unit;
        UnitMask run = 0;
        for (; end < cacheUnitsPerBlock && (mask >> end & 1) != 0; ++end)
            run |= static_cast<UnitMask>(1u << end);
        uint64_t offset = block.number * cacheBlockSize + uint64_t{unit} * cacheUnitSize;
        size_t count = static_cast<size_t>(
            std::min<uint64_t>(uint64_t{end - unit} * cacheUnitSize, cache.size - offset));
        NTSTATUS status = transfer(block.bytes.get() + size_t{unit} * cacheUnitSize, count, offset);
        if (status < 0) return status;
        mask &= static_cast<UnitMask>(~run);
        unit = end;
    }
    return STATUS_SUCCESS;
}

/* The units from the block's start up to its end, or the device's. */
UnitMask unitsOnDisk(const BlockCache& cache, const CacheBlock& block) {
    uint64_t bytes = cache.size - block.number * cacheBlockSize;
    if (bytes >= cacheBlockSize) return allUnits;
    return static_cast<UnitMask>((1u << ((bytes + cacheUnitSize - 1) / cacheUnitSize)) - 1);
}

NTSTATUS readUnits(BlockCache& cache, CacheBlock& block, UnitMask units) {
    UnitMask left = units;
    NTSTATUS status = forUnits(cache, block, left, [&](uint8_t* bytes, size_t count, uint64_t offset) {
        return readWhole(cache, bytes, count, offset);
    });
    block.valid |= units & static_cast<UnitMask>(~left);
    return status;
}

/* Whether the last unit of the block before this one is there. */
bool blockBeforeEnds(const BlockCache& cache, const CacheBlock& block) {
    if (block.number == 0) return false;
    const auto before = cache.blockIndex.find(block.number - 1);
    return before != cache.blockIndex.end() &&
           (cache.blocks[before->second].valid >> (cacheUnitsPerBlock - 1) & 1) != 0;
}

/* Makes the units hold what lies on the device. What can't be read beyond them is not missed here. */
NTSTATUS loadUnits(BlockCache& cache, CacheBlock& block, UnitMask units) {
    const auto missingOf = [&](UnitMask wanted) {
        return static_cast<UnitMask>(wanted & ~static_cast<uint32_t>(block.valid));
    };
    if (missingOf(units) == 0) return STATUS_SUCCESS;
    const bool goesOn = (block.valid << 1 & missingOf(units)) != 0 ||
                        ((missingOf(units) & 1) != 0 && blockBeforeEnds(cache, block));
    if (goesOn && readUnits(cache, block, missingOf(unitsOnDisk(cache, block))) >= 0) return STATUS_SUCCESS;
    return readUnits(cache, block, missingOf(units)) >= 0 ? STATUS_SUCCESS : readRefused(cache);
}

/* The units from the first dirty one to the last: those between them that hold the device's own bytes go
 * along, for one long write costs less than several short ones. */
UnitMask unitsToWrite(const CacheBlock& block) {
    const auto first = static_cast<uint32_t>(std::countr_zero(block.dirty));
    const auto end = static_cast<uint32_t>(std::bit_width(block.dirty));
    const uint32_t between = (1u << end) - (1u << first);
    return static_cast<UnitMask>(block.valid & between);
}

/* Units that were written are not dirty any more. */
NTSTATUS writeUnits(BlockCache& cache, CacheBlock& block, UnitMask units) {
    UnitMask left = units;
    NTSTATUS status = forUnits(cache, block, left, [&](const uint8_t* bytes, size_t count, uint64_t offset) {
        return writeWhole(cache, bytes, count, offset);
    });
    block.dirty &= static_cast<UnitMask>(left | ~static_cast<uint32_t>(units));
    return status;
}

/* A unit that the device does not take keeps no other from being written. */
NTSTATUS writeBack(BlockCache& cache, CacheBlock& block) {
    if (block.dirty == 0) return STATUS_SUCCESS;
    NTSTATUS status = writeUnits(cache, block, unitsToWrite(block));
    if (status >= 0) return status;
    for (uint32_t unit = 0; unit < cacheUnitsPerBlock; ++unit) {
        writeUnits(cache, block, block.dirty & static_cast<UnitMask>(1u << unit));
    }
    return block.dirty == 0 ? STATUS_SUCCESS : status;
}

/* Room for one more block: a new one, or one that has not been used for a while. A block that can't be
 * written back keeps its place, so that nothing is lost before cacheSync has tried again. */
NTSTATUS makeRoom(BlockCache& cache, uint32_t& index) {
    if (cache.blocks.size() < cacheBlocks) {
        CacheBlock block;
        block.bytes = std::make_unique<uint8_t[]>(cacheBlockSize);
        index = static_cast<uint32_t>(cache.blocks.size());
        cache.blocks.push_back(std::move(block));
        return STATUS_SUCCESS;
    }
    NTSTATUS status = STATUS_IO_DEVICE_ERROR;
    for (size_t turn = 0; turn < 2 * cacheBlocks; ++turn) {
        index = cache.hand;
        cache.hand = (cache.hand + 1) % cacheBlocks;
        CacheBlock& block = cache.blocks[index];
        if (block.used) {
            block.used = false;
            continue;
        }
        NTSTATUS written = writeBack(cache, block);
        if (written < 0) {
            status = written;
            continue;
        }
        cache.blockIndex.erase(block.number);
        block.number = CacheBlock::none;
        block.valid = 0;
        return STATUS_SUCCESS;
    }
    return status;
}

NTSTATUS findBlock(BlockCache& cache, uint64_t number, CacheBlock*& block) {
    if (cache.lastBlock < cache.blocks.size() && cache.blocks[cache.lastBlock].number == number &&
        cache.blocks[cache.lastBlock].valid != 0) {
        block = &cache.blocks[cache.lastBlock];
        block->used = true;
        return STATUS_SUCCESS;
    }
    uint32_t index = 0;
    auto found = cache.blockIndex.find(number);
    if (found != cache.blockIndex.end()) {
        index = found->second;
    } else {
        NTSTATUS status = makeRoom(cache, index);
        if (status < 0) return status;
        cache.blockIndex.emplace(number, index);
        cache.blocks[index].number = number;
    }
    cache.lastBlock = index;
    block = &cache.blocks[index];
    block->used = true;
    return STATUS_SUCCESS;
}

bool onDevice(const BlockCache& cache, uint64_t offset, uint64_t count) {
    return offset <= cache.size && count <= cache.size - offset;
}

/* The units that a part of a block touches. */
UnitMask unitsOf(size_t start, size_t count) {
    size_t first = start / cacheUnitSize, last = (start + count - 1) / cacheUnitSize;
    return static_cast<UnitMask>(((2u << last) - 1) & ~((1u << first) - 1));
}

/* Those of them that a write covers whole, and that need not be read before. */
UnitMask unitsCovered(const BlockCache& cache, const CacheBlock& block, size_t start, size_t count) {
    UnitMask covered = 0;
    uint64_t blockStart = block.number * cacheBlockSize;
    for (uint32_t unit = 0; unit < cacheUnitsPerBlock; ++unit) {
        uint64_t from = uint64_t{unit} * cacheUnitSize;
        if (blockStart + from >= cache.size) break;
        uint64_t to = std::min<uint64_t>(from + cacheUnitSize, cache.size - blockStart);
        if (start <= from && to <= start + count) covered |= static_cast<UnitMask>(1u << unit);
    }
    return covered;
}

/* Reads past the cache what is long and not in it, such as the contents of a large file, which would only
 * drive everything else out. How many bytes were read; none when the cache is to be asked. */
NTSTATUS readDirect(BlockCache& cache, uint64_t offset, std::span<uint8_t> bytes, size_t& done) {
    constexpr size_t worthwhile = 16 * size_t{cacheBlockSize};
    done = 0;
    if (offset % cacheBlockSize != 0) return STATUS_SUCCESS;
    while (bytes.size() - done >= cacheBlockSize &&
           !cache.blockIndex.contains((offset + done) / cacheBlockSize)) {
        done += cacheBlockSize;
    }
    if (done < worthwhile) {
        done = 0;
        return STATUS_SUCCESS;
    }
    return readWhole(cache, bytes.data(), done, offset) >= 0 ? STATUS_SUCCESS : readRefused(cache);
}

/* Calls use(block, unit, its part of the bytes, where that begins in the block) for each unit in the range of
 * which the cache holds something. */
template <class Part, class Use>
void forCachedUnits(BlockCache& cache, uint64_t offset, Part bytes, Use use) {
    while (!bytes.empty()) {
        const size_t start = offset % cacheBlockSize;
        const size_t inBlock = std::min<size_t>(bytes.size(), cacheBlockSize - start);
        const auto found = cache.blockIndex.find(offset / cacheBlockSize);
        CacheBlock* const block = found == cache.blockIndex.end() ? nullptr : &cache.blocks[found->second];
        for (size_t at = start; block != nullptr && at < start + inBlock;) {
            const size_t unit = at / cacheUnitSize;
            const size_t end = std::min(start + inBlock, (unit + 1) * cacheUnitSize);
            use(*block, unit, bytes.subspan(at - start, end - at), at);
            at = end;
        }
        bytes = bytes.subspan(inBlock);
        offset += inBlock;
    }
}

bool isIn(UnitMask mask, size_t unit) {
    return (mask >> unit & 1) != 0;
}

} /* namespace */

NTSTATUS cacheReadPast(BlockCache& cache, uint64_t offset, std::span<uint8_t> bytes) {
    return guarded([&]() -> NTSTATUS {
        if (!onDevice(cache, offset, bytes.size())) return STATUS_INVALID_PARAMETER;
        size_t cached = 0;
        forCachedUnits(cache, offset, bytes,
                       [&](const CacheBlock& block, size_t unit, std::span<uint8_t> part, size_t) {
                           if (isIn(block.valid, unit)) cached += part.size();
                       });
        const bool whole = cached == bytes.size();
        const DeviceError error = whole ? 0 : cache.device.read(offset, bytes);
        if (error != 0) return deviceStatus(error);
        forCachedUnits(cache, offset, bytes,
                       [&](const CacheBlock& block, size_t unit, std::span<uint8_t> part, size_t at) {
                           if (whole || isIn(block.dirty, unit))
                               std::memcpy(part.data(), block.bytes.get() + at, part.size());
                       });
        return STATUS_SUCCESS;
    });
}

NTSTATUS cacheWritePast(BlockCache& cache, uint64_t offset, Bytes bytes) {
    return guarded([&]() -> NTSTATUS {
        if (!onDevice(cache, offset, bytes.size())) return STATUS_INVALID_PARAMETER;
        if (const DeviceError error = cache.device.write(offset, bytes)) return writeRefused(cache, error);
        forCachedUnits(cache, offset, bytes, [](CacheBlock& block, size_t unit, Bytes part, size_t at) {
            if (!isIn(block.valid, unit)) return;
            std::memcpy(block.bytes.get() + at, part.data(), part.size());
            if (part.size() == cacheUnitSize) block.dirty &= static_cast<UnitMask>(~(1u << unit));
        });
        return STATUS_SUCCESS;
    });
}

NTSTATUS cacheRead(BlockCache& cache, uint64_t offset, std::span<uint8_t> bytes) {
    return guarded([&]() -> NTSTATUS {
        if (!onDevice(cache, offset, bytes.size())) return STATUS_INVALID_PARAMETER;
        while (!bytes.empty()) {
            size_t start = offset % cacheBlockSize;
            size_t count = 0;
            NTSTATUS status = readDirect(cache, offset, bytes, count);
            if (status < 0) return status;
            if (count != 0) {
                bytes = bytes.subspan(count);
                offset += count;
                continue;
            }
            count = std::min<size_t>(bytes.size(), cacheBlockSize - start);
            CacheBlock* block = nullptr;
            status = findBlock(cache, offset / cacheBlockSize, block);
            if (status >= 0) status = loadUnits(cache, *block, unitsOf(start, count));
            if (status < 0) return status;
            std::memcpy(bytes.data(), block->bytes.get() + start, count);
            bytes = bytes.subspan(count);
            offset += count;
        }
        return STATUS_SUCCESS;
    });
}

NTSTATUS cacheWrite(BlockCache& cache, uint64_t offset, Bytes bytes) {
    return guarded([&]() -> NTSTATUS {
        if (!onDevice(cache, offset, bytes.size())) return STATUS_INVALID_PARAMETER;
        while (!bytes.empty()) {
            size_t start = offset % cacheBlockSize;
            size_t count = std::min<size_t>(bytes.size(), cacheBlockSize - start);
            CacheBlock* block = nullptr;
            NTSTATUS status = findBlock(cache, offset / cacheBlockSize, block);
            if (status < 0) return status;
            UnitMask touched = unitsOf(start, count);
            UnitMask whole = unitsCovered(cache, *block, start, count);
            status = loadUnits(cache, *block, touched & static_cast<UnitMask>(~whole));
            if (status < 0) return status;
            std::memcpy(block->bytes.get() + start, bytes.data(), count);
            block->valid |= touched;
            block->dirty |= touched;
            bytes = bytes.subspan(count);
            offset += count;
        }
        return STATUS_SUCCESS;
    });
}

void cacheReadAhead(BlockCache& cache, std::span<const ByteRange> ranges) {
    static_cast<void>(guarded([&]() -> NTSTATUS {
        constexpr size_t mostBlocks = cacheBlocks / 8;
        std::vector<std::pair<uint32_t, UnitMask>> wanted;
        std::vector<DeviceRead> reads;
        for (const ByteRange& range : ranges) {
            if (!onDevice(cache, range.offset, range.count)) continue;
            for (uint64_t at = range.offset; at < range.offset + range.count && wanted.size() < mostBlocks;) {
                const size_t start = at % cacheBlockSize;
                const auto count = static_cast<size_t>(
                    std::min<uint64_t>(range.offset + range.count - at, cacheBlockSize - start));
                CacheBlock* block = nullptr;
                if (findBlock(cache, at / cacheBlockSize, block) < 0) return STATUS_IO_DEVICE_ERROR;
                UnitMask missing = unitsOf(start, count) & static_cast<UnitMask>(~uint32_t{block->valid});
                if (missing != 0) wanted.emplace_back(cache.lastBlock, missing);
                at += count;
                forUnits(cache, *block, missing, [&](uint8_t* bytes, size_t size, uint64_t offset) {
                    reads.push_back({offset, {bytes, size}});
                    return STATUS_SUCCESS;
                });
            }
        }
        if (cache.device.readAll(reads) != 0) return STATUS_IO_DEVICE_ERROR;
        for (const auto& [index, units] : wanted) cache.blocks[index].valid |= units;
        return STATUS_SUCCESS;
    }));
}

NTSTATUS cacheSync(BlockCache& cache) {
    return guarded([&]() -> NTSTATUS {
        NTSTATUS status = STATUS_SUCCESS; /* a block that could not be written before waits here still */
        std::vector<uint32_t> dirty;
        for (uint32_t index = 0; index < cache.blocks.size(); ++index) {
            if (cache.blocks[index].dirty != 0) dirty.push_back(index);
        }
        std::sort(dirty.begin(), dirty.end(),
                  [&](uint32_t a, uint32_t b) { return cache.blocks[a].number < cache.blocks[b].number; });
        for (uint32_t index : dirty) {
            NTSTATUS written = writeBack(cache, cache.blocks[index]);
            if (written < 0) status = written;
        }
        const DeviceError flushed = cache.device.flush();
        if (flushed == 0) return status;
        writeRefused(cache, flushed);
        return STATUS_IO_DEVICE_ERROR;
    });
}

} /* namespace offline */
