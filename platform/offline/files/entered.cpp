#include "platform/offline/files/entered.h"

#include "platform/offline/files/files_state.h"

namespace offline {
namespace {

/* A reference without its sequence number, which need not be there. */
constexpr uint64_t recordOf(FileRef file) {
    return file & 0xFFFFFFFFFFFF;
}

} /* namespace */

bool enterOnce(const Volume& volume, FileRef directory, const EntryRef& by) {
    const EntryRef entry = {recordOf(by.directory), by.index};
    const auto [found, first] = filesState().entered.try_emplace({&volume, recordOf(directory)}, entry);
    return first || found->second == entry;
}

void enteredForget() {
    filesState().entered = {};
}

} /* namespace offline */
