/* SPDX-License-Identifier: GPL-2.0-or-later */
/* How a command ends: its exit status, and the line that says why it can't be done. */
#ifndef QUILLET_COMPANION_ENDING_H
#define QUILLET_COMPANION_ENDING_H

#include <string>
#include <vector>

namespace companion {

/* Exit statuses of the program. */
constexpr int exitDone = 0;
constexpr int exitFailed = 2; /* usage errors too */

/* Thrown to end the command. One line in UTF-8: "FILE: what is wrong; what to do", without a final newline.
 */
struct Failure {
    std::string text;
    int status = exitFailed; /* that the process ends with */
};

/* Writes the line to standard error, with the program's name before it. */
void say(const std::string& line);

/* The same for each. */
void sayAll(const std::vector<std::string>& lines);

} /* namespace companion */

#endif
