#include "platform/offline/device/pointers.h"

#include <cerrno>

#include "platform/offline/device/reasons.h"

namespace offline {

NTSTATUS refuseJournal(const std::string& path, const char* what, int error, Problem& problem) {
    if (error == EEXIST) {
        return refuse(problem, STATUS_OBJECT_NAME_COLLISION,
                      path + ": a file of this name is in the way; move it elsewhere; nothing was changed");
    }
    return refuse(problem, statusOfDevice(error),
                  path + ": " + what + " (" + reasonOf(error) + "); nothing was changed");
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
        if (error == 0) error = file.write(0, encodedHead(pointer));
        if (error == 0) error = file.flush();
        if (error == 0) error = files.flushDirectory(directoryOf(path));
        if (error != 0) return refuseJournal(path, "it can't be written", error, problem);
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

} /* namespace offline */
