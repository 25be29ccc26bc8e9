/* The start of the offline program: UTF-8 arguments to wmain, the installation's end, and the exit status. */
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
#include "platform/offline/base/unicode.h"
#include "platform/offline/main/call_tool.h"
#include "platform/offline/system/system.h"

namespace {

void say(const std::string& line) {
    fprintf(stderr, "quillet: %s\n", offline::printable(line).c_str());
}

/* How a run that is on the disk is taken back, or why it is not there. */
void sayOutcome(const offline::CommitOutcome& outcome) {
    if (outcome.withheld) {
        say("the run did not succeed, so nothing was committed: the disks are as they were (--commit always, "
            "or "
            "QUILLET_COMMIT=always, would have kept what was done)");
    }
    if (outcome.takeBack.empty()) return;
    const offline::CommitReport& report = outcome.report;
    say(std::to_string((report.bytes + 1023) / 1024) + " KiB were changed in " +
        std::to_string(report.stretches) + " places; `" + outcome.takeBack +
        "` takes the run back, as long as nothing else changes the disk (undo file: " + report.undoPath +
        ")");
}

/* What does not fit a process's status is printed in full; that -1 is 255 everyone knows. */
void sayInFull(int status) {
    if (offline::exitStatusOf(status) == status || status == -1) return;
    fprintf(stderr, "quillet: the run's full exit status is %d (0x%08X)\n", status,
            static_cast<unsigned>(status));
}

/* Says why the installation could not be opened, what of it could not be read, and why it could not be closed
 * well; the latter two make a failure of the run. What is to be done about the disk comes last. */
int endSystem(int status) {
    const std::string restart = offline::restartAsked();
    offline::Problem closing;
    const NTSTATUS closed = offline::systemClose(status == 0, closing);
    const NTSTATUS failure = closed < 0 ? closed : offline::systemUnread().status;
    if (status == 0 && failure < 0) status = static_cast<int>(RtlNtStatusToDosError(failure));
    sayInFull(status);
    const offline::Problem& opening = offline::systemProblem();
    if (opening.status < 0) say(opening.text);
    const offline::Problem& unread = offline::systemUnread();
    if (unread.status < 0) say(unread.text);
    if (closed < 0) say(closing.text);
    if (failure >= 0 && !restart.empty()) say(restart);
    sayOutcome(offline::systemCommitOutcome());
    return status;
}

/* Lines that were lost are reported when everything else is done: no run stops half-way for them. */
int endStreams(int status) {
    if (offline::standardStreamsWritten()) return status;
    say("not every line could be written; check where standard output and standard error lead to");
    return status != 0 ? status : ERROR_WRITE_FAULT;
}

int run(int argc, char** argv) {
    signal(SIGPIPE, SIG_IGN); /* a reader that has gone must not end a run half-way */
    signal(SIGXFSZ, SIG_IGN); /* nor a limit on files' sizes: the write fails, and that is reported */
    offline::endingSignalsSay("quillet: ended by a signal; nothing was changed\n");
    offline::Session session;
    offline::systemStart(say);
    const int status = offline::callTool(std::vector<std::string>(argv + std::min(argc, 1), argv + argc));
    return offline::exitStatusOf(endStreams(endSystem(status)));
}

} /* namespace */

int main(int argc, char** argv) {
    int status = ERROR_NOT_ENOUGH_MEMORY;
    const NTSTATUS ended = offline::guarded([&] {
        if (offline::standardStreamsOpen()) {
            status = run(argc, argv);
        } else {
            say(std::string("/dev/null can't be opened (") + strerror(errno) +
                ") for the standard streams that are closed; open them");
            status = ERROR_OPEN_FAILED;
        }
        return STATUS_SUCCESS;
    });
    if (ended < 0) fputs("quillet: out of memory; close other programs and try again\n", stderr);
    return status;
}
