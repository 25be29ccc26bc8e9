/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/files/volume_handle.h"

#include <cstdint>
#include <memory>
#include <new>

#include "platform/offline/base/handles.h"
#include "platform/offline/base/status.h"
#include "platform/offline/base/system_needed.h"
#include "platform/offline/files/drive_path.h"
#include "platform/offline/files/drives.h"
#include "platform/offline/files/files_state.h"

namespace offline {
namespace {

struct VolumeHandle {
    Volume* volume;
    uint64_t era; /* of the drive letters that it was opened in */
    bool mayWrite;
};

const HandleType volumeHandleType = {[](void* object) { delete static_cast<VolumeHandle*>(object); }};

/* "\\?\C:" or "\\.\C:", nothing before or after it. */
bool namesVolume(std::u16string_view path) {
    return path.size() == 6 && (path.starts_with(u"\\\\?\\") || path.starts_with(u"\\\\.\\")) &&
           isDriveLetter(path[4]) && path[5] == u':';
}

NTSTATUS openVolume(LPCWSTR path, DWORD access, DWORD disposition, HANDLE& handle) {
    NTSTATUS status = systemNeeded();
    if (status < 0) return status;
    std::u16string_view text;
    status = pathText(path, text);
    if (status < 0) return status;
    if (!namesVolume(text)) return STATUS_NOT_SUPPORTED;
    if (disposition != OPEN_EXISTING) return STATUS_INVALID_PARAMETER;
    Volume* volume = driveVolume(text[4]);
    if (volume == nullptr) return STATUS_OBJECT_NAME_NOT_FOUND;
    const bool mayWrite = (access & (GENERIC_WRITE | GENERIC_ALL)) != 0;
    if (mayWrite && volumeReadOnly(*volume)) return STATUS_MEDIA_WRITE_PROTECTED;
    std::unique_ptr<VolumeHandle> object(new (std::nothrow) VolumeHandle{volume, filesState().era, mayWrite});
    if (object == nullptr) return STATUS_NO_MEMORY;
    handle = handleCreate(volumeHandleType, object.get());
    if (handle == nullptr) return STATUS_NO_MEMORY;
    static_cast<void>(object.release());  // the handle owns it
    return STATUS_SUCCESS;
}

NTSTATUS flush(HANDLE handle) {
    const NTSTATUS status = systemNeeded();
    if (status < 0) return status;
    const auto* object = static_cast<const VolumeHandle*>(handleObject(handle, volumeHandleType));
    if (object == nullptr || object->era != filesState().era) return STATUS_INVALID_HANDLE;
    return object->mayWrite ? volumeFlush(*object->volume) : STATUS_ACCESS_DENIED;
}

} /* namespace */

void volumeHandlesEnd() {
    filesState().era++;
}

} /* namespace offline */

HANDLE CreateFileW(LPCWSTR path, DWORD access, DWORD, LPSECURITY_ATTRIBUTES, DWORD disposition, DWORD,
                   HANDLE) {
    HANDLE handle = nullptr;
    return offline::booleanResult(offline::openVolume(path, access, disposition, handle))
               ? handle
               : INVALID_HANDLE_VALUE;
}

BOOL FlushFileBuffers(HANDLE file) {
    return offline::booleanResult(offline::flush(file));
}

UINT GetDriveTypeW(LPCWSTR root) {
    std::u16string_view text;
    if (offline::systemNeeded() < 0 || offline::pathText(root, text) < 0) return DRIVE_NO_ROOT_DIR;
    if (offline::pathLiteral(text)) text.remove_prefix(4);
    const bool names = text.size() == 2 || (text.size() == 3 && (text[2] == u'\\' || text[2] == u'/'));
    return names && text[1] == u':' && offline::driveVolume(text[0]) != nullptr ? DRIVE_FIXED
                                                                                : DRIVE_NO_ROOT_DIR;
}
