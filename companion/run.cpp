/* SPDX-License-Identifier: GPL-2.0-or-later */
/* run: quillet on the installation of some disks. */
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <filesystem>

#include "companion/audit/audit_words.h"
#include "companion/clone_lines.h"
#include "companion/commands.h"
#include "companion/ending.h"
#include "companion/formatting.h"
#include "companion/results/tool_run.h"
#include "platform/nt.h"
#include "platform/offline/base/ending_signals.h"
#include "platform/offline/base/system_needed.h"
#include "platform/offline/base/unicode.h"
#include "platform/offline/device/linked_image.h"
#include "platform/offline/main/run_end.h"
#include "platform/offline/system/system.h"

namespace companion {
namespace {

offline::RunChoice choiceOf(const RunOptions& options) {
    offline::RunChoice choice;
    for (const std::string& image : options.images) {
        if (image.empty()) throw Failure{"the name of a disk is empty; name an image file or a block device"};
    }
    choice.disks = namedDisks(options.images, options.format);
    for (offline::DiskName& disk : choice.disks) {
        disk.scratch = options.scratch;
        if (disk.scratch && !offline::isLinkedImagePart(disk.name))
            throw Failure{disk.name + ": it is no clone that is being made; leave --scratch out"};
    }
    choice.commit.rule =
        options.commit == "always" ? offline::CommitRule::always : offline::CommitRule::onSuccess;
    choice.commit.undo.keep = !options.noUndo;
    if (!options.undoFile.empty()) choice.commit.undo.path = absolutePath(options.undoFile);
    return choice;
}

void noteCommit(const offline::CommitOutcome& outcome, bool failed, Results& results) {
    Commit commit;
    commit.bytes = outcome.report.bytes;
    commit.stretches = outcome.report.stretches;
    commit.undoFile = outcome.report.undoPath;
    commit.takeBack = outcome.takeBack;
    if (outcome.report.committed) {
        commit.state = commit.stretches == 0 ? CommitState::unchanged : CommitState::committed;
    } else if (outcome.withheld) {
        commit.state = CommitState::withheld;
    } else if (failed) {
        commit.state = CommitState::failed;
    }
    results.commit = commit;
}

constexpr int exitRemains = 1, exitUnseen = 2, exitPassedOver = 3;

/* All or nothing, and nothing passed over: why nothing is kept of this run; empty where it may be. */
std::string strictRefusal(const RunOptions& options, const Results& results) {
    const uint64_t passedOver = results.passedOver.size() + results.passedOverMore;
    if (!options.strict || passedOver == 0 || results.runStatus != 0) return {};
    return std::to_string(passedOver) + (passedOver == 1 ? " object was" : " objects were") +
           " passed over, and --strict was given, so nothing was committed: the disks are as they were (the "
           "ERROR and WARN lines name what was passed over)";
}

/* Ends the run: what it did is on the disks afterwards, or nothing of it. Gives its status. */
int endRun(int status, const std::string& refusal, Results& results) {
    const Timer timer(results.phases, "commit");
    const offline::RunEnding ending = offline::endSystem(status, refusal);
    if (!refusal.empty()) results.problems.push_back(refusal);
    noteCommit(offline::systemCommitOutcome(), !ending.problems.empty(), results);
    results.problems.insert(results.problems.end(), ending.problems.begin(), ending.problems.end());
    results.runStatus = ending.status;
    return ending.status;
}

/* What lies on the disks after the run, read from them anew. */
void lookAtDisks(const RunOptions& options, Results& results) {
    if (results.commit->state != CommitState::committed) {
        results.newSid.clear(); /* nobody has it */
        return nothingChanged(results);
    }
    offline::endingSignalsSay("quillet-offline: ended by a signal; the run is done and committed\n");
    offline::endingSignalsRelease();
    Opened left;
    results.unseen.clear();
    openDisks(namedDisks(options.images, options.format), left, results.unseen);
    lookAfter(left, results);
    if (left.machineSid.empty()) return; /* why is among the unseen */
    results.newSid = left.machineSid == results.oldSid ? "" : left.machineSid;
}

/* Says what the audit of the disks found; gives the status of a run that ended well. */
int verify(const Results& results) {
    if (!results.unseen.empty()) return exitUnseen;
    const uint64_t remaining = sum(results.counts->remaining);
    if (remaining != 0) {
        say(placesText(remaining) + " that quillet treats still " + (remaining == 1 ? "holds " : "hold ") +
            results.oldSid + "; `quillet-offline audit --all` with that SID names them");
        return exitRemains;
    }
    if (results.json) return exitDone;
    printf("verified: %s changed, nothing that quillet treats holds %s; %s by design\n",
           placesText(sum(results.counts->changed)).c_str(), results.oldSid.c_str(),
           (placesText(sum(results.counts->left)) + (sum(results.counts->left) == 1 ? " stays" : " stay"))
               .c_str());
    fflush(stdout);
    return exitDone;
}

bool isCommitted(const Results& results) {
    return results.commit->state == CommitState::committed;
}

/* What became of names and ids, now that the run is on the disks or not. */
void tellIdentity(Results& results) {
    if (!isCommitted(results)) return keepIdentity(results.identity);
    for (size_t i = 0; !results.json && i < results.identity.size(); i++) {
        printf("%s\n", offline::printable(changeLine(results.identity[i], false)).c_str());
    }
    fflush(stdout);
}

/* What is written on standard error although it means no harm. */
void explain(const Results& results) {
    if (results.runStatus != 0) return;
    const auto has = [&](const char* call) {
        return std::any_of(results.explained.begin(), results.explained.end(),
                           [&](const Explained& one) { return one.line.find(call) != std::string::npos; });
    };
    if (has("FindFirstFile "))
        say("a line \"FindFirstFile returned 2\" names a drive without files: there is nothing to treat");
    if (has("RegLoadKey("))
        say("lines \"RegLoadKey(...) failed with code 2\" (or 3) name profiles without a hive, in which "
            "there is nothing to treat; for S-1-5-18, the system's own, that is usual");
}

} /* namespace */

int run(const RunOptions& options, Results& results) {
    results.json = options.json;
    results.images = options.images;
    results.asTool = true;
    const bool audited = options.json || !options.report.empty(), looks = audited || options.verify;
    if (audited) refuseQuiet(options.quilletOptions, options.json ? "--json" : "--report");
    if (options.strict) refuseQuiet(options.quilletOptions, "--strict");
    const IdentityWish wish = identityWish(options.identity);
    refuseWithoutRun(options.quilletOptions, wish);
    const offline::RunChoice choice = choiceOf(options);
    const auto place = [](const std::string& file) {
        return std::filesystem::path(absolutePath(file)).lexically_normal();
    };
    if (!options.report.empty() && !options.undoFile.empty() &&
        place(options.report) == place(options.undoFile)) {
        throw Failure{options.report + ": the undo file is to go there; name another for the report"};
    }
    wantReport(options.report, results);
    signal(SIGPIPE, SIG_IGN); /* a reader that has gone must not end a run half-way */
    offline::endingSignalsSay("quillet: ended by a signal; nothing was changed\n");
    offline::systemStartOn(choice, offline::sayAsTool);
    if ((looks && !lookBefore(results, audited)) || (!wish.empty() && offline::systemNeeded() < 0)) {
        return endRun(static_cast<int>(RtlNtStatusToDosError(offline::systemProblem().status)), {}, results);
    }
    results.identity = changeIdentity(wish);
    const int returned = callTool(options.quilletOptions, {!options.json, true}, results);
    explain(results);
    const std::string refusal = strictRefusal(options, results);
    int status = endRun(returned, refusal, results);
    if (!refusal.empty() && status == 0) status = exitPassedOver;
    if (options.scratch) printCloneLines(results);
    if (!options.scratch) tellIdentity(results);
    if (looks) lookAtDisks(options, results);
    sayAll(results.unseen);
    if (options.verify && isCommitted(results) && results.counts) {
        const int verified = verify(results);
        if (status == 0) status = verified;
    }
    results.finished = true;
    return status;
}

} /* namespace companion */
