#include "platform/offline/files/entered.h"

#include <functional>
#include <unordered_map>

namespace offline {
namespace {

struct Directory {
    const Volume* volume;
    uint64_t record;
    bool operator==(const Directory&) const = default;
};

struct DirectoryHash {
    size_t operator()(const Directory& directory) const {
        return std::hash<uint64_t>()(directory.record) ^ std::hash<const Volume*>()(directory.volume);
    }
};

std::unordered_map<Directory, EntryPlace, DirectoryHash> entered;

/* A reference without its sequence number, which need not be there. */
constexpr uint64_t recordOf(FileRef file) {
    return file & 0xFFFFFFFFFFFF;
}

} /* namespace */

bool enterOnce(const Volume& volume, FileRef directory, const EntryPlace& by) {
    const EntryPlace place = {recordOf(by.directory), by.index};
    const auto [found, first] = entered.try_emplace({&volume, recordOf(directory)}, place);
    return first || found->second == place;
}

void enteredForget() {
    entered = {};
}

} /* namespace offline */
