/* quillet-offline: what goes with quillet where Windows installations are at rest. */
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>

#include "companion/command_line.h"
#include "companion/ending.h"
#include "platform/offline/base/session.h"
#include "platform/offline/base/streams.h"
#include "platform/offline/base/unicode.h"

namespace companion {

void say(const std::string& line) {
    fprintf(stderr, "quillet-offline: %s\n", offline::printable(line).c_str());
}

} /* namespace companion */

int main(int argc, char** argv) {
    int status = companion::exitFailed;
    if (!offline::standardStreamsOpen()) {
        companion::say(std::string("/dev/null can't be opened (") + strerror(errno) +
                       ") for the standard streams that are closed; open them");
        return status;
    }
    signal(SIGXFSZ, SIG_IGN); /* a limit on files' sizes: the write fails, and that is told */
    offline::Session session;
    try {
        status = companion::runCommandLine(std::vector<std::string>(argv + std::min(argc, 1), argv + argc));
    } catch (const companion::Failure& failure) {
        companion::say(failure.text);
    } catch (const std::bad_alloc&) {
        /* In no string of its own: that would take memory. */
        fputs("quillet-offline: out of memory; close other programs and try again\n", stderr);
    } catch (const std::exception& failure) {
        companion::say(failure.what());
    }
    if (!offline::standardStreamsWritten()) {
        companion::say("not every line could be written; check where standard output and error lead to");
        status = companion::exitFailed;
    }
    return status;
}
