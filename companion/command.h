/* What a command of the program consists of. Each lies in a file of its own and is listed in main.cpp. */
#ifndef QUILLET_COMPANION_COMMAND_H
#define QUILLET_COMPANION_COMMAND_H

#include <CLI/CLI.hpp>
#include <functional>
#include <string>
#include <vector>

namespace companion {

/* Does the command and gives the exit status; rest is what stood behind "--". May throw Failure. */
using Runner = std::function<int(const std::vector<std::string>& rest)>;

struct Command {
    const char* name;
    const char* summary;
    const char* help;                 /* below the options in the command's help, with an example */
    Runner (*prepare)(CLI::App& app); /* declares the options and gives what runs with them */
    bool takesRest;                   /* whether arguments behind "--" are passed on */
};

extern const Command sampleCommand;
extern const Command infoCommand;
extern const Command auditCommand;
extern const Command runCommand;

} /* namespace companion */

#endif
