/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The files and directories of a practice installation. */
#ifndef QUILLET_COMPANION_PRACTICE_SAMPLE_FILES_H
#define QUILLET_COMPANION_PRACTICE_SAMPLE_FILES_H

#include <cstddef>

#include "companion/machine.h"
#include "companion/practice/sample_hive.h"
#include "platform/offline/volume/volume.h"

namespace companion {

struct FilesWanted {
    size_t files;       /* ordinary ones, beside those that every installation has */
    size_t descriptors; /* different ones among them */
};

/* Fills a fresh volume, hives included, and gives the number of entries. Throws Failure with image as the
 * name. */
size_t fillVolume(offline::Volume& volume, const Machine& machine, const DiskIdentity& disk,
                  const FilesWanted& wanted, const std::string& image);

} /* namespace companion */

#endif
