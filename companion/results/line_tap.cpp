/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "companion/results/line_tap.h"

#include <new>

#include "platform/offline/base/guarded.h"

namespace companion {

LineTap::LineTap(FILE*& stream, Hear hear) : standard(stream), below(stream), heard(std::move(hear)) {
    cookie_io_functions_t functions = {};
    functions.write = take;
    above = fopencookie(this, "w", functions);
    if (above == nullptr) throw std::bad_alloc();
    setvbuf(above, nullptr, _IONBF, 0);
    fflush(below);
    standard = above;
}

LineTap::~LineTap() {
    giveBack();
}

void LineTap::end() {
    giveBack();
    if (lost) throw std::bad_alloc();
}

void LineTap::giveBack() {
    if (above == nullptr) return;
    fclose(above);
    above = nullptr;
    standard = below;
    pass(line.data(), line.size());
}

void LineTap::pass(const char* bytes, size_t size) const {
    fwrite(bytes, 1, size, below);
    fflush(below);
}

void LineTap::hearLines(const char* bytes, size_t size) {
    for (size_t i = 0; i < size; i++) {
        line.push_back(bytes[i]);
        if (bytes[i] != '\n') continue;
        std::string whole;
        whole.swap(line);
        if (heard(whole)) pass(whole.data(), whole.size());
    }
}

/* Called by the C library, within code that knows no exceptions. Whether it could be written is remembered by
 * the stream below. */
ssize_t LineTap::take(void* tap, const char* bytes, size_t size) {
    LineTap& self = *static_cast<LineTap*>(tap);
    const NTSTATUS status = offline::guarded([&] {
        self.hearLines(bytes, size);
        return STATUS_SUCCESS;
    });
    if (status < 0) {
        self.lost = true;
        self.pass(bytes, size);
    }
    return static_cast<ssize_t>(size);
}

} /* namespace companion */
