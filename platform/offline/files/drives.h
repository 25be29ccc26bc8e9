/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The drive letters and what they stand for. The platform's file calls (platform/nt.h) are answered in this
 * room, by path over these letters. No function throws. */
#ifndef QUILLET_OFFLINE_FILES_DRIVES_H
#define QUILLET_OFFLINE_FILES_DRIVES_H

#include <string_view>

#include "platform/nt.h"
#include "platform/offline/volume/volume.h"

namespace offline {

inline bool isDriveLetter(char16_t unit) {
    return (unit >= u'A' && unit <= u'Z') || (unit >= u'a' && unit <= u'z');
}

/* Gives a volume its letter ('A' to 'Z'). The volume stays the caller's and must outlive drivesReset. */
void driveSet(char letter, Volume& volume);

/* The volume of a letter (either case), or null. */
Volume* driveVolume(char16_t letter);

/* Takes all letters away and drops what is remembered of the volumes. Open searches end, open volume handles
 * answer with ERROR_INVALID_HANDLE. */
void drivesReset();

/* A Windows path ("C:\x", "\\?\C:\x", "\??\C:\x") to its volume and file. After "\\?\" and "\??\" it is
 * taken as it stands; otherwise either slash will do and the path is normalised. Statuses as volumeFind;
 * STATUS_OBJECT_PATH_SYNTAX_BAD for a path that names no drive, STATUS_OBJECT_PATH_NOT_FOUND for a letter
 * without a volume, STATUS_OBJECT_NAME_INVALID for a component that no file can have and for a file's path
 * that ends in a separator, STATUS_NAME_TOO_LONG above 32,767 characters. */
NTSTATUS driveFind(std::u16string_view path, Volume*& volume, FileRef& file);

} /* namespace offline */

#endif
