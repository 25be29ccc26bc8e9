/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "companion/results/report_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "companion/ending.h"

namespace companion {
namespace {

/* A file of the directory without a name; -1 with errno. */
int openNameless(const std::filesystem::path& path) {
    const std::filesystem::path directory = path.has_parent_path() ? path.parent_path() : ".";
    return open(directory.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0666);
}

} /* namespace */

ReportFile::ReportFile(std::string path) : name(std::move(path)) {
    if (name.find(".quillet-", name.rfind('/') + 1) != std::string::npos) {
        throw Failure{name +
                      ": names like this are those of journals and undo files; name another for the report"};
    }
    std::error_code unknown;
    const bool taken = std::filesystem::exists(std::filesystem::symlink_status(name, unknown));
    int made = taken ? -1 : openNameless(name);
    if (taken) errno = EEXIST;
    if (made < 0 && (errno == EOPNOTSUPP || errno == EISDIR || errno == EINVAL)) {
        made = open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        named = made >= 0;
    }
    if (made >= 0) file = fdopen(made, "w");
    if (file != nullptr) return;
    if (errno == EEXIST) throw Failure{name + ": there is such a file already; name another for the report"};
    throw Failure{name + ": the report can't be made there (" + strerror(errno) +
                  "); name another place for it"};
}

ReportFile::~ReportFile() {
    if (file == nullptr) return;
    fclose(file);
    if (named) unlink(name.c_str());
}

void ReportFile::finish() {
    errno = ENOSPC; /* where the stream only remembers that something failed */
    const std::string self = "/proc/self/fd/" + std::to_string(fileno(file));
    const bool whole =
        ferror(file) == 0 && fflush(file) == 0 && fsync(fileno(file)) == 0 &&
        (named || linkat(AT_FDCWD, self.c_str(), AT_FDCWD, name.c_str(), AT_SYMLINK_FOLLOW) == 0);
    if (!whole) {
        throw Failure{name + ": the report could not be written (" + strerror(errno) +
                      "); what it was to tell of is done all the same"};
    }
    fclose(file);
    file = nullptr;
}

} /* namespace companion */
