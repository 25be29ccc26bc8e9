/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Another program that works for us, and what it says on standard error. Private to this room. */
#ifndef QUILLET_OFFLINE_DEVICE_CHILD_PROGRAM_H
#define QUILLET_OFFLINE_DEVICE_CHILD_PROGRAM_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace offline {

/* It has no terminal, so that no key ends it, reads and prints nothing, and is ended when we are, however
 * that happens. */
struct ChildProgram {
    ChildProgram() = default;
    ~ChildProgram(); /* waits for its end, and ends it after some seconds */
    ChildProgram(const ChildProgram&) = delete;
    ChildProgram& operator=(const ChildProgram&) = delete;

    /* Starts the program of this name on PATH; ENOENT when there is none. It gets the socket, unless that is
     * -1, as systemd hands one over (descriptor 3, LISTEN_FDS). An errno or 0. May throw std::bad_alloc. */
    int start(const std::string& name, const std::vector<std::string>& arguments, int socket = -1);

    /* Whether it has ended by itself within so many milliseconds. */
    bool endsWithin(int milliseconds);

    /* Of one that has ended: its exit status, 128 and the signal, or 255 where that can't be known. */
    int status() const { return ended; }

    /* What it said, on one line and without its own name in front of each; "" when it said nothing. May throw
     * std::bad_alloc. */
    std::string words() const;

private:
    std::string called;
    pid_t process = -1;
    int ended = -1;
    int errors = -1; /* a file in memory, of which it can fill only so much */
};

/* Whether there is a program of this name on PATH. May throw std::bad_alloc. */
bool programThere(const std::string& name);

/* Runs a program to its end: its exit status, -1 when it can't be started (then words has the reason). May
 * throw std::bad_alloc. */
int runProgram(const std::string& name, const std::vector<std::string>& arguments, std::string& words);

} /* namespace offline */

#endif
