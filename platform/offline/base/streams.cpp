/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/base/streams.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace offline {
namespace {

/* Whether nobody is left at the other end of a pipe or socket. */
bool readerGone(int file) {
    struct stat info = {};
    if (fstat(file, &info) != 0 || (!S_ISFIFO(info.st_mode) && !S_ISSOCK(info.st_mode))) return false;
    pollfd end = {file, POLLOUT, 0};
    return poll(&end, 1, 0) == 1 && (end.revents & (POLLERR | POLLHUP)) != 0;
}

bool written(FILE* stream) {
    const bool flushed = fflush(stream) == 0;
    return (flushed && ferror(stream) == 0) || readerGone(fileno(stream));
}

} /* namespace */

bool standardStreamsOpen() {
    for (int number = STDIN_FILENO; number <= STDERR_FILENO; number++) {
        if (fcntl(number, F_GETFD) != -1) continue;
        const int opened = open("/dev/null", O_RDWR); /* gets the lowest number that is free: this one */
        if (opened == number) continue;
        if (opened >= 0) {
            close(opened);
            errno = EBUSY;
        }
        return false;
    }
    return true;
}

int aboveStandard(int file) {
    if (file < 0 || file > STDERR_FILENO) return file;
    const int moved = fcntl(file, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int error = errno;
    close(file);
    errno = error;
    return moved;
}

bool standardStreamsWritten() {
    const bool output = written(stdout);
    return written(stderr) && output;
}

} /* namespace offline */
