/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The start of the offline program: UTF-8 arguments to wmain, and the end of the run. */
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "platform/nt.h"
#include "platform/offline/base/ending_signals.h"
#include "platform/offline/base/guarded.h"
#include "platform/offline/base/session.h"
#include "platform/offline/base/streams.h"
#include "platform/offline/main/call_tool.h"
#include "platform/offline/main/run_end.h"
#include "platform/offline/system/system.h"

namespace {

int run(int argc, char** argv) {
    signal(SIGPIPE, SIG_IGN); /* a reader that has gone must not end a run half-way */
    signal(SIGXFSZ, SIG_IGN); /* nor a limit on files' sizes: the write fails, and that is reported */
    offline::endingSignalsSay("quillet: ended by a signal; nothing was changed\n");
    offline::Session session;
    offline::systemStart(offline::sayAsTool);
    const int status = offline::callTool(std::vector<std::string>(argv + std::min(argc, 1), argv + argc));
    return offline::exitStatusOf(offline::endStreams(offline::endSystem(status).status));
}

} /* namespace */

int main(int argc, char** argv) {
    int status = ERROR_NOT_ENOUGH_MEMORY;
    const NTSTATUS ended = offline::guarded([&] {
        if (offline::standardStreamsOpen()) {
            status = run(argc, argv);
        } else {
            offline::sayAsTool(std::string("/dev/null can't be opened (") + strerror(errno) +
                               ") for the standard streams that are closed; open them");
            status = ERROR_OPEN_FAILED;
        }
        return STATUS_SUCCESS;
    });
    if (ended < 0) fputs("quillet: out of memory; close other programs and try again\n", stderr);
    return status;
}
