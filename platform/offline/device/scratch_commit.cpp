/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/device/scratch_commit.h"

#include <algorithm>

#include "platform/offline/base/guarded.h"
#include "platform/offline/base/progress.h"
#include "platform/offline/device/device_error.h"

namespace offline {
namespace {

constexpr uint64_t longestWindow = 16 * scratchCluster, windowsAhead = 4 * longestWindow; /* bytes */
constexpr char cantWrite[] = "the changes can't be written";

/* Neighbouring clusters with changes: as they are on the disk, then as they are to be. */
struct ClusterWindow {
    uint64_t start;
    ByteVector before, after = {};
};

struct ScratchCommit {
    const TransactionDisk& disk;
    CommitReport& report;
    Problem& problem;
    std::vector<ClusterWindow> windows = {};

    NTSTATUS refuseDisk(const char* what, DeviceError error) const;
    bool nextWindows(uint64_t& from);
    DeviceError load();
    NTSTATUS write(uint64_t offset, Bytes bytes);
    NTSTATUS write(const ClusterWindow& window);
    NTSTATUS commit();
};

NTSTATUS ScratchCommit::refuseDisk(const char* what, DeviceError error) const {
    return refuse(problem, deviceStatus(error),
                  disk.device->name() + ": " + what + " (" + disk.overlay->reason(error) + ")");
}

/* Those from there on, a multiple of a cluster; false when there is none. */
bool ScratchCommit::nextWindows(uint64_t& from) {
    uint64_t changed = 0, bytes = 0;
    windows.clear();
    while (bytes < windowsAhead && disk.overlay->nextChanged(from, changed)) {
        const uint64_t start = changed - changed % scratchCluster;
        from = start + scratchCluster;
        while (from - start < longestWindow && disk.overlay->nextChanged(from, changed) &&
               changed < from + scratchCluster) {
            from += scratchCluster;
        }
        windows.push_back({start, ByteVector(std::min(from, disk.device->size()) - start)});
        bytes += from - start;
    }
    return !windows.empty();
}

DeviceError ScratchCommit::load() {
    std::vector<DeviceRead> reads;
    for (ClusterWindow& window : windows) reads.push_back({window.start, window.before});
    DeviceError error = disk.device->readAll(reads);
    for (ClusterWindow& window : windows) {
        window.after = window.before;
        if (error == 0) error = disk.overlay->patch(window.start, window.after);
    }
    return error;
}

NTSTATUS ScratchCommit::write(uint64_t offset, Bytes bytes) {
    if (bytes.empty()) return STATUS_SUCCESS;
    ++report.stretches;
    report.bytes += bytes.size();
    const DeviceError error = disk.device->write(offset, bytes);
    return error == 0 ? STATUS_SUCCESS : refuseDisk(cantWrite, error);
}

/* Neighbours that differ at once. */
NTSTATUS ScratchCommit::write(const ClusterWindow& window) {
    const Bytes after = window.after;
    uint64_t first = 0;
    NTSTATUS status = STATUS_SUCCESS;
    for (uint64_t at = 0, next = 0; at < after.size() && status >= 0; at = next) {
        next = std::min<uint64_t>(at + scratchCluster, after.size());
        if (!sameBytes(Bytes(window.before).subspan(at, next - at), after.subspan(at, next - at))) continue;
        status = write(window.start + first, after.subspan(first, at - first));
        first = next;
    }
    if (status >= 0) status = write(window.start + first, after.subspan(first));
    progressAdd(2 * after.size());
    return status;
}

NTSTATUS ScratchCommit::commit() {
    DeviceError error = disk.overlay->flush(); /* whether it lost something */
    if (error != 0) return refuseDisk("the changes were not kept", error);
    NTSTATUS status = STATUS_SUCCESS;
    for (uint64_t from = 0; nextWindows(from) && status >= 0;) {
        error = load();
        if (noRoom(error)) return refuseDisk(cantWrite, error); /* of a write that had gone on by itself */
        if (error != 0) return refuseDisk("what is to be changed can't be read", error);
        for (size_t i = 0; i < windows.size() && status >= 0; ++i) status = write(windows[i]);
    }
    if (status < 0) return status;
    error = disk.device->flush();
    return error == 0 ? STATUS_SUCCESS : refuseDisk("it can't be flushed", error);
}

} /* namespace */

NTSTATUS commitScratch(std::span<const TransactionDisk> disks, CommitReport& report, Problem& problem) {
    return guardedRefusing(problem, [&]() -> NTSTATUS {
        NTSTATUS status = STATUS_SUCCESS;
        for (const TransactionDisk& disk : disks) {
            if (status >= 0) status = ScratchCommit{disk, report, problem}.commit();
        }
        report.committed = status >= 0;
        return status;
    });
}

} /* namespace offline */
