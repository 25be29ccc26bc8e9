/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Which units of a device were changed, and in which slot the contents of each are kept. A sorted index in
 * leaves: it costs 8 bytes for each unit, 16 where the leaves have just been split, at no time more than 24.
 */
#ifndef QUILLET_OFFLINE_DEVICE_CHANGED_UNITS_H
#define QUILLET_OFFLINE_DEVICE_CHANGED_UNITS_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace offline {

/* Changed units that follow each other, and whose slots do. */
struct UnitRun {
    uint64_t unit = 0; /* the first */
    uint32_t slot = 0;
    uint64_t count = 0;
};

struct ChangedUnits {
    static constexpr uint32_t noSlot = UINT32_MAX;

    /* The unit's slot; noSlot when it was not changed. */
    uint32_t slotOf(uint64_t unit) const;

    /* Adds a unit, or gives one that is there another slot. Throws std::bad_alloc, and has changed nothing
     * then. */
    void put(uint64_t unit, uint32_t slot);

    /* The run from the lowest changed unit on that is at or above one, most units of it at most; another one
     * may go on where it ends. False when there is none. */
    bool next(uint64_t from, uint64_t most, UnitRun& run) const;

    uint64_t count() const { return units; }
    size_t memory() const; /* bytes that the index takes */

private:
    /* A unit is kept as its distance from its leaf's first one. */
    struct Entry {
        uint32_t distance, slot;
    };
    static constexpr size_t leafEntries = 1024;
    static constexpr uint64_t leafReach = uint64_t{1} << 32; /* units; no leaf crosses a multiple of it */
    struct Leaf {
        uint64_t base = 0; /* no entry lies below it; those of the leaf before do */
        size_t count = 0;
        std::unique_ptr<Entry[]> entries;
    };
    std::vector<Leaf> leaves;
    uint64_t units = 0;

    size_t leafAt(uint64_t unit) const;
    size_t leafFor(uint64_t unit);
    void split(size_t index);
};

} /* namespace offline */

#endif
