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
#include "platform/offline/base/progress_line.h"
#include "platform/offline/base/session.h"
#include "platform/offline/base/streams.h"
#include "platform/offline/main/call_tool.h"
#include "platform/offline/main/run_end.h"
#include "platform/offline/system/system.h"

namespace {

/* The tool and its end; the lines about lost lines come when the streams are the process's own again. */
int runTool(const std::vector<std::string>& arguments) {
    offline::ProgressWish wish = offline::ProgressWish::never;
    offline::Problem later; /* told by the first call that needs the installation */
    static_cast<void>(offline::systemChooseProgress(wish, later));
    if (offline::quietAsked(arguments)) wish = offline::ProgressWish::never;
    const offline::ProgressLine progress(wish, false);
    return offline::endSystem(offline::callTool(arguments)).status;
}

int run(int argc, char** argv) {
    signal(SIGPIPE, SIG_IGN); /* a reader that has gone must not end a run half-way */
    signal(SIGXFSZ, SIG_IGN); /* nor a limit on files' sizes: the write fails, and that is reported */
    signal(SIGCHLD, SIG_DFL); /* of children whose end a parent had ignored no status is kept */
    offline::endingSignalsSay("quillet: ended by a signal; nothing was changed\n");
    offline::Session session;
    offline::systemStart(offline::sayAsTool);
    const int status = runTool(std::vector<std::string>(argv + std::min(argc, 1), argv + argc));
    return offline::exitStatusOf(offline::endStreams(status));
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
