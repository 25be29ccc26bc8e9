#include "platform/offline/volume/block_cache.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>

#include "platform/offline/base/bytes.h"
#include "platform/offline/base/guarded.h"

namespace offline {
namespace {

constexpr UnitMask allUnits = (1u << cacheUnitsPerBlock) - 1;

NTSTATUS statusOfErrno(int error) {
    switch (error) {
        case ENOSPC:
        case EDQUOT:
            return STATUS_DISK_FULL;
        case EROFS:
        case EPERM:
            return STATUS_MEDIA_WRITE_PROTECTED;
        default:
            return STATUS_IO_DEVICE_ERROR;
    }
}

/* error: of the call that failed; 0: the file became shorter meanwhile. */
NTSTATUS refused(Disk& disk, uint64_t offset, int error) {
    disk.refusal = error;
    disk.refusalOffset = offset;
    return error == 0 ? STATUS_IO_DEVICE_ERROR : statusOfErrno(error);
}

/* Remembers that what failed last was needed. */
NTSTATUS readRefused(Disk& disk) {
    DiskTrouble& trouble = disk.trouble;
    if (trouble.readsRefused++ == 0) {
        trouble.firstRefused = disk.refusalOffset;
        trouble.readError = disk.refusal;
    }
    return STATUS_IO_DEVICE_ERROR;
}

NTSTATUS writeRefused(Disk& disk, uint64_t offset, int error) {
    if (!disk.trouble.writeRefused) disk.trouble.writeError = error;
    disk.trouble.writeRefused = true;
    return refused(disk, offset, error);
}

/* A write beyond a file's end would make it longer, with zeros where its contents were. */
bool becameShorter(const Disk& disk) {
    struct stat info = {};
    return fstat(disk.file, &info) == 0 && S_ISREG(info.st_mode) &&
           static_cast<uint64_t>(info.st_size) < disk.size;
}

NTSTATUS readWhole(Disk& disk, uint8_t* bytes, size_t count, uint64_t offset) {
    while (count > 0) {
        ssize_t done = pread(disk.file, bytes, count, static_cast<off_t>(offset));
        if (done < 0 && errno == EINTR) continue;
        if (done <= 0) return refused(disk, offset, done < 0 ? errno : 0);
        bytes += done;
        offset += static_cast<uint64_t>(done);
        count -= static_cast<size_t>(done);
    }
    return STATUS_SUCCESS;
}

NTSTATUS writeWhole(Disk& disk, const uint8_t* bytes, size_t count, uint64_t offset) {
    if (becameShorter(disk)) return writeRefused(disk, offset, 0);
    while (count > 0) {
        ssize_t done = pwrite(disk.file, bytes, count, static_cast<off_t>(offset));
        if (done < 0 && errno == EINTR) continue;
        if (done <= 0) return writeRefused(disk, offset, done < 0 ? errno : EIO);
        bytes += done;
        offset += static_cast<uint64_t>(done);
        count -= static_cast<size_t>(done);
    }
    return STATUS_SUCCESS;
}

/* Calls transfer(bytes, count, offset) for each run of neighbouring units in the mask; the disk's last unit
 * may be short. Units whose transfer succeeded are taken out of the mask. */
template <class Transfer>
NTSTATUS forUnits(const Disk& disk, CacheBlock& block, UnitMask& mask, Transfer transfer) {
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
        size_t count =
            static_cast<size_t>(std::min<uint64_t>(uint64_t{end - unit} * cacheUnitSize, disk.size - offset));
        NTSTATUS status = transfer(block.bytes.get() + size_t{unit} * cacheUnitSize, count, offset);
        if (status < 0) return status;
        mask &= static_cast<UnitMask>(~run);
        unit = end;
    }
    return STATUS_SUCCESS;
}

/* The units from the block's start up to its end, or the disk's. */
UnitMask unitsOnDisk(const Disk& disk, const CacheBlock& block) {
    uint64_t bytes = disk.size - block.number * cacheBlockSize;
    if (bytes >= cacheBlockSize) return allUnits;
    return static_cast<UnitMask>((1u << ((bytes + cacheUnitSize - 1) / cacheUnitSize)) - 1);
}

NTSTATUS readUnits(Disk& disk, CacheBlock& block, UnitMask units) {
    UnitMask left = units;
    NTSTATUS status = forUnits(disk, block, left, [&](uint8_t* bytes, size_t count, uint64_t offset) {
        return readWhole(disk, bytes, count, offset);
    });
    block.valid |= units & static_cast<UnitMask>(~left);
    return status;
}

/* Whether the last unit of the block before this one is there. */
bool blockBeforeEnds(const Disk& disk, const CacheBlock& block) {
    if (block.number == 0) return false;
    const auto before = disk.blockIndex.find(block.number - 1);
    return before != disk.blockIndex.end() &&
           (disk.blocks[before->second].valid >> (cacheUnitsPerBlock - 1) & 1) != 0;
}

/* Makes the units hold what lies on the disk. What can't be read beyond them is not missed here. */
NTSTATUS loadUnits(Disk& disk, CacheBlock& block, UnitMask units) {
    const auto missingOf = [&](UnitMask wanted) {
        return static_cast<UnitMask>(wanted & ~static_cast<uint32_t>(block.valid));
    };
    if (missingOf(units) == 0) return STATUS_SUCCESS;
    const bool goesOn = (block.valid << 1 & missingOf(units)) != 0 ||
                        ((missingOf(units) & 1) != 0 && blockBeforeEnds(disk, block));
    if (goesOn && readUnits(disk, block, missingOf(unitsOnDisk(disk, block))) >= 0) return STATUS_SUCCESS;
    return readUnits(disk, block, missingOf(units)) >= 0 ? STATUS_SUCCESS : readRefused(disk);
}

/* The units from the first dirty one to the last: those between them that hold the disk's own bytes go along,
 * for one long write costs less than several short ones. */
UnitMask unitsToWrite(const CacheBlock& block) {
    const auto first = static_cast<uint32_t>(std::countr_zero(block.dirty));
    const auto end = static_cast<uint32_t>(std::bit_width(block.dirty));
    const uint32_t between = (1u << end) - (1u << first);
    return static_cast<UnitMask>(block.valid & between);
}

/* Units that were written are not dirty any more. */
NTSTATUS writeUnits(Disk& disk, CacheBlock& block, UnitMask units) {
    UnitMask left = units;
    NTSTATUS status = forUnits(disk, block, left, [&](const uint8_t* bytes, size_t count, uint64_t offset) {
        return writeWhole(disk, bytes, count, offset);
    });
    block.dirty &= static_cast<UnitMask>(left | ~static_cast<uint32_t>(units));
    return status;
}

/* A unit that the disk does not take keeps no other from being written. */
NTSTATUS writeBack(Disk& disk, CacheBlock& block) {
    if (block.dirty == 0) return STATUS_SUCCESS;
    NTSTATUS status = writeUnits(disk, block, unitsToWrite(block));
    if (status >= 0) return status;
    for (uint32_t unit = 0; unit < cacheUnitsPerBlock; ++unit) {
        writeUnits(disk, block, block.dirty & static_cast<UnitMask>(1u << unit));
    }
    return block.dirty == 0 ? STATUS_SUCCESS : status;
}

/* Room for one more block: a new one, or one that has not been used for a while. A block that can't be
 * written back keeps its place, so that nothing is lost before diskSync has tried again. */
NTSTATUS makeRoom(Disk& disk, uint32_t& index) {
    if (disk.blocks.size() < cacheBlocks) {
        CacheBlock block;
        block.bytes = std::make_unique<uint8_t[]>(cacheBlockSize);
        index = static_cast<uint32_t>(disk.blocks.size());
        disk.blocks.push_back(std::move(block));
        return STATUS_SUCCESS;
    }
    NTSTATUS status = STATUS_IO_DEVICE_ERROR;
    for (size_t turn = 0; turn < 2 * cacheBlocks; ++turn) {
        index = disk.hand;
        disk.hand = (disk.hand + 1) % cacheBlocks;
        CacheBlock& block = disk.blocks[index];
        if (block.used) {
            block.used = false;
            continue;
        }
        NTSTATUS written = writeBack(disk, block);
        if (written < 0) {
            status = written;
            continue;
        }
        disk.blockIndex.erase(block.number);
        block.number = CacheBlock::none;
        block.valid = 0;
        return STATUS_SUCCESS;
    }
    return status;
}

NTSTATUS findBlock(Disk& disk, uint64_t number, CacheBlock*& block) {
    if (disk.lastBlock < disk.blocks.size() && disk.blocks[disk.lastBlock].number == number &&
        disk.blocks[disk.lastBlock].valid != 0) {
        block = &disk.blocks[disk.lastBlock];
        block->used = true;
        return STATUS_SUCCESS;
    }
    uint32_t index = 0;
    auto found = disk.blockIndex.find(number);
    if (found != disk.blockIndex.end()) {
        index = found->second;
    } else {
        NTSTATUS status = makeRoom(disk, index);
        if (status < 0) return status;
        disk.blockIndex.emplace(number, index);
        disk.blocks[index].number = number;
    }
    disk.lastBlock = index;
    block = &disk.blocks[index];
    block->used = true;
    return STATUS_SUCCESS;
}

bool onDisk(const Disk& disk, uint64_t offset, uint64_t count) {
    return offset <= disk.size && count <= disk.size - offset;
}

/* The units that a part of a block touches. */
UnitMask unitsOf(size_t start, size_t count) {
    size_t first = start / cacheUnitSize, last = (start + count - 1) / cacheUnitSize;
    return static_cast<UnitMask>(((2u << last) - 1) & ~((1u << first) - 1));
}

/* Those of them that a write covers whole, and that need not be read before. */
UnitMask unitsCovered(const Disk& disk, const CacheBlock& block, size_t start, size_t count) {
    UnitMask covered = 0;
    uint64_t blockStart = block.number * cacheBlockSize;
    for (uint32_t unit = 0; unit < cacheUnitsPerBlock; ++unit) {
        uint64_t from = uint64_t{unit} * cacheUnitSize;
        if (blockStart + from >= disk.size) break;
        uint64_t to = std::min<uint64_t>(from + cacheUnitSize, disk.size - blockStart);
        if (start <= from && to <= start + count) covered |= static_cast<UnitMask>(1u << unit);
    }
    return covered;
}

/* Reads past the cache what is long and not in it, such as the contents of a large file, which would only
 * drive everything else out. How many bytes were read; none when the cache is to be asked. */
NTSTATUS readDirect(Disk& disk, uint64_t offset, std::span<uint8_t> bytes, size_t& done) {
    constexpr size_t worthwhile = 16 * size_t{cacheBlockSize};
    done = 0;
    if (offset % cacheBlockSize != 0) return STATUS_SUCCESS;
    while (bytes.size() - done >= cacheBlockSize &&
           !disk.blockIndex.contains((offset + done) / cacheBlockSize)) {
        done += cacheBlockSize;
    }
    if (done < worthwhile) done = 0;
    return readWhole(disk, bytes.data(), done, offset) >= 0 ? STATUS_SUCCESS : readRefused(disk);
}

} /* namespace */

