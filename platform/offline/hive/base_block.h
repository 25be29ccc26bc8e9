/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The base block: the first 4096 bytes of a hive file. */
#ifndef QUILLET_OFFLINE_HIVE_BASE_BLOCK_H
#define QUILLET_OFFLINE_HIVE_BASE_BLOCK_H

#include <cstdint>
#include <span>
#include <string_view>

#include "platform/nt.h"
#include "platform/offline/base/bytes.h"
#include "platform/offline/base/problem.h"

namespace offline {

/* What the base block of this file says about it: success, and then its fields can be relied on and the bins
 * lie in the file; STATUS_NOT_REGISTRY_FILE; STATUS_REGISTRY_CORRUPT; or STATUS_REGISTRY_IO_FAILED for a hive
 * that was not shut down, which only its log files make whole. */
NTSTATUS checkBaseBlock(Bytes file, Problem& problem);

/* Whether the checksum over the first sector is right; of a log's base block too. The bytes must hold it. */
bool baseBlockSealed(Bytes block);

/* Whether the file was not shut down, as far as its base block says, or has lost its base block: log files
 * may make it whole. */
bool baseBlockDirty(Bytes file);

/* Fills a base block of zeros for a hive without bins. */
void createBaseBlock(std::span<uint8_t> block, uint32_t minor, std::u16string_view fileName);

/* Puts in both sequence numbers and the checksum over all. */
void sealBaseBlock(std::span<uint8_t> block, uint32_t primary, uint32_t secondary);

} /* namespace offline */

#endif
