/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The program's command line. */
#ifndef QUILLET_COMPANION_COMMAND_LINE_H
#define QUILLET_COMPANION_COMMAND_LINE_H

#include <string>
#include <vector>

namespace companion {

struct Results;

/* Does the command that the arguments (without the program's name) ask for, fills its results, whose JSON the
 * caller prints where it is asked for, and gives the exit status. Throws Failure for what it can't make out,
 * and whatever the command throws. */
int runCommandLine(std::vector<std::string> arguments, Results& results);

} /* namespace companion */

#endif
