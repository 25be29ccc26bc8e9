/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/device/journal_disks.h"

#include <algorithm>

#include "platform/offline/device/device_error.h"

namespace offline {
namespace {

NTSTATUS sameDisk(const JournalDisk& wanted, const TransactionDisk& disk, bool& same, Problem& problem) {
    Digest identity = {};
    same = disk.device->size() == wanted.size;
    if (!same) return STATUS_SUCCESS;
    const DeviceError error = identityOf(*disk.device, identity);
    same = identity == wanted.identity;
    return error == 0 ? STATUS_SUCCESS : refuseDevice(disk, "it can't be read", error, problem);
}

/* Where two could be meant, none is. */
NTSTATUS findByIdentity(const JournalDisk& wanted, std::span<const TransactionDisk> given,
                        const JournalDisks& taken, const TransactionDisk*& found, Problem& problem) {
    found = nullptr;
    for (const TransactionDisk& disk : given) {
        if (std::find(taken.begin(), taken.end(), &disk) != taken.end()) continue;
        bool same = false;
        const NTSTATUS status = sameDisk(wanted, disk, same, problem);
        if (status < 0) return status;
        if (!same) continue;
        if (found != nullptr) {
            found = nullptr;
            break;
        }
        found = &disk;
    }
    return STATUS_SUCCESS;
}

/* The disk's own path, from that of its journal. */
std::string diskOf(const std::string& path) {
    return path.substr(0, path.size() - std::min(path.size(), journalPath({}).size() - 1));
}

} /* namespace */

DeviceError identityOf(BlockDevice& device, Digest& identity) {
    ByteVector start(static_cast<size_t>(std::min(device.size(), journal::identityBytes)));
    const DeviceError error = device.read(0, start);
    identity = digest(start);
    return error;
}

NTSTATUS matchDisks(const JournalReader& journal, std::span<const TransactionDisk> given, JournalDisks& disks,
                    Problem& problem) {
    const std::vector<JournalDisk>& wanted = journal.head.disks;
    disks.assign(wanted.size(), nullptr);
    for (size_t index = 0; index < wanted.size(); ++index) {
        for (const TransactionDisk& disk : given) {
            if (journalPath(disk.place) != wanted[index].path) continue;
            bool same = false;
            const NTSTATUS status = sameDisk(wanted[index], disk, same, problem);
            if (status < 0) return status;
            if (!same) {
                return refuse(
                    problem, STATUS_FILE_CORRUPT_ERROR,
                    journal.path + ": it belongs to another disk than " + disk.device->name() +
                        ", which has another size or beginning; put that disk back, or move the file away");
            }
            disks[index] = &disk;
        }
    }
    for (size_t index = 0; index < wanted.size(); ++index) {
        if (disks[index] != nullptr) continue;
        const NTSTATUS status = findByIdentity(wanted[index], given, disks, disks[index], problem);
        if (status < 0) return status;
        if (disks[index] == nullptr && wanted.size() == 1) {
            return refuse(problem, STATUS_FILE_CORRUPT_ERROR,
                          journal.path + ": it belongs to another disk, " + diskOf(wanted[index].path) +
                              "; name that one, or move the file away");
        }
        if (disks[index] == nullptr) {
            return refuse(problem, STATUS_NO_SUCH_FILE,
                          journal.path + ": its run changed " + diskOf(wanted[index].path) +
                              " too, which is missing here; name all disks of the system");
        }
    }
    return STATUS_SUCCESS;
}

NTSTATUS refuseReadOnly(const JournalDisks& disks, Problem& problem) {
    for (const TransactionDisk* const disk : disks) {
        if (!disk->device->readOnly()) continue;
        return refuse(problem, STATUS_MEDIA_WRITE_PROTECTED,
                      disk->device->name() + ": it can only be read; make it writable first");
    }
    return STATUS_SUCCESS;
}

JournalHead located(const JournalReader& journal, const JournalDisks& disks) {
    JournalHead head = journal.head;
    for (size_t index = 0; index < disks.size(); ++index) {
        head.disks[index].path = journalPath(disks[index]->place);
    }
    return head;
}

NTSTATUS refuseDevice(const TransactionDisk& disk, const std::string& what, DeviceError error,
                      Problem& problem) {
    return refuse(problem, deviceStatus(error),
                  disk.device->name() + ": " + what + " (" + disk.device->reason(error) + ")");
}

} /* namespace offline */
