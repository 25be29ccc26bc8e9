#include "platform/offline/files/entered.h"

#include "platform/offline/files/files_state.h"

namespace offline {
namespace {

/* A reference without its sequence number, which need not be there. */
constexpr uint64_t recordOf(FileRef file) {
    return file & 0xFFFFFFFFFFFF;
}

} /* namespace */

bool enterOnce(const Volume& volume, FileRef directory, const EntryPlace& by) {
    const EntryPlace place = {recordOf(by.directory), by.index};
    const auto [found, first] = filesState().entered.try_emplace({&volume, recordOf(directory)}, place);
    return first || found->second == place;
}

void enteredForget() {
    filesState().entered = {};
}

} /* namespace offline */
