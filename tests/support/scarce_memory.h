/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Memory that runs out in what operator new gives, for one source of a test program. */
#ifndef QUILLET_TESTS_SUPPORT_SCARCE_MEMORY_H
#define QUILLET_TESTS_SUPPORT_SCARCE_MEMORY_H

#include <cstdlib>
#include <new>

/* Counts down with every allocation while it is not negative; the one at 0 fails. */
static long allocationsLeft = -1;

[[gnu::noinline]] void* operator new(size_t size) {
    if (allocationsLeft >= 0 && allocationsLeft-- == 0) throw std::bad_alloc();
    if (void* const block = malloc(size)) return block;
    throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* block) noexcept {
    free(block);
}
[[gnu::noinline]] void operator delete(void* block, size_t) noexcept {
    free(block);
}

#endif
