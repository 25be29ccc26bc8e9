/* SPDX-License-Identifier: GPL-2.0-or-later */
/* An empty NTFS volume, made by the program mkntfs. */
#ifndef QUILLET_COMPANION_PRACTICE_MKNTFS_H
#define QUILLET_COMPANION_PRACTICE_MKNTFS_H

#include <cstdint>
#include <string>

namespace companion {

/* Formats a file that exists, over its whole size. startSector is where the volume begins on its disk, in
 * sectors of 512 bytes. image is the name for messages. Throws Failure. */
void makeNtfs(const std::string& file, uint64_t startSector, const std::string& image);

} /* namespace companion */

#endif
