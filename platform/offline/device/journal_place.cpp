/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/device/journal_place.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>

#include "platform/offline/base/guarded.h"
#include "platform/offline/device/device_error.h"
#include "platform/offline/device/disk_name.h"

namespace offline {
namespace {

std::string realPath(const std::string& path) {
    const std::unique_ptr<char, void (*)(void*)> resolved(realpath(path.c_str(), nullptr), free);
    return resolved == nullptr ? std::string() : resolved.get();
}

std::string escaped(const std::string& path) {
    std::string name;
    for (const char character : path) {
        if (character == '/')
            name += "%2F";
        else if (character == '%')
            name += "%25";
        else
            name += character;
    }
    return name;
}

/* An absolute path from the environment; "" when the variable is not set. */
std::string pathFrom(const char* variable) {
    const char* const value = getenv(variable);
    return value != nullptr && value[0] == '/' ? value : "";
}

NTSTATUS stateDirectory(JournalPlace& place, Problem& problem) {
    if (const char* const chosen = getenv("QUILLET_JOURNAL"); chosen != nullptr && chosen[0] != '\0') {
        place.directory = realPath(chosen);
        if (!place.directory.empty()) return STATUS_SUCCESS;
        return refuse(problem, STATUS_OBJECT_NAME_NOT_FOUND,
                      std::string(chosen) + ": QUILLET_JOURNAL has to name a directory (" +
                          deviceErrorText(errno) + ")");
    }
    place.ofOurOwn = true;
    if (geteuid() == 0) {
        place.directory = "/var/lib/quillet";
        return STATUS_SUCCESS;
    }
    std::string state = pathFrom("XDG_STATE_HOME");
    if (state.empty() && !pathFrom("HOME").empty()) state = pathFrom("HOME") + "/.local/state";
    if (state.empty()) {
        return refuse(problem, STATUS_OBJECT_NAME_NOT_FOUND,
                      "there is no directory for the journal: set QUILLET_JOURNAL to one");
    }
    place.directory = state + "/quillet";
    return STATUS_SUCCESS;
}

constexpr const char* undoEnding = ".quillet-undo";

/* The number of an undo file's name; 0 for another name. */
uint32_t undoNumber(const std::string& name, const std::string& first) {
    if (name == first) return 1;
    if (name.size() < first.size() + 2 || !name.starts_with(first + ".")) return 0;
    const char* const begin = name.data() + first.size() + 1;
    const char* const end = name.data() + name.size();
    uint32_t number = 0;
    const auto [stop, error] = std::from_chars(begin, end, number);
    return error == std::errc() && stop == end && *begin != '0' && number > 1 ? number : 0;
}

int highestUndo(JournalFiles& files, const JournalPlace& place, uint32_t& highest) {
    std::vector<std::string> names;
    const int error = files.names(place.directory, names);
    if (error != 0) return error;
    for (const std::string& name : names)
        highest = std::max(highest, undoNumber(name, place.name + undoEnding));
    return 0;
}

std::string pathOf(const JournalPlace& place) {
    return place.directory + (place.directory.ends_with('/') ? "" : "/") + place.name;
}

std::string undoPath(const JournalPlace& place, uint32_t number) {
    std::string path = pathOf(place) + undoEnding;
    return number == 1 ? path : path + "." + std::to_string(number);
}

} /* namespace */

NTSTATUS journalPlaceOf(const std::string& disk, JournalPlace& place, Problem& problem) {
    return guardedRefusing(problem, [&]() -> NTSTATUS {
        place = {};
        const bool isFile = kindOfName(disk) == NameKind::file;
        const std::string real = isFile ? realPath(disk) : "";
        struct stat info = {};
        if (isFile && (real.empty() || stat(real.c_str(), &info) != 0) && errno != ENOENT &&
            errno != ENOTDIR) {
            return refuse(problem, deviceStatus(errno),
                          disk + ": where it lies can't be found out (" + deviceErrorText(errno) +
                              "); check the file or device");
        }
        if (S_ISREG(info.st_mode)) {
            place.directory = directoryOf(real);
            place.name = real.substr(real.rfind('/') + 1);
            return STATUS_SUCCESS;
        }
        place.name = escaped(real.empty() ? disk : real);
        return stateDirectory(place, problem);
    });
}

NTSTATUS makeJournalDirectory(const JournalPlace& place, Problem& problem) {
    return guardedRefusing(problem, [&]() -> NTSTATUS {
        if (!place.ofOurOwn) return STATUS_SUCCESS;
        for (size_t end = 0; end != std::string::npos;) {
            end = place.directory.find('/', end + 1);
            const std::string part = place.directory.substr(0, end);
            int error = mkdir(part.c_str(), S_IRWXU) == 0 ? 0 : errno;
            if (error == EEXIST) continue;
            if (error == 0) error = systemJournalFiles().flushDirectory(directoryOf(part));
            if (error == 0) continue;
            return refuse(problem, deviceStatus(error),
                          part + ": the directory for the journal can't be made (" + deviceErrorText(error) +
                              "); set QUILLET_JOURNAL to one");
        }
        return STATUS_SUCCESS;
    });
}

std::string journalPath(const JournalPlace& place) {
    return pathOf(place) + ".quillet-journal";
}

std::string undoCopyPath(const std::string& undoPath) {
    return undoPath + ".quillet-part";
}

int latestUndoPath(JournalFiles& files, const JournalPlace& place, std::string& latest) {
    uint32_t highest = 0;
    const int error = highestUndo(files, place, highest);
    latest = highest == 0 ? "" : undoPath(place, highest);
    return error;
}

int nextUndoPath(JournalFiles& files, const JournalPlace& place, std::string& next) {
    uint32_t highest = 0;
    const int error = highestUndo(files, place, highest);
    next = undoPath(place, highest + 1);
    return error;
}

} /* namespace offline */
