/* quillet-offline: what goes with quillet where Windows installations are at rest. */
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>

#include "companion/command.h"
#include "companion/failure.h"
#include "platform/offline/base/streams.h"
#include "platform/offline/base/text.h"

namespace companion {

void say(const std::string& line) {
    fprintf(stderr, "quillet-offline: %s\n", offline::printable(line).c_str());
}

namespace {

const Command* const commands[] = {&sampleCommand, &infoCommand, &auditCommand, &runCommand};

const char programHelp[] =
    "Examples:\n"
    "  quillet-offline sample practice.img            a practice installation, to try things on\n"
    "  quillet-offline info practice.img              what is on it\n"
    "  quillet-offline run practice.img -- -s         quillet on it; -s only tells what would change\n"
    "\n"
    "\"quillet-offline COMMAND --help\" tells more about a command.";

struct Prepared {
    const Command* command;
    CLI::App* app;
    Runner run;
};

struct CommandLine {
    CLI::App app{"Prepares, shows and changes Windows installations on disk images and block devices.",
                 "quillet-offline"};
    std::vector<Prepared> prepared;
};

void declare(CommandLine& line) {
    line.app.set_version_flag("--version", std::string("quillet-offline ") + QUILLET_VERSION,
                              "Print the version and exit");
    line.app.set_help_flag("-h,--help", "Print this help and exit");
    line.app.require_subcommand(1);
    line.app.footer(programHelp);
    for (const Command* command : commands) {
        CLI::App* app = line.app.add_subcommand(command->name, command->summary);
        app->footer(command->help);
        line.prepared.push_back({command, app, command->prepare(*app)});
    }
}

int runChosen(const CommandLine& line, const std::vector<std::string>& rest, bool restGiven) {
    for (const Prepared& prepared : line.prepared) {
        if (!prepared.app->parsed()) continue;
        if (restGiven && !prepared.command->takesRest) {
            throw Failure{std::string(prepared.command->name) + " takes no arguments behind \"--\"; see \"" +
                          "quillet-offline " + prepared.command->name + " --help\""};
        }
        return prepared.run(rest);
    }
    return exitFailed;
}

/* The library's text in the form of this program's errors: one line. */
std::string usageError(const CLI::ParseError& error, const std::string& command) {
    std::string text = error.what();
    while (!text.empty() && (text.back() == '\n' || text.back() == '.')) text.pop_back();
    std::replace(text.begin(), text.end(), '\n', ' ');
    return text + "; see \"quillet-offline " + command + "--help\"";
}

/* The command's name and a space, for the advice above; empty when the first argument is an option. */
std::string checkCommand(const std::vector<std::string>& arguments) {
    if (arguments.empty()) throw Failure{"no command is given; see \"quillet-offline --help\""};
    const std::string& first = arguments.front();
    if (first.rfind('-', 0) == 0) return {};
    for (const Command* command : commands) {
        if (first == command->name) return first + ' ';
    }
    throw Failure{"\"" + first + "\" is no command; see \"quillet-offline --help\""};
}

int runCommandLine(std::vector<std::string> arguments) {
    std::vector<std::string> rest;
    const auto split = std::find(arguments.begin(), arguments.end(), "--");
    const bool restGiven = split != arguments.end();
    if (restGiven) rest.assign(split + 1, arguments.end());
    arguments.erase(split, arguments.end());
    const std::string command = checkCommand(arguments);
    std::reverse(arguments.begin(), arguments.end()); /* as the library wants them */

    CommandLine line;
    declare(line);
    try {
        line.app.parse(arguments);
    } catch (const CLI::Success& asked) { /* help or the version */
        return line.app.exit(asked);
    } catch (const CLI::ParseError& error) {
        throw Failure{usageError(error, command)};
    }
    return runChosen(line, rest, restGiven);
}

} /* namespace */
} /* namespace companion */

int main(int argc, char** argv) {
    int status = companion::exitFailed;
    if (!offline::standardStreamsOpen()) {
        companion::say(std::string("/dev/null can't be opened (") + strerror(errno) +
                       ") for the standard streams that are closed; open them");
        return status;
    }
    signal(SIGXFSZ, SIG_IGN); /* a limit on files' sizes: the write fails, and that is told */
    try {
        status = companion::runCommandLine(std::vector<std::string>(argv + std::min(argc, 1), argv + argc));
    } catch (const companion::Failure& failure) {
        companion::say(failure.text);
    } catch (const std::bad_alloc&) {
        companion::say("out of memory; close other programs and try again");
    } catch (const std::exception& failure) {
        companion::say(failure.what());
    }
    if (!offline::standardStreamsWritten()) {
        companion::say("not every line could be written; check where standard output and error lead to");
        status = companion::exitFailed;
    }
    return status;
}
