/* SPDX-License-Identifier: GPL-2.0-or-later */
/* plan: a whole run of quillet whose changes go nowhere, and what it would have changed. */
#include <algorithm>
#include <cstdio>

#include "companion/audit/audit_words.h"
#include "companion/commands.h"
#include "companion/ending.h"
#include "companion/results/tool_run.h"
#include "platform/nt.h"
#include "platform/offline/base/system_needed.h"
#include "platform/offline/base/unicode.h"
#include "platform/offline/main/call_tool.h"
#include "platform/offline/system/system.h"

namespace companion {
namespace {

constexpr int exitRemains = 1;

struct Plan {
    const PlanOptions& options;
    Results& results;
    std::vector<std::string> remains = {}; /* lines */

    void run();
    void tell();
    int end() const;

private:
    void refuseSystem();
    void noteFailure(NTSTATUS status);
};

/* What lets a run fail that came to its end. */
void Plan::noteFailure(NTSTATUS status) {
    if (status < 0 && results.runStatus.value_or(0) == 0) {
        results.runStatus = static_cast<int>(RtlNtStatusToDosError(status));
    }
}

/* Ends the plan as the run would end, where the system is refused. */
void Plan::refuseSystem() {
    const offline::Problem& problem = offline::systemProblem();
    if (problem.status >= 0) return;
    noteFailure(problem.status);
    throw Failure{problem.text, offline::exitStatusOf(*results.runStatus)};
}

/* What holds the machine's SID now; the run; what would still hold the SID after it. */
void Plan::run() {
    if (options.json || !options.report.empty()) {
        refuseQuiet(options.quilletOptions, options.json ? "--json" : "--report");
    }
    const IdentityWish wish = identityWish(options.identity);
    refuseWithoutRun(options.quilletOptions, wish);
    wantReport(options.report, results);
    if (options.verbose && !results.places) results.places = std::make_unique<Places>();
    results.listPlaces = options.verbose;
    offline::systemStartOn({namedDisks(options.images, options.format), offline::DiskAccess::planned, {}},
                           nullptr);
    if (!lookBefore(results, true) || (!wish.empty() && offline::systemNeeded() < 0)) refuseSystem();
    results.identity = changeIdentity(wish);
    forgetNewIds(results.identity);
    callTool(options.quilletOptions, {false, false}, results);
    refuseSystem();
    Opened left;
    offline::Problem problem, unread;
    if (offline::systemInstallation() == nullptr) return nothingChanged(results); /* "-h", or no option */
    results.unseen.clear();
    const NTSTATUS saved = offline::systemHandOver(left.installation, problem);
    if (saved < 0) results.unseen.push_back(problem.text);
    noteFailure(saved);
    noteFailure(offline::installationReadWhole(left.installation, unread)); /* told with what is unseen */
    lookAfter(left, results, [&](const Finding& finding) {
        if (options.verbose && !options.json) remains.push_back(findingLine(finding, "would remain"));
    });
}

void Plan::tell() {
    if (options.verbose) {
        results.places->visit([](const Finding& finding, PlaceState) {
            printf("%s\n", findingLine(finding, finding.left ? "stays       " : "would change").c_str());
        });
        for (const std::string& line : remains) printf("%s\n", line.c_str());
        printf("\n");
    }
    printCounts(*results.counts, *results.others, {"would change", "would remain"});
    if (!results.identity.empty()) printf("\n");
    for (const IdentityChange& change : results.identity) {
        printf("%s\n", offline::printable(changeLine(change, true)).c_str());
    }
    const uint64_t remaining = sum(results.counts->remaining);
    printf("\nnothing was written; the run would end with status %d", *results.runStatus);
    if (remaining != 0) {
        printf(", and %llu places that quillet treats would still hold the SID",
               static_cast<unsigned long long>(remaining));
    }
    printf("\n");
    fflush(stdout);
}

int Plan::end() const {
    sayAll(results.unseen);
    if (*results.runStatus != 0) return offline::exitStatusOf(*results.runStatus);
    if (!results.unseen.empty()) return exitFailed;
    return sum(results.counts->remaining) != 0 ? exitRemains : exitDone;
}

} /* namespace */

int plan(const PlanOptions& options, Results& results) {
    results.json = options.json;
    results.images = options.images;
    Plan plan{options, results};
    plan.run();
    if (!options.json) plan.tell();
    results.finished = true;
    return plan.end();
}

} /* namespace companion */
