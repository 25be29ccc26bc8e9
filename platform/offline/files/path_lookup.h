/* SPDX-License-Identifier: GPL-2.0-or-later */
/* From paths to files. A walk names every file by its whole path; what was found last and what the open
 * searches have delivered answers nearly all of that without going down from the root. Nothing that the calls
 * do takes a name away from a file, so what is remembered holds until the volumes go. */
#ifndef QUILLET_OFFLINE_FILES_PATH_LOOKUP_H
#define QUILLET_OFFLINE_FILES_PATH_LOOKUP_H

#include <string_view>

#include "platform/offline/files/drive_path.h"

namespace offline {

/* As driveFind, with the path taken apart. All three throw bad_alloc. */
NTSTATUS lookUp(std::u16string_view path, DrivePath& parsed, FileRef& file);

/* The same for the path of a call, with the installation opened. */
NTSTATUS lookUpNamed(LPCWSTR path, DrivePath& parsed, FileRef& file);

/* The file at a path from a volume's root, as DrivePath::relative has it. Statuses as volumeFind and
 * checkComponents. */
NTSTATUS lookUpRelative(Volume& volume, std::u16string_view relative, FileRef& file);

/* Drops what was found last. */
void lookUpForget();

/* Exact comparison of UTF-16 texts. */
bool sameText(std::u16string_view left, std::u16string_view right);

} /* namespace offline */

#endif
