/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/files/file_access.h"

#include "platform/offline/security/security.h"

namespace offline {

NTSTATUS fileAccess(Volume& volume, FileRef file, ACCESS_MASK desired) {
    if (accessMode() == AccessMode::unrefused || privilegeEnabled(backupPrivilege)) return STATUS_SUCCESS;
    Bytes descriptor;
    const NTSTATUS status = volumeDescriptor(volume, file, descriptor);
    if (status < 0) return status;
    ACCESS_MASK granted = 0;
    return accessCheck(descriptor, desired, fileMapping, granted);
}

} /* namespace offline */
