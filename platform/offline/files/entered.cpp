/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/files/entered.h"

#include <algorithm>
#include <utility>

#include "platform/offline/files/files_state.h"

namespace offline {
namespace {

/* A reference without its sequence number, which need not be there. */
constexpr uint64_t recordOf(FileRef file) {
    return file & 0xFFFFFFFFFFFF;
}

using Slot = EnteredDirectories::Slot;

/* The directory's slot, or the free one where it belongs. */
Slot& slotOf(std::vector<Slot>& slots, const Volume& volume, uint64_t record) {
    constexpr uint64_t spread = 0x9E3779B97F4A7C15; /* the golden ratio of 64 bits */
    size_t index = (record * spread) >> 32;
    while (true) {
        Slot& slot = slots[index & (slots.size() - 1)];
        if (slot.volume == nullptr || (slot.record == record && slot.volume == &volume)) return slot;
        ++index;
    }
}

void makeRoom(EnteredDirectories& entered) {
    constexpr size_t fewest = 64;
    if (2 * (entered.used + 1) <= entered.slots.size()) return;
    std::vector<Slot> slots(std::max(fewest, 2 * entered.slots.size()));
    for (const Slot& slot : entered.slots) {
        if (slot.volume != nullptr) slotOf(slots, *slot.volume, slot.record) = slot;
    }
    entered.slots = std::move(slots);
}

} /* namespace */

bool enterOnce(const Volume& volume, FileRef directory, const EntryRef& by) {
    EnteredDirectories& entered = filesState().entered;
    const EntryRef entry = {recordOf(by.directory), by.index};
    makeRoom(entered);
    Slot& slot = slotOf(entered.slots, volume, recordOf(directory));
    if (slot.volume != nullptr) return slot.by == entry;
    slot = {&volume, recordOf(directory), entry};
    ++entered.used;
    return true;
}

void enteredForget() {
    filesState().entered = {};
}

} /* namespace offline */
