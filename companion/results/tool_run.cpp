/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "companion/results/tool_run.h"

#include <algorithm>

#include "companion/ending.h"
#include "companion/results/line_tap.h"
#include "platform/nt.h"
#include "platform/offline/base/system_needed.h"
#include "platform/offline/descriptor/sid_format.h"
#include "platform/offline/main/call_tool.h"
#include "platform/offline/system/system.h"

namespace companion {
namespace {

constexpr size_t mostText = size_t{64} << 20; /* bytes of lines that are kept; the others are counted */
constexpr size_t mostSteps = 10000;

/* What the tool says, as it says it. */
struct Listener {
    Results& results;
    ToolShown shown;
    size_t textKept = 0;
    std::string newSid = {};
    std::chrono::steady_clock::time_point stepBegan = {};
    bool inStep = false;

    void endStep() {
        const auto took = std::chrono::steady_clock::now() - stepBegan;
        if (inStep) {
            results.steps.back().milliseconds =
                static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(took).count());
        }
        inStep = false;
    }

    /* A plan's new SID is not the one that the run will make. */
    void hideNewSid(std::string& text) const {
        for (size_t at = 0; !shown.newSid && !newSid.empty() && (at = text.find(newSid, at)) != text.npos;) {
            text.replace(at, newSid.size(), "(new SID)");
        }
    }

    /* The first line has both SIDs; most others begin a step: "scanning c: ..." */
    bool hearOutput(const std::string& line) {
        const std::string arrow = " -> ", begins = " ...\n";
        const size_t at = line.find(arrow);
        if (line.starts_with("S-1-") && at != std::string::npos) {
            results.oldSid = line.substr(0, at);
            newSid = line.substr(at + arrow.size(), line.size() - at - arrow.size() - 1);
            if (shown.newSid) results.newSid = newSid;
        } else if (line.ends_with(begins) && results.steps.size() < mostSteps) {
            endStep();
            results.steps.push_back({line.substr(0, line.size() - begins.size()), 0});
            hideNewSid(results.steps.back().name);
            stepBegan = std::chrono::steady_clock::now();
            inStep = true;
        }
        return shown.output;
    }

    void keep(PassedOver one) {
        if (isToldAgain(results.passedOver, one)) return;
        textKept += one.line.size() + one.object.size() + one.reason.size();
        if (textKept > mostText) {
            results.passedOverMore++;
        } else {
            results.passedOver.push_back(std::move(one));
        }
    }

    bool hearError(std::string& line) {
        if (offline::systemProblem().status < 0) return false;
        hideNewSid(line);
        ToolLine read = readToolLine(line);
        if (read.passedOver) keep(std::move(*read.passedOver));
        if (read.explained) results.explained.push_back(std::move(*read.explained));
        if (read.problem) results.problems.push_back(std::move(*read.problem));
        return true;
    }
};

} /* namespace */

bool lookBefore(Results& results, bool audited) {
    Opened opened;
    {
        const Timer timer(results.phases, "look");
        if (offline::systemNeeded() < 0) {
            results.runStatus = static_cast<int>(RtlNtStatusToDosError(offline::systemProblem().status));
            return false;
        }
        offline::Problem unsaid; /* nothing was changed, so that nothing is saved */
        offline::systemHandOver(opened.installation, unsaid);
        readInstallation(opened, results.unseen);
    }
    if (opened.machineSid.empty()) {
        throw Failure{results.unseen.empty() ? "no machine SID was found" : results.unseen.front()};
    }
    results.oldSid = opened.machineSid;
    if (!audited) return true;
    const Timer timer(results.phases, "auditBefore");
    Audit audit{wantedSid(offline::sidFromText(opened.machineSid))};
    audit.problems = std::move(results.unseen);
    if (results.places) audit.found = [&](const Finding& finding) { results.places->add(finding); };
    auditInstallation(opened, audit);
    results.counts = Counts{audit.treated, {}, audit.treated, audit.left, audit.reasons};
    results.others = std::move(audit.others);
    results.unseen = std::move(audit.problems);
    return true;
}

int callTool(const std::vector<std::string>& options, ToolShown shown, Results& results) {
    const Timer timer(results.phases, "run");
    Listener listener{results, shown};
    LineTap output(stdout, [&](std::string& line) { return listener.hearOutput(line); });
    LineTap errors(stderr, [&](std::string& line) { return listener.hearError(line); });
    const int status = offline::callTool(options);
    errors.end();
    output.end();
    listener.endStep();
    results.runStatus = status;
    return status;
}

void lookAfter(Opened& left, Results& results, const std::function<void(const Finding&)>& found) {
    const Timer timer(results.phases, "auditAfter");
    Audit audit{wantedSid(offline::sidFromText(results.oldSid))};
    audit.problems = std::move(results.unseen);
    readInstallation(left, audit.problems);
    if (!left.machineSid.empty() && left.machineSid != results.oldSid) {
        audit.current = wantedSid(offline::sidFromText(left.machineSid));
    }
    audit.found = [&](const Finding& finding) {
        if (finding.left) return;
        if (results.places) results.places->addRemaining(finding, results.oldSid, left.machineSid);
        if (found) found(finding);
    };
    auditInstallation(left, audit);
    if (!results.counts) results.counts = Counts{{}, audit.changed, {}, audit.left, audit.reasons};
    Counts& counts = *results.counts;
    counts.remaining = audit.treated;
    for (size_t i = 0; counts.before && i < kindCount; i++) {
        counts.changed[i] = (*counts.before)[i] - std::min((*counts.before)[i], audit.treated[i]);
    }
    results.others = std::move(audit.others);
    results.unseen = std::move(audit.problems);
}

void nothingChanged(Results& results) {
    if (results.places) results.places->nothingChanged();
}

void refuseQuiet(const std::vector<std::string>& options, const char* why) {
    for (const std::string& option : options) {
        if (!option.starts_with('-') || option.find('q') == std::string::npos) continue;
        throw Failure{option + ": quillet's option q hides the lines that " + why + " needs; leave it out"};
    }
}

} /* namespace companion */
