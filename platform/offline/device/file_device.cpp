/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/device/file_device.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "platform/offline/base/guarded.h"
#include "platform/offline/device/disk_file.h"
#include "platform/offline/device/file_transfer.h"

namespace offline {
namespace {

struct FileDevice final : BlockDevice {
    DiskFile disk;
    DeviceError flushRefusal = 0; /* what the system dropped then can't be written again */

    const std::string& name() const override { return disk.path; }
    uint64_t size() const override { return disk.size; }
    uint32_t sectorSize() const override { return disk.sectorSize; }
    bool readOnly() const override { return disk.readOnly; }
    bool writable() const override { return diskFileWritable(disk); }

    DeviceError read(uint64_t offset, std::span<uint8_t> bytes) override;
    DeviceError write(uint64_t offset, Bytes bytes) override;
    DeviceError flush() override;
    uint64_t holeAt(uint64_t offset, uint64_t count) override;
    DeviceError zero(uint64_t offset, uint64_t count) override;

private:
    bool becameShorter() const;
    DeviceError changeRefusal() const;
    bool zeroAtOnce(uint64_t offset, uint64_t count) const;
};

bool FileDevice::becameShorter() const {
    struct stat info = {};
    return !disk.isDevice && fstat(disk.file, &info) == 0 && static_cast<uint64_t>(info.st_size) < disk.size;
}

/* A write beyond a file's end would make it longer, with zeros where its contents were. */
DeviceError FileDevice::changeRefusal() const {
    if (disk.readOnly) return EROFS;
    return becameShorter() ? deviceShrank : 0;
}

DeviceError FileDevice::read(uint64_t offset, std::span<uint8_t> bytes) {
    return fileReadAt(disk.file, offset, bytes);
}

DeviceError FileDevice::write(uint64_t offset, Bytes bytes) {
    const DeviceError refusal = changeRefusal();
    return refusal != 0 ? refusal : fileWriteAt(disk.file, offset, bytes);
}

DeviceError FileDevice::flush() {
    if (disk.readOnly || flushRefusal != 0) return flushRefusal;
    if (fdatasync(disk.file) != 0) {
        flushRefusal = errno;
    } else if (becameShorter()) {
        flushRefusal = deviceShrank; /* and with it what was written beyond */
    }
    return flushRefusal;
}

/* A block device says that all of it is data. */
uint64_t FileDevice::holeAt(uint64_t offset, uint64_t count) {
    const off_t data = lseek(disk.file, static_cast<off_t>(offset), SEEK_DATA);
    if (data < 0) return errno == ENXIO && !becameShorter() ? count : 0; /* ENXIO: none up to the end */
    return std::min(count, static_cast<uint64_t>(data) - offset);
}

bool FileDevice::zeroAtOnce(uint64_t offset, uint64_t count) const {
    if (!disk.isDevice) {
        return fallocate(disk.file, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(offset),
                         static_cast<off_t>(count)) == 0;
    }
    std::array<uint64_t, 2> range = {offset, count};
    return offset % disk.sectorSize == 0 && count % disk.sectorSize == 0 &&
           ioctl(disk.file, BLKZEROOUT, range.data()) == 0;
}

DeviceError FileDevice::zero(uint64_t offset, uint64_t count) {
    static constexpr std::array<uint8_t, 65536> zeros = {};
    DeviceError error = changeRefusal();
    if (count == 0 || error != 0 || zeroAtOnce(offset, count)) return error;
    while (error == 0 && count > 0) {
        const Bytes piece = Bytes(zeros).first(std::min<uint64_t>(count, zeros.size()));
        error = fileWriteAt(disk.file, offset, piece);
        offset += piece.size();
        count -= piece.size();
    }
    return error;
}

} /* namespace */

NTSTATUS fileDeviceOpen(const std::string& path, DiskAccess access, BlockDevicePtr& device,
                        Problem& problem) {
    device.reset();
    return guarded([&]() -> NTSTATUS {
        auto opened = std::make_unique<FileDevice>();
        const NTSTATUS status = diskFileOpen(path, access, opened->disk, problem);
        if (status >= 0) device = std::move(opened);
        return status;
    });
}

} /* namespace offline */
