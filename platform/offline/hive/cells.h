/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Allocating and freeing cells.
 *
 * A change first makes room for all that it may allocate; after that nothing here fails, so that a change is
 * done whole or not at all. */
#ifndef QUILLET_OFFLINE_HIVE_CELLS_H
#define QUILLET_OFFLINE_HIVE_CELLS_H

#include <cstddef>
#include <cstdint>

#include "platform/offline/hive/image.h"

namespace offline {

/* How far the bins can grow when a cell with this many bytes of data is allocated. */
uint64_t growthFor(uint64_t length);

/* Sees to it that the bins can grow so far, changing nothing. STATUS_INSUFFICIENT_RESOURCES when the format
 * has no room; throws std::bad_alloc. */
NTSTATUS makeRoom(Hive& hive, uint64_t growth);

/* Each of these needs room made before. The data is zero and may be a little longer than asked for. */
Cell allocateCell(Hive& hive, size_t length);

/* A cell of just the size of a big data segment, in a bin of its own when a new one is needed. */
Cell allocateSegment(Hive& hive);

/* Frees an allocated cell and joins it with its free neighbours. */
void releaseCell(Hive& hive, Cell cell);

/* Gives back what an allocated cell has beyond this many bytes of data. */
void shrinkCell(Hive& hive, Cell cell, size_t length);

/* Enters a free cell of an opened hive; throws std::bad_alloc. */
void noteFreeCell(Hive& hive, Cell cell, uint32_t size);

} /* namespace offline */

#endif
