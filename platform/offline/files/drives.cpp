/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/files/drives.h"

#include <new>

#include "platform/offline/base/guarded.h"
#include "platform/offline/files/drive_path.h"
#include "platform/offline/files/files_state.h"
#include "platform/offline/files/path_lookup.h"
#include "platform/offline/files/searches.h"
#include "platform/offline/files/volume_handle.h"

namespace offline {
namespace {

/* 0 to 25; the letter is one. */
size_t driveIndex(char16_t letter) {
    return static_cast<size_t>((letter | 0x20) - u'a');
}

} /* namespace */

void driveSet(char letter, Volume& volume) {
    const auto unit = static_cast<char16_t>(letter);
    if (isDriveLetter(unit)) filesState().drives[driveIndex(unit)] = &volume;
}

Volume* driveVolume(char16_t letter) {
    return isDriveLetter(letter) ? filesState().drives[driveIndex(letter)] : nullptr;
}

void drivesReset() {
    if (!hasRoomState(StatefulRoom::files)) return;
    filesState().drives.fill(nullptr);
    searchesEnd();
    lookUpForget();
    volumeHandlesEnd();
}

NTSTATUS driveFind(std::u16string_view path, Volume*& volume, FileRef& file) {
    return guarded([&] {
        DrivePath parsed;
        const NTSTATUS status = lookUp(path, parsed, file);
        volume = parsed.volume;
        return status;
    });
}

} /* namespace offline */
