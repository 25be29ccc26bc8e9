/* SPDX-License-Identifier: GPL-2.0-or-later */
/* A device over another one: what was written to it, else what lies below. It never writes below (1); whether
 * and how its contents get there is the transaction's matter (transaction.h). Contents beyond 32 MiB go to an
 * unnamed temporary file. */
#ifndef QUILLET_OFFLINE_DEVICE_OVERLAY_H
#define QUILLET_OFFLINE_DEVICE_OVERLAY_H

#include "platform/offline/device/block_device.h"
#include "platform/offline/device/changed_units.h"
#include "platform/offline/device/unit_store.h"

namespace offline {

constexpr size_t overlayMemory = size_t{32} << 20; /* bytes of contents that are kept in memory */

struct Overlay final : BlockDevice {
    /* The device below has to outlive it. The temporary file lies in the directory. */
    Overlay(BlockDevice& device, std::string inDirectory, size_t memory = overlayMemory);

    const std::string& name() const override { return below.name(); }
    uint64_t size() const override { return below.size(); }
    uint32_t sectorSize() const override { return below.sectorSize(); }

    /* Never: it takes writes over a device that can only be read as well, so that a run can be planned there.
     */
    bool readOnly() const override { return false; }

    /* A unit that was written whole is not read below. */
    DeviceError read(uint64_t offset, std::span<uint8_t> bytes) override;
    std::string reason(DeviceError error) const override { return below.reason(error); }
    size_t readsAtOnce() const override { return below.readsAtOnce(); }
    DeviceError readAll(std::span<const DeviceRead> reads) override;

    /* ENOSPC, EFBIG and whatever else the temporary file refuses is the writer's error, and remembered: the
     * contents are incomplete from then on and must not be committed. */
    DeviceError write(uint64_t offset, Bytes bytes) override;
    DeviceError zero(uint64_t offset, uint64_t count) override;

    /* Puts nothing on a medium; the remembered error, when there is one. */
    DeviceError flush() override { return failed; }
    uint64_t holeAt(uint64_t offset, uint64_t count) override;

    /* ---- For the transaction ---- */

    /* The offset of the lowest changed unit that begins at or after this one's beginning; false when none
     * does. */
    bool nextChanged(uint64_t offset, uint64_t& changed) const;

    /* Puts the changed units' contents where they lie in the bytes at the offset, a unit's beginning. Around
     * them goes what is given for there, from the same offset on. */
    DeviceError patch(uint64_t offset, std::span<uint8_t> bytes, Bytes around = {}) const;

    uint64_t changedUnits() const { return index.count(); }
    size_t indexMemory() const { return index.memory(); }            /* bytes */
    const std::string& directory() const { return store.directory; } /* of the temporary file, for messages */

private:
    BlockDevice& below;
    ChangedUnits index;
    UnitStore store;
    DeviceError failed = 0;

    bool changedWhole(const DeviceRead& read) const;
    DeviceError remembered(DeviceError error);
    DeviceError writeUnit(uint64_t unit, size_t start, Bytes bytes);
    DeviceError writeRun(uint64_t unit, Bytes bytes, size_t& written);
    DeviceError readAround(uint64_t offset, std::span<uint8_t> bytes);
};

} /* namespace offline */

#endif
