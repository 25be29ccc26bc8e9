/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Paths over drive letters, taken apart. */
#ifndef QUILLET_OFFLINE_FILES_DRIVE_PATH_H
#define QUILLET_OFFLINE_FILES_DRIVE_PATH_H

#include <string>
#include <string_view>

#include "platform/nt.h"
#include "platform/offline/volume/volume.h"

namespace offline {

/* What a path leads to. relative looks into the caller's text or into normalised, so this stays where it was
 * made. */
struct DrivePath {
    Volume* volume = nullptr;
    std::u16string_view relative; /* from the root, no separator at either end; "" is the root itself */
    bool directoryOnly = false;   /* the path ended in a separator */
    std::u16string normalised;

    DrivePath() = default;
    DrivePath(const DrivePath&) = delete;
    DrivePath& operator=(const DrivePath&) = delete;
};

/* The terminated text of a call, at most the 32,767 characters that the platform takes.
 * STATUS_INVALID_PARAMETER for a null pointer, STATUS_NAME_TOO_LONG. */
NTSTATUS pathText(LPCWSTR path, std::u16string_view& text);

/* Whether the path begins with "\\?\" or "\??\" and so is taken as it stands. */
bool pathLiteral(std::u16string_view path);

/* Takes a path apart. After a literal prefix nothing is changed and the components are not looked at;
 * otherwise the platform's normalisation: either slash, "." and ".." resolved, trailing dots and spaces
 * dropped. Throws bad_alloc. Statuses as driveFind. */
NTSTATUS parseDrivePath(std::u16string_view path, DrivePath& parsed);

/* STATUS_OBJECT_NAME_INVALID when a component is empty, ".", "..", longer than 255 characters or contains a
 * NUL. */
NTSTATUS checkComponents(std::u16string_view relative);

} /* namespace offline */

#endif
