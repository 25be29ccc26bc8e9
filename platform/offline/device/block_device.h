/* SPDX-License-Identifier: GPL-2.0-or-later */
/* A block device: bytes by offset, and a flush. Its kinds stack: a file or a device of the system at the
 * bottom, an overlay over it, in tests memory and a device that fails on purpose. Each kind is one file and
 * knows nothing of the others; who uses one can't tell which it is. No function throws. */
#ifndef QUILLET_OFFLINE_DEVICE_BLOCK_DEVICE_H
#define QUILLET_OFFLINE_DEVICE_BLOCK_DEVICE_H

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "platform/offline/base/bytes.h"

namespace offline {

/* Why a device refused: an errno, or 0 when it did what was asked. */
using DeviceError = int;
/* The device ends before the bytes that were asked for: it became shorter since it was opened. */
constexpr DeviceError deviceShrank = -1;

/* Whoever answers for the device has gone, and with it all that was under way. */
constexpr DeviceError deviceGone = -2;

struct DeviceRead {
    uint64_t offset = 0;      /* bytes */
    std::span<uint8_t> bytes; /* where they go */
};

struct BlockDevice {
    BlockDevice() = default;
    virtual ~BlockDevice() = default;
    BlockDevice(const BlockDevice&) = delete;
    BlockDevice& operator=(const BlockDevice&) = delete;

    virtual const std::string& name() const = 0; /* for messages, UTF-8 as the user gave it */
    virtual uint64_t size() const = 0;           /* bytes; the same as long as the device is open */
    virtual uint32_t sectorSize() const = 0;     /* bytes, 512 or 4096: what it writes whole or not at all */
    virtual bool readOnly() const = 0;

    /* Whether the same device could be opened for writing, however this was opened. */
    virtual bool writable() const { return !readOnly(); }

    /* Offsets and sizes are in bytes and need no alignment; the range lies on the device. A call that fails
     * leaves the bytes that it was to read, or the range that it was to write, undefined. A device may go on
     * with a write when the call has returned: what comes later is as if it were done, but that it failed may
     * be told by the next write or flush, once; reads before that fail for the same reason. */
    [[nodiscard]] virtual DeviceError read(uint64_t offset, std::span<uint8_t> bytes) = 0;
    [[nodiscard]] virtual DeviceError write(uint64_t offset, Bytes bytes) = 0;

    /* Why it refused, for a message. May throw std::bad_alloc. */
    virtual std::string reason(DeviceError error) const;

    /* How many reads are worth having under way at once: 1 where each costs the same alone and in company. */
    virtual size_t readsAtOnce() const { return 1; }

    /* Reads of one moment, in any order; as read, for each. A device that answers them side by side takes
     * about as long for as many as readsAtOnce says as for one. */
    [[nodiscard]] virtual DeviceError readAll(std::span<const DeviceRead> reads) {
        for (const DeviceRead& one : reads) {
            const DeviceError error = read(one.offset, one.bytes);
            if (error != 0) return error;
        }
        return 0;
    }

    /* What was written before is on the medium when it succeeds. After a failure nobody knows what is: the
     * device goes on refusing to flush. */
    [[nodiscard]] virtual DeviceError flush() = 0;

    /* How many bytes from the offset on, count at most, read as zeros because nothing is stored for them; 0
     * when something is, or when it can't be told. */
    virtual uint64_t holeAt(uint64_t offset, uint64_t count) = 0;

    /* Writes zeros, and gives back the room of what they cover where it can. */
    [[nodiscard]] virtual DeviceError zero(uint64_t offset, uint64_t count) = 0;
};

using BlockDevicePtr = std::unique_ptr<BlockDevice>;

} /* namespace offline */

#endif
