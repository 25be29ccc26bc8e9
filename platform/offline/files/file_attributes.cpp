/* SPDX-License-Identifier: GPL-2.0-or-later */
/* GetFileAttributesW. */
#include <new>

#include "platform/offline/base/guarded.h"
#include "platform/offline/base/status.h"
#include "platform/offline/files/file_access.h"
#include "platform/offline/files/path_lookup.h"

namespace offline {
namespace {

/* The attributes may be read by whoever may read them from the file, or list the directory that it is in. */
NTSTATUS attributesAccess(const DrivePath& path, FileRef file) {
    const NTSTATUS status = fileAccess(*path.volume, file, fileReadAttributes);
    if (status >= 0 || path.relative.empty()) return status;
    const size_t separator = path.relative.rfind(u'\\');
    FileRef parent = 0;
    const NTSTATUS found = lookUpRelative(
        *path.volume, path.relative.substr(0, separator == path.relative.npos ? 0 : separator), parent);
    return found < 0 ? found : fileAccess(*path.volume, parent, fileListDirectory);
}

NTSTATUS queryAttributes(LPCWSTR path, DWORD& attributes) {
    DrivePath parsed;
    FileRef file = 0;
    NTSTATUS status = lookUpNamed(path, parsed, file);
    if (status < 0) return status;
    status = attributesAccess(parsed, file);
    if (status < 0) return status;
    FileInfo info = {};
    status = volumeFileInfo(*parsed.volume, file, info);
    attributes = info.attributes == 0 ? FILE_ATTRIBUTE_NORMAL : info.attributes;
    return status;
}

} /* namespace */
} /* namespace offline */

DWORD GetFileAttributesW(LPCWSTR path) {
    DWORD attributes = INVALID_FILE_ATTRIBUTES;
    const NTSTATUS status = offline::guarded([&] { return offline::queryAttributes(path, attributes); });
    return offline::booleanResult(status) ? attributes : INVALID_FILE_ATTRIBUTES;
}
