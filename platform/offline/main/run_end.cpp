/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/main/run_end.h"

#include <cstdio>

#include "platform/nt.h"
#include "platform/offline/base/streams.h"
#include "platform/offline/base/unicode.h"
#include "platform/offline/main/call_tool.h"
#include "platform/offline/system/system.h"

namespace offline {
namespace {

/* How a run that is on the disk is taken back, or why it is not there. */
void sayOutcome(const CommitOutcome& outcome, const std::string& withheld) {
    if (outcome.withheld || !withheld.empty()) {
        sayAsTool(!withheld.empty()
                      ? withheld
                      : "the run did not succeed, so nothing was committed: the disks are as they were "
                        "(--commit always, or QUILLET_COMMIT=always, would have kept what was done)");
    }
    if (outcome.takeBack.empty()) return;
    const CommitReport& report = outcome.report;
    sayAsTool(std::to_string((report.bytes + 1023) / 1024) + " KiB were changed in " +
              std::to_string(report.stretches) + " places; `" + outcome.takeBack +
              "` takes the run back, as long as nothing else changes the disk (undo file: " +
              report.undoPath + ")");
}

/* What does not fit a process's status is printed in full; that -1 is 255 everyone knows. */
void sayInFull(int status) {
    if (exitStatusOf(status) == status || status == -1) return;
    fprintf(stderr, "quillet: the run's full exit status is %d (0x%08X)\n", status,
            static_cast<unsigned>(status));
}

} /* namespace */

void sayAsTool(const std::string& line) {
    fprintf(stderr, "quillet: %s\n", printable(line).c_str());
}

RunEnding endSystem(int status, const std::string& withheld) {
    RunEnding ending;
    const std::string restart = restartAsked();
    Problem closing;
    const NTSTATUS closed = systemClose(status == 0 && withheld.empty(), closing);
    const NTSTATUS failure = closed < 0 ? closed : systemUnread().status;
    ending.status = status != 0 || failure >= 0 ? status : static_cast<int>(RtlNtStatusToDosError(failure));
    sayInFull(ending.status);
    const auto tell = [&](NTSTATUS failed, const Problem& problem) {
        if (failed >= 0) return;
        sayAsTool(problem.text);
        ending.problems.push_back(problem.text);
    };
    tell(systemProblem().status, systemProblem());
    tell(systemUnread().status, systemUnread());
    tell(closed, closing);
    if (failure >= 0 && !restart.empty()) sayAsTool(restart);
    sayOutcome(systemCommitOutcome(), withheld);
    return ending;
}

int endStreams(int status) {
    if (standardStreamsWritten()) return status;
    sayAsTool("not every line could be written; check where standard output and standard error lead to");
    return status != 0 ? status : ERROR_WRITE_FAULT;
}

} /* namespace offline */
