/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/volume/disk.h"

#include "platform/offline/base/guarded.h"
#include "platform/offline/volume/open_disk.h"

namespace offline {

void DiskDeleter::operator()(Disk* disk) const {
    diskSync(*disk);
    delete disk;
}

NTSTATUS diskOpen(const DiskName& name, DiskAccess access, DiskPtr& disk, Problem& problem) {
    disk.reset();
    BlockDevicePtr device;
    const NTSTATUS status = deviceOpen(name, access, device, problem);
    return status < 0 ? status : diskOver(std::move(device), access, disk);
}

NTSTATUS diskOver(BlockDevicePtr device, DiskAccess access, DiskPtr& disk) {
    disk.reset();
    return guarded([&] {
        disk.reset(new Disk(std::move(device), access));
        return STATUS_SUCCESS;
    });
}

const std::string& diskPath(const Disk& disk) {
    return disk.device->name();
}
uint64_t diskSize(const Disk& disk) {
    return disk.cache.size;
}
bool diskReadOnly(const Disk& disk) {
    return disk.readOnly;
}

bool diskForChanges(const Disk& disk) {
    return disk.forChanges;
}

bool diskWritable(const Disk& disk) {
    return disk.device->writable();
}

NTSTATUS diskRead(Disk& disk, uint64_t offset, std::span<uint8_t> bytes) {
    return cacheRead(disk.cache, offset, bytes);
}

NTSTATUS diskWrite(Disk& disk, uint64_t offset, Bytes bytes) {
    return disk.readOnly ? STATUS_MEDIA_WRITE_PROTECTED : cacheWrite(disk.cache, offset, bytes);
}

NTSTATUS diskReadPast(Disk& disk, uint64_t offset, std::span<uint8_t> bytes) {
    return cacheReadPast(disk.cache, offset, bytes);
}

NTSTATUS diskWritePast(Disk& disk, uint64_t offset, Bytes bytes) {
    return disk.readOnly ? STATUS_MEDIA_WRITE_PROTECTED : cacheWritePast(disk.cache, offset, bytes);
}

size_t diskReadsAtOnce(const Disk& disk) {
    return disk.device->readsAtOnce();
}

void diskReadAhead(Disk& disk, std::span<const ByteRange> ranges) {
    cacheReadAhead(disk.cache, ranges);
}

NTSTATUS diskSync(Disk& disk) {
    return disk.readOnly ? STATUS_SUCCESS : cacheSync(disk.cache);
}

const std::vector<DirtyMark>& diskMarks(const Disk& disk) {
    return disk.marks;
}

void diskNoteMark(Disk& disk, DirtyMark mark) {
    disk.marks.push_back(std::move(mark));
}

} /* namespace offline */
