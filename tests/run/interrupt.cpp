/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Preloaded into a program: kills it at the INTERRUPT_AT-th call that writes, flushes, renames or removes,
 * just before it. INTERRUPT_COUNT: a file that gets a byte for each call. */
#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>

namespace {

/* Either variable may be missing. */
void count() {
    static const char* const wanted = getenv("INTERRUPT_AT");
    static const long at = wanted == nullptr ? 0 : atol(wanted);
    static long calls = 0;
    if (const char* const name = getenv("INTERRUPT_COUNT")) {
        FILE* const file = fopen(name, "a");
        fputc('.', file);
        fclose(file);
    }
    if (++calls == at) kill(getpid(), SIGKILL);
}

template <class Call, class... Arguments>
auto interrupted(const char* name, Call*, Arguments... arguments) {
    static Call* const real = reinterpret_cast<Call*>(dlsym(RTLD_NEXT, name));
    count();
    return real(arguments...);
}

} /* namespace */

extern "C" {
ssize_t pwrite(int file, const void* bytes, size_t count, off_t offset) {
    return interrupted("pwrite", pwrite, file, bytes, count, offset);
}
int fsync(int file) {
    return interrupted("fsync", fsync, file);
}
int fdatasync(int file) {
    return interrupted("fdatasync", fdatasync, file);
}
int renameat2(int from, const char* old, int to, const char* name, unsigned flags) {
    return interrupted("renameat2", renameat2, from, old, to, name, flags);
}
int unlink(const char* name) noexcept {
    return interrupted("unlink", unlink, name);
}
int fallocate(int file, int mode, off_t offset, off_t count) {
    return interrupted("fallocate", fallocate, file, mode, offset, count);
}
}
