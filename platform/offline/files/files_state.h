/* SPDX-License-Identifier: GPL-2.0-or-later */
/* What the file calls know between calls, as a part of the session. Private to this room. */
#ifndef QUILLET_OFFLINE_FILES_FILES_STATE_H
#define QUILLET_OFFLINE_FILES_FILES_STATE_H

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/offline/base/session.h"
#include "platform/offline/files/entered.h"
#include "platform/offline/files/search.h"
#include "platform/offline/volume/volume.h"

namespace offline {

/* The file that was looked up last. */
struct LastFound {
    Volume* volume = nullptr; /* null: none */
    std::u16string relative;  /* as DrivePath::relative */
    FileRef file = 0;
};

struct FilesState {
    std::array<Volume*, 26> drives = {}; /* by letter; null: no such drive */
    LastFound lastFound;
    uint64_t era = 0; /* of the drive letters; a volume handle of an earlier one leads nowhere */
    std::vector<Search*> openSearches; /* the latest last; their handles own them */
    std::vector<std::unique_ptr<Search>> idleSearches;
    EnteredDirectories entered;
    std::vector<uint8_t> descriptor; /* made here, so that a walk needs no memory for each file */
};

inline FilesState& filesState() {
    return roomState<FilesState>(StatefulRoom::files);
}

} /* namespace offline */

#endif
