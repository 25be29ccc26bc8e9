/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "companion/practice/image_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "companion/ending.h"
#include "platform/offline/base/ending_signals.h"
#include "platform/offline/base/streams.h"

namespace companion {
namespace {

/* What a signal's handler removes: the path of the temporary file, "" for none. There is one at a time. */
char signalPath[4096];
const int endingSignals[] = {SIGHUP, SIGINT, SIGTERM};

void removeAndEnd(int number) {
    offline::endingSignalsWipeNow();
    if (signalPath[0] != 0) unlink(signalPath);
    signal(number, SIG_DFL);
    raise(number);
}

void removeOnSignal(const std::string& path) {
    if (path.size() >= sizeof signalPath) return;
    memcpy(signalPath, path.c_str(), path.size() + 1);
    for (const int number : endingSignals) {
        if (signal(number, removeAndEnd) == SIG_IGN) signal(number, SIG_IGN); /* as nohup asks for */
    }
}

void forgetSignals() {
    signalPath[0] = 0;
}

/* Refuses names that the new file must not take. */
void checkName(const std::string& name, bool mayReplace) {
    struct stat there;
    if (name.empty()) throw Failure{"the name of the image is empty; name the file to be made"};
    if (lstat(name.c_str(), &there) != 0) return;
    if (S_ISDIR(there.st_mode)) throw Failure{name + ": is a directory; name the file to be made"};
    if (!S_ISREG(there.st_mode)) {
        throw Failure{name + ": is there and no ordinary file; name another file to be made"};
    }
    if (!mayReplace)
        throw Failure{name + ": is there already; name another file, or replace it with --force"};
}

/* Gives the temporary file its name; without mayReplace never over another. */
bool rename(const std::string& from, const std::string& to, bool mayReplace) {
    if (!mayReplace) {
        if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return true;
        if (errno != EINVAL && errno != ENOSYS) return false; /* else the file system can't do it */
        if (access(to.c_str(), F_OK) == 0) {
            errno = EEXIST;
            return false;
        }
    }
    return ::rename(from.c_str(), to.c_str()) == 0;
}

} /* namespace */

ImageFile::ImageFile(std::string name, bool replace) : wanted(std::move(name)), mayReplace(replace) {
    checkName(wanted, mayReplace);
    temporary = wanted + ".XXXXXX";
    file = offline::aboveStandard(mkostemp(temporary.data(), O_CLOEXEC));
    if (file < 0) {
        throw Failure{wanted + ": can't be made: " + strerror(errno) +
                      "; check the directory, or name another"};
    }
    removeOnSignal(temporary);
    const mode_t mask = umask(0); /* there is no way to ask for it */
    umask(mask);
    fchmod(file, 0666 & ~mask);
}

ImageFile::~ImageFile() {
    if (file < 0) return;
    close(file);
    unlink(temporary.c_str());
    forgetSignals();
}

void ImageFile::setSize(uint64_t size) {
    if (ftruncate(file, static_cast<off_t>(size)) == 0) return;
    throw Failure{wanted + ": can't have " + std::to_string(size) + " bytes: " + strerror(errno) +
                  "; give a smaller --size, or choose another disk"};
}

void ImageFile::keep() {
    if (fsync(file) != 0 || !rename(temporary, wanted, mayReplace)) {
        throw Failure{wanted + ": can't be made: " + strerror(errno) +
                      "; check the disk, or name another file"};
    }
    forgetSignals();
    close(file);
    file = -1;
}

} /* namespace companion */
