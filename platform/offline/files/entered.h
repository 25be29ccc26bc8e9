/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Which directories a walk has entered. On a sound volume a directory has one parent and one name there; on a
 * damaged one further entries can lead to it, even from below itself, and a walk that followed them all would
 * not end, or take time that doubles with each level. Private to this room. */
#ifndef QUILLET_OFFLINE_FILES_ENTERED_H
#define QUILLET_OFFLINE_FILES_ENTERED_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/offline/volume/volume.h"

namespace offline {

/* An entry of a directory that leads to another. */
struct EntryRef {
    FileRef directory = 0;
    size_t index = SIZE_MAX; /* into its listing; SIZE_MAX: where a walk begins */
    bool operator==(const EntryRef&) const = default;
};

/* By which entry each directory was entered: a hash table without lists, as every directory of a walk comes
 * here once. */
struct EnteredDirectories {
    struct Slot {
        const Volume* volume = nullptr; /* null: free */
        uint64_t record = 0;
        EntryRef by = {};
    };
    std::vector<Slot> slots; /* their number is a power of two; half of them are free at least */
    size_t used = 0;
};

/* Whether the directory is entered for the first time since enteredForget, or by the same entry again. May
 * throw std::bad_alloc; takes some 100 bytes for each directory. */
bool enterOnce(const Volume& volume, FileRef directory, const EntryRef& by);

void enteredForget();

} /* namespace offline */

#endif