NTSTATUS diskRead(Disk& disk, uint64_t offset, std::span<uint8_t> bytes) {
    return guarded([&]() -> NTSTATUS {
        if (!onDisk(disk, offset, bytes.size())) return STATUS_INVALID_PARAMETER;
        while (!bytes.empty()) {
            size_t start = offset % cacheBlockSize;
            size_t count = 0;
            NTSTATUS status = readDirect(disk, offset, bytes, count);
            if (status < 0) return status;
            if (count != 0) {
                bytes = bytes.subspan(count);
                offset += count;
                continue;
            }
            count = std::min<size_t>(bytes.size(), cacheBlockSize - start);
            CacheBlock* block = nullptr;
            status = findBlock(disk, offset / cacheBlockSize, block);
            if (status >= 0) status = loadUnits(disk, *block, unitsOf(start, count));
            if (status < 0) return status;
            std::memcpy(bytes.data(), block->bytes.get() + start, count);
            bytes = bytes.subspan(count);
            offset += count;
        }
        return STATUS_SUCCESS;
    });
}

NTSTATUS diskWrite(Disk& disk, uint64_t offset, Bytes bytes) {
    return guarded([&]() -> NTSTATUS {
        if (disk.readOnly) return STATUS_MEDIA_WRITE_PROTECTED;
        if (!onDisk(disk, offset, bytes.size())) return STATUS_INVALID_PARAMETER;
        while (!bytes.empty()) {
            size_t start = offset % cacheBlockSize;
            size_t count = std::min<size_t>(bytes.size(), cacheBlockSize - start);
            CacheBlock* block = nullptr;
            NTSTATUS status = findBlock(disk, offset / cacheBlockSize, block);
            if (status < 0) return status;
            UnitMask touched = unitsOf(start, count);
            UnitMask whole = unitsCovered(disk, *block, start, count);
            status = loadUnits(disk, *block, touched & static_cast<UnitMask>(~whole));
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

NTSTATUS diskSync(Disk& disk) {
    return guarded([&]() -> NTSTATUS {
        if (disk.readOnly) return STATUS_SUCCESS;
        NTSTATUS status = STATUS_SUCCESS; /* a block that could not be written before waits here still */
        std::vector<uint32_t> dirty;
        for (uint32_t index = 0; index < disk.blocks.size(); ++index) {
            if (disk.blocks[index].dirty != 0) dirty.push_back(index);
        }
        std::sort(dirty.begin(), dirty.end(),
                  [&](uint32_t a, uint32_t b) { return disk.blocks[a].number < disk.blocks[b].number; });
        for (uint32_t index : dirty) {
            NTSTATUS written = writeBack(disk, disk.blocks[index]);
            if (written < 0) status = written;
        }
        if (fdatasync(disk.file) != 0) {
            writeRefused(disk, 0, errno);
            disk.syncFailed = true;
        }
        if (becameShorter(disk)) status = writeRefused(disk, disk.size, 0);
        return disk.syncFailed ? STATUS_IO_DEVICE_ERROR : status;
    });
}

} /* namespace offline */
