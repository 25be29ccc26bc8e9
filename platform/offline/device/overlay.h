/* SPDX-License-Identifier: GPL-2.0-or-later */
/* A device over another one: what was written to it, else what lies below. It never writes below (1); whether
 * and how its contents get there is the transaction's matter (transaction.h).
 *
 * A unit that differs little from what lies below is kept as its difference (unit_patch.h), any other one
 * whole, and so is each where a read below costs a round trip. Beyond 24 MiB they go to unnamed temporary
 * files. What lies below must not change as long as the overlay is asked for units. */
#ifndef QUILLET_OFFLINE_DEVICE_OVERLAY_H
#define QUILLET_OFFLINE_DEVICE_OVERLAY_H

#include "platform/offline/device/block_device.h"
#include "platform/offline/device/changed_units.h"
#include "platform/offline/device/unit_store.h"

namespace offline {

/* Bytes of whole units that are kept in memory; of differences half as many. */
constexpr size_t overlayMemory = size_t{16} << 20;

struct Overlay final : BlockDevice {
    /* The device below has to outlive it. The temporary files lie in the directory. */
    Overlay(BlockDevice& device, const std::string& inDirectory, size_t memory = overlayMemory);

    const std::string& name() const override { return below.name(); }
    uint64_t size() const override { return below.size(); }
    uint32_t sectorSize() const override { return below.sectorSize(); }

    /* Never: it takes writes over a device that can only be read as well, so that a run can be planned there.
     */
    bool readOnly() const override { return false; }

    /* A unit that is kept whole is not read below. */
    DeviceError read(uint64_t offset, std::span<uint8_t> bytes) override;
    std::string reason(DeviceError error) const override { return below.reason(error); }
    size_t readsAtOnce() const override { return below.readsAtOnce(); }
    DeviceError readAll(std::span<const DeviceRead> reads) override;

    /* What is there already changes nothing. ENOSPC, EFBIG and whatever else a temporary file refuses is the
     * writer's error, and remembered: the contents are incomplete from then on and must not be committed. */
    DeviceError write(uint64_t offset, Bytes bytes) override;
    DeviceError zero(uint64_t offset, uint64_t count) override;

    /* Puts nothing on a medium; the remembered error, when there is one. */
    DeviceError flush() override { return failed; }
    uint64_t holeAt(uint64_t offset, uint64_t count) override;

    /* ---- For the transaction ---- */

    /* The offset of the lowest changed unit that begins at or after this one's beginning; false when none
     * does. */
    bool nextChanged(uint64_t offset, uint64_t& changed) const;

    /* Makes what was written of what lies below. That is given, from the offset on; beyond it the bytes hold
     * it already. */
    DeviceError patch(uint64_t offset, std::span<uint8_t> bytes, Bytes lies = {}) const;

    /* Whether some of it is kept as a difference, so that what lies below is needed. */
    bool needsBelow(uint64_t offset, uint64_t count) const;

    uint64_t changedUnits() const { return index.count(); }
    size_t indexMemory() const { return index.memory(); } /* bytes */
    /* Of the temporary files, for messages. */
    const std::string& directory() const { return wholes.directory; }

private:
    BlockDevice& below;
    ChangedUnits index;
    UnitStore wholes, patches; /* a slot of patches has the highest bit set in the index */
    uint32_t wholeSlots = 0, patchSlots = 0;
    const bool compares; /* reading below is cheap */
    ByteVector there;    /* what lies below a run */
    DeviceError failed = 0;

    static bool isPatch(uint32_t slot);
    bool inWholeUnit(uint64_t offset, size_t count) const;
    DeviceError remembered(DeviceError error);
    DeviceError keep(uint64_t unit, uint32_t slot, Bytes lies, Bytes contents);
    DeviceError writeUnit(uint64_t unit, size_t start, Bytes bytes);
    DeviceError writeRun(uint64_t unit, Bytes bytes, size_t& written);
    DeviceError patchRun(const UnitRun& run, uint64_t offset, std::span<uint8_t> bytes) const;
    DeviceError readAround(uint64_t offset, std::span<uint8_t> bytes);
};

} /* namespace offline */

#endif
