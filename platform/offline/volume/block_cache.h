/* What an open disk consists of: its file and a write-back cache of its blocks. Private to this room;
 * everyone uses diskRead, diskWrite and diskSync.
 *
 * NTFS is read and written in records of 1 KiB. A block is first read only where it was touched; when the
 * touches follow each other, the rest is read at once, so that walking in the order of the disk costs
 * one call for each block, and jumping about costs no more than what is asked for. */
#ifndef QUILLET_OFFLINE_VOLUME_BLOCK_CACHE_H
#define QUILLET_OFFLINE_VOLUME_BLOCK_CACHE_H

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/offline/volume/disk.h"

namespace offline {

using UnitMask = uint16_t; /* a bit for each unit of a block */
constexpr uint32_t cacheUnitSize =
    1024; /* bytes; what is read and written at least, so that holes stay holes */
constexpr uint32_t cacheUnitsPerBlock = 16;
constexpr uint32_t cacheBlockSize = cacheUnitSize * cacheUnitsPerBlock;
constexpr size_t cacheBlocks = 1024; /* 16 MiB at most */

struct CacheBlock {
    static constexpr uint64_t none = UINT64_MAX;
    uint64_t number = none; /* of the block on the disk */
    UnitMask valid = 0;     /* the units that hold the disk's bytes or newer ones */
    UnitMask dirty = 0;     /* the units that are newer than the disk */
    bool used = false;      /* since the clock's hand last passed */
    std::unique_ptr<uint8_t[]> bytes;
};

struct Disk {
    std::string path;
    int file = -1;
    int bottomFile = -1; /* of a loop device: the file below it, open for its lock alone */
    uint64_t size = 0;   /* bytes */
    uint32_t sectorSize = 512;
    bool readOnly = true;
    bool forChanges = false;

    std::vector<CacheBlock> blocks;
    std::unordered_map<uint64_t, uint32_t> blockIndex; /* block number to its index in blocks */
    uint32_t lastBlock = 0;                            /* index of the block found last */
    uint32_t hand = 0;

    DiskTrouble trouble;
    int refusal = 0;            /* errno of the call that failed last; 0: the disk had become shorter */
    uint64_t refusalOffset = 0; /* bytes */
    bool syncFailed = false; /* what the system dropped then can't be written again, so it stays an error */
};

} /* namespace offline */

#endif
