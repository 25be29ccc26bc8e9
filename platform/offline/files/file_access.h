/* SPDX-License-Identifier: GPL-2.0-or-later */
/* What a file's descriptor lets the token do. */
#ifndef QUILLET_OFFLINE_FILES_FILE_ACCESS_H
#define QUILLET_OFFLINE_FILES_FILE_ACCESS_H

#include "platform/nt.h"
#include "platform/offline/volume/volume.h"

namespace offline {

/* Rights of files that no caller names. */
constexpr ACCESS_MASK fileListDirectory = 0x0001;
constexpr ACCESS_MASK fileReadAttributes = 0x0080;

/* For rights to read, of an open with backup intent: who has enabled the backup privilege has them whatever
 * the descriptor says. Where nothing can be refused the descriptor isn't even read. */
NTSTATUS fileAccess(Volume& volume, FileRef file, ACCESS_MASK desired);

} /* namespace offline */

#endif
