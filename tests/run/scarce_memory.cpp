/* SPDX-License-Identifier: GPL-2.0-or-later */
/* What scarce-quillet has that quillet has not: its SCARCE_AT-th operator new gives no memory, and with
 * SCARCE_ON=1 none does from there on. SCARCE_COUNT: a file that gets how many calls there were. */
#include <cstdio>
#include <cstdlib>
#include <new>

namespace {

long numberFrom(const char* variable) {
    const char* const text = getenv(variable);
    return text == nullptr ? 0 : atol(text);
}

struct Calls {
    const long at = numberFrom("SCARCE_AT"), on = numberFrom("SCARCE_ON");
    long count = 0;

    ~Calls() {
        const char* const name = getenv("SCARCE_COUNT");
        FILE* const file = name == nullptr ? nullptr : fopen(name, "w");
        if (file == nullptr) return;
        fprintf(file, "%ld", count);
        fclose(file);
    }
};

void* memoryOf(size_t size) noexcept {
    static Calls calls;
    const long call = ++calls.count;
    return call == calls.at || (calls.on != 0 && call > calls.at) ? nullptr : malloc(size);
}

} /* namespace */

void* operator new(size_t size) {
    void* const memory = memoryOf(size);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return memoryOf(size);
}
void operator delete(void* memory) noexcept {
    free(memory);
}
void operator delete(void* memory, size_t) noexcept {
    free(memory);
}
