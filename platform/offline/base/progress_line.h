/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Shows the session's progress on standard error: on a terminal as one line that is drawn again and again,
 * else as plain lines now and then. */
#ifndef QUILLET_OFFLINE_BASE_PROGRESS_LINE_H
#define QUILLET_OFFLINE_BASE_PROGRESS_LINE_H

#include <cstdio>
#include <string_view>

#include "platform/offline/base/progress.h"

namespace offline {

/* onTerminal: where standard error is one that can be drawn on. always: elsewhere, too, in plain lines. */
enum class ProgressWish { never, onTerminal, always };

/* What "never", "auto" and "always" mean; false for another word. */
bool progressWishOf(std::string_view word, ProgressWish& wish);

/* Shows it as long as it lives, in the session that is the current one then. Whatever is written to standard
 * output or standard error through the C library meanwhile finds the line wiped, and an ending signal does,
 * too; at its end nothing is left of it. There is one at a time; does not throw. */
class ProgressLine final : ProgressDisplay {
public:
    /* results: standard output is going to be read by a program, so that nothing may come between where
     * standard error leads to the same place. */
    ProgressLine(ProgressWish wish, bool results);
    ~ProgressLine();
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

private:
    /* Stands for a standard stream, and wipes the line before it passes on what is written. */
    struct Stream {
        ProgressLine* line = nullptr;
        FILE** standard = nullptr;
        FILE* below = nullptr;
        FILE* above = nullptr;
        bool within = false; /* a line that is not ended yet */

        bool take(ProgressLine& of, FILE*& stream);
        void giveBack();
    };

    static ssize_t pass(void* stream, const char* bytes, size_t size);

    void begin() override;
    void look(bool atOnce) override;
    void end() override;

    void draw(int64_t now);
    void wipe();
    void say(int64_t now, bool last);

    enum class Form { nothing, drawn, plain };
    Form form = Form::nothing;
    bool utf8 = false;
    bool there = false; /* the line is on the terminal */
    int64_t shown = 0;  /* when the last line was */
    Stream output = {}, errors = {};
};

} /* namespace offline */

#endif
