/* SPDX-License-Identifier: GPL-2.0-or-later */
/* One search of FindFirstFileW. Private to this room. */
#ifndef QUILLET_OFFLINE_FILES_SEARCH_H
#define QUILLET_OFFLINE_FILES_SEARCH_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/offline/volume/volume.h"

namespace offline {

struct Search {
    static constexpr size_t none = SIZE_MAX;

    Volume* volume = nullptr; /* null once the volumes have gone */
    std::u16string directory; /* as DrivePath::relative */
    FileRef directoryFile = 0;
    FileInfo directoryInfo = {};
    std::u16string pattern; /* empty: every name */
    DirectoryListing listing;
    size_t next = 0;         /* into listing.entries */
    size_t delivered = none; /* into listing.entries */
    int dotsLeft = 0;        /* of "." and ".." */
};

} /* namespace offline */

#endif
