/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The end of a run of the tool: the commit, the lines about it, the exit status. */
#ifndef QUILLET_OFFLINE_MAIN_RUN_END_H
#define QUILLET_OFFLINE_MAIN_RUN_END_H

#include <string>
#include <vector>

namespace offline {

/* Writes the line to standard error, with the tool's name before it. */
void sayAsTool(const std::string& line);

struct RunEnding {
    int status = 0;                         /* the tool's, or where that is 0 what went wrong since */
    std::vector<std::string> problems = {}; /* lines that were said of what went wrong */
};

/* Closes the installation when the tool has returned the status, and says why it could not be opened, what of
 * it could not be read, why it could not be closed well (the latter two make a failure of the run), and how a
 * run that is committed is taken back. withheld: a line that says why nothing is committed, whatever the
 * status; empty: the rule decides. A status that does not fit a process's is told in full. May throw
 * std::bad_alloc. */
RunEnding endSystem(int status, const std::string& withheld = {});

/* The status, or ERROR_WRITE_FAULT in place of 0 when lines were lost; says so when all else is done: no run
 * stops half-way for them. */
int endStreams(int status);

} /* namespace offline */

#endif
