/* The program's command line. */
#ifndef QUILLET_COMPANION_COMMAND_LINE_H
#define QUILLET_COMPANION_COMMAND_LINE_H

#include <string>
#include <vector>

namespace companion {

/* Does the command that the arguments (without the program's name) ask for and gives the exit status. Throws
 * Failure for what it can't make out, and whatever the command throws. */
int runCommandLine(std::vector<std::string> arguments);

} /* namespace companion */

#endif
