/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/files/path_lookup.h"

#include <cstring>

#include "platform/offline/base/system_needed.h"
#include "platform/offline/files/files_state.h"
#include "platform/offline/files/searches.h"

namespace offline {

bool sameText(std::u16string_view left, std::u16string_view right) {
    return left.size() == right.size() &&
           memcmp(left.data(), right.data(), left.size() * sizeof(char16_t)) == 0;
}

NTSTATUS lookUpRelative(Volume& volume, std::u16string_view relative, FileRef& file) {
    if (relative.empty()) {
        file = rootDirectory;
        return STATUS_SUCCESS;
    }
    if (searchesKnow(volume, relative, file)) return STATUS_SUCCESS;
    LastFound& lastFound = filesState().lastFound;
    if (lastFound.volume == &volume && sameText(lastFound.relative, relative)) {
        file = lastFound.file;
        return STATUS_SUCCESS;
    }
    NTSTATUS status = checkComponents(relative);
    if (status < 0) return status;
    status = volumeFind(volume, relative, file);
    if (status < 0) return status;
    lastFound.volume = nullptr; /* while the text is being replaced */
    lastFound.relative = relative;
    lastFound.file = file;
    lastFound.volume = &volume;
    return STATUS_SUCCESS;
}

NTSTATUS lookUp(std::u16string_view path, DrivePath& parsed, FileRef& file) {
    NTSTATUS status = parseDrivePath(path, parsed);
    if (status < 0) return status;
    status = lookUpRelative(*parsed.volume, parsed.relative, file);
    if (status < 0 || !parsed.directoryOnly) return status;
    FileInfo info = {};
    status = volumeFileInfo(*parsed.volume, file, info);
    if (status < 0) return status;
    return (info.attributes & FILE_ATTRIBUTE_DIRECTORY) != 0 ? STATUS_SUCCESS : STATUS_OBJECT_NAME_INVALID;
}

NTSTATUS lookUpNamed(LPCWSTR path, DrivePath& parsed, FileRef& file) {
    NTSTATUS status = systemNeeded();
    std::u16string_view text;
    if (status >= 0) status = pathText(path, text);
    return status < 0 ? status : lookUp(text, parsed, file);
}

void lookUpForget() {
    filesState().lastFound = {};
}

} /* namespace offline */
