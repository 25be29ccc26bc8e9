/* SPDX-License-Identifier: GPL-2.0-or-later */
/* A device over another one that refuses calls when it is told to, and remembers them. */
#ifndef QUILLET_TESTS_SUPPORT_FAULT_DEVICE_H
#define QUILLET_TESTS_SUPPORT_FAULT_DEVICE_H

#include <cerrno>

#include "platform/offline/device/block_device.h"

namespace offline {

/* Which calls are refused from now on: those after the first so many, and reads that touch the bad bytes. */
struct Faults {
    static constexpr long never = -1;
    long readsLeft = never, writesLeft = never, flushesLeft = never;
    bool once = false; /* only the first of those is refused */
    DeviceError error = EIO;
    uint64_t badStart = 0, badEnd = 0; /* bytes */
    bool refused = false;              /* a call was */
    size_t atOnce = 1;                 /* reads that it answers side by side */

    struct Call {
        char kind; /* 'r', 'a' (one for several reads at once, their number as count), 'w', 'z' (counted with
                      the writes), 's' */
        uint64_t offset, count;
    };
    std::vector<Call> calls; /* those that were not refused */
};

/* Owns what is below; the faults are somebody else's and outlive it. */
struct FaultDevice final : BlockDevice {
    BlockDevicePtr below;
    Faults& faults;
    DeviceError flushRefusal = 0;

    FaultDevice(BlockDevicePtr device, Faults& told) : below(std::move(device)), faults(told) {}

    const std::string& name() const override { return below->name(); }
    uint64_t size() const override { return below->size(); }
    uint32_t sectorSize() const override { return below->sectorSize(); }
    bool readOnly() const override { return below->readOnly(); }
    bool writable() const override { return below->writable(); }

    DeviceError read(uint64_t offset, std::span<uint8_t> bytes) override {
        if (offset < faults.badEnd && faults.badStart < offset + bytes.size()) return faults.error;
        const DeviceError error = refusal(faults.readsLeft, {'r', offset, bytes.size()});
        return error != 0 ? error : below->read(offset, bytes);
    }
    size_t readsAtOnce() const override { return faults.atOnce; }
    DeviceError readAll(std::span<const DeviceRead> reads) override {
        const DeviceError error = refusal(faults.readsLeft, {'a', 0, reads.size()});
        return error != 0 ? error : below->readAll(reads);
    }
    DeviceError write(uint64_t offset, Bytes bytes) override {
        const DeviceError error = refusal(faults.writesLeft, {'w', offset, bytes.size()});
        return error != 0 ? error : below->write(offset, bytes);
    }
    DeviceError flush() override {
        if (flushRefusal == 0) flushRefusal = refusal(faults.flushesLeft, {'s', 0, 0});
        return flushRefusal != 0 ? flushRefusal : below->flush();
    }
    uint64_t holeAt(uint64_t offset, uint64_t count) override { return below->holeAt(offset, count); }
    DeviceError zero(uint64_t offset, uint64_t count) override {
        const DeviceError error = refusal(faults.writesLeft, {'z', offset, count});
        return error != 0 ? error : below->zero(offset, count);
    }

private:
    DeviceError refusal(long& left, const Faults::Call& call) {
        if (left != 0) {
            if (left > 0) --left;
            faults.calls.push_back(call);
            return 0;
        }
        if (faults.once) left = Faults::never;
        faults.refused = true;
        return faults.error;
    }
};

} /* namespace offline */

#endif
