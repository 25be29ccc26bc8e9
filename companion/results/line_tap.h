/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Listens to what is written to a standard stream of the process, line by line, while it lives. */
#ifndef QUILLET_COMPANION_LINE_TAP_H
#define QUILLET_COMPANION_LINE_TAP_H

#include <cstdio>
#include <functional>
#include <string>

namespace companion {

class LineTap {
public:
    /* Called with each line, its newline included; may change it, and says whether it goes on to the stream,
     * as what is written does: at once. May throw nothing but std::bad_alloc, which end() throws then. */
    using Hear = std::function<bool(std::string& line)>;

    /* stream: stdout or stderr, which it takes the place of. Throws std::bad_alloc. */
    LineTap(FILE*& stream, Hear hear);
    ~LineTap();
    LineTap(const LineTap&) = delete;
    LineTap& operator=(const LineTap&) = delete;

    /* Gives the stream back. A line for which memory ran out has gone on to the stream unheard. */
    void end();

private:
    static ssize_t take(void* tap, const char* bytes, size_t size);
    void giveBack();
    void pass(const char* bytes, size_t size) const;
    void hearLines(const char* bytes, size_t size);

    FILE*& standard;
    FILE* const below; /* what the stream is outside */
    FILE* above;       /* what it is meanwhile */
    Hear heard;
    std::string line = {}; /* what there is of the next one */
    bool lost = false;
};

} /* namespace companion */

#endif
