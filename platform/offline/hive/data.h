/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The data of values: in the value itself, in a cell, or in the segments of big data. */
#ifndef QUILLET_OFFLINE_HIVE_DATA_H
#define QUILLET_OFFLINE_HIVE_DATA_H

#include <cstdint>
#include <span>

#include "platform/offline/base/bytes.h"
#include "platform/offline/hive/image.h"

namespace offline {

constexpr size_t longestData = size_t{UINT16_MAX} * regf::db::segmentSize; /* bytes: as far as a db counts */

/* The two fields of a value that say where its data is. */
struct StoredData {
    uint32_t size = 0;
    uint32_t where = 0;
};

enum class DataForm { none, inlined, cell, big };

DataForm dataForm(const Hive& hive, uint32_t size);
uint32_t dataLength(const StoredData& stored); /* bytes */

/* How many segments data of this length has. */
uint32_t segmentsOf(uint32_t length);

/* Copies from the start of the data, as many bytes as out holds and there are. */
void readData(const Hive& hive, const StoredData& stored, std::span<uint8_t> out);

/* The room that storing new data in place of what is stored needs. */
uint64_t dataGrowth(const Hive& hive, size_t length);

/* Stores data in place of what is stored, in the same cells as far as they serve. Needs that room made
 * before. */
StoredData replaceData(Hive& hive, const StoredData& stored, Bytes data);

void releaseData(Hive& hive, const StoredData& stored);

} /* namespace offline */

#endif
