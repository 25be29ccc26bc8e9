/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/device/pointers.h"

#include <cerrno>

#include "platform/offline/device/device_error.h"

namespace offline {

NTSTATUS refuseJournal(const std::string& path, const char* what, int error, Problem& problem) {
    if (error == EEXIST) {
        return refuse(problem, STATUS_OBJECT_NAME_COLLISION,
                      path + ": a commit that was cut off is in the way; run `quillet-offline undo` first");
    }
    return refuse(problem, deviceStatus(error), path + ": " + what + " (" + deviceErrorText(error) + ")");
}

NTSTATUS writePointers(JournalFiles& files, const JournalHead& head, Problem& problem) {
    for (size_t index = 1; index < head.disks.size(); ++index) {
        JournalHead pointer;
        pointer.kind = JournalKind::pointer;
        pointer.id = head.id;
        pointer.time = head.time;
        pointer.disks.push_back(head.disks[index]);
        pointer.disks[0].path = head.disks[0].path;
        const std::string& path = head.disks[index].path;
        JournalFile file;
        int error = file.create(files, path);
        const bool created = error == 0;
        if (error == 0) error = file.write(0, encodedHead(pointer));
        if (error == 0) error = file.flush();
        if (error == 0) error = files.flushDirectory(directoryOf(path));
        if (error == 0) continue;
        if (created) files.remove(path);
        return refuseJournal(path, "it can't be written", error, problem);
    }
    return STATUS_SUCCESS;
}

void removePointers(JournalFiles& files, const JournalHead& head) {
    for (size_t index = 1; index < head.disks.size(); ++index) {
        const std::string& path = head.disks[index].path;
        JournalReader pointer;
        if (pointer.open(files, path) != JournalState::pointer || pointer.head.id != head.id) continue;
        if (files.remove(path) == 0) static_cast<void>(files.flushDirectory(directoryOf(path)));
    }
}

void removeCopies(JournalFiles& files, const JournalHead& head) {
    if (head.undoFile.empty()) return;
    for (const std::string& path : {undoCopyPath(head.undoFile), head.undoFile}) {
        if (path == head.disks[0].path) continue; /* the journal itself */
        JournalReader copy;
        copy.open(files, path);
        if (!copy.headWhole || copy.head.id != head.id || files.remove(path) != 0) continue;
        static_cast<void>(files.flushDirectory(directoryOf(path)));
    }
}

PointerState followPointer(JournalFiles& files, const JournalReader& pointer) {
    const std::string& path = pointer.head.disks[0].path;
    JournalReader journal;
    const JournalState state = journal.open(files, path);
    const bool same = !journal.headWhole || journal.head.id == pointer.head.id;
    switch (state) {
        case JournalState::none: {
            std::vector<std::string> names;
            const bool reached = files.names(directoryOf(path), names) == 0;
            return reached ? PointerState::stale : PointerState::uncertain;
        }
        case JournalState::unfinished:
        case JournalState::pointer:
            return PointerState::stale;
        case JournalState::whole:
            return same ? PointerState::live : PointerState::stale;
        default:
            return same ? PointerState::uncertain : PointerState::stale;
    }
}

} /* namespace offline */
