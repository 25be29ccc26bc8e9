/* plan: a whole run of quillet whose changes go nowhere, and what it would have changed. */
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "companion/audit_words.h"
#include "companion/commands.h"
#include "companion/ending.h"
#include "companion/machine.h"
#include "platform/offline/base/streams.h"
#include "platform/offline/descriptor/sid_format.h"
#include "platform/offline/main/call_tool.h"
#include "platform/offline/system/system.h"

namespace companion {
namespace {

constexpr int exitRemains = 1;

/* Takes what is written to a standard stream into a nameless file, as long as it lives. */
struct CapturedStream {
    FILE* const stream;
    const int number;
    FILE* const text = tmpfile();
    int before = -1;

    explicit CapturedStream(FILE* captured) : stream(captured), number(fileno(captured)) {
        fflush(stream);
        before = offline::aboveStandard(dup(number));
        if (text == nullptr || before < 0 || dup2(fileno(text), number) < 0) {
            throw Failure{std::string("there is no room for a temporary file (") + strerror(errno) +
                          "); make room in /tmp"};
        }
    }
    CapturedStream(const CapturedStream&) = delete;
    CapturedStream& operator=(const CapturedStream&) = delete;
    ~CapturedStream() {
        giveBack();
        if (text != nullptr) fclose(text);
    }

    void giveBack() {
        if (before < 0) return;
        fflush(stream);
        dup2(before, number);
        close(before);
        before = -1;
    }

    /* The next line from the start on, its newline included; false at the end. */
    bool next(std::string& line) const {
        line.clear();
        for (int byte = getc(text); byte != EOF; byte = getc(text)) {
            line.push_back(static_cast<char>(byte));
            if (byte == '\n') return true;
        }
        return !line.empty();
    }
};

/* The SID that the run made, which no run will use: it stands after the arrow in one of the first lines. */
std::string newSidOf(const CapturedStream& output) {
    const std::string arrow = " -> ";
    std::string line;
    while (output.next(line)) {
        const size_t at = line.find(arrow);
        if (line.starts_with("S-1-") && at != std::string::npos) {
            return line.substr(at + arrow.size(), line.size() - at - arrow.size() - 1);
        }
    }
    return "";
}

/* What the run said on standard error, without that SID. */
void repeatErrors(const CapturedStream& errors, const std::string& newSid) {
    std::string line;
    while (errors.next(line)) {
        for (size_t at = 0; !newSid.empty() && (at = line.find(newSid, at)) != std::string::npos;) {
            line.replace(at, newSid.size(), "(new SID)");
        }
        fputs(line.c_str(), stderr);
    }
}

/* Calls the tool and gives what it returned. */
int runSilently(const std::vector<std::string>& arguments) {
    CapturedStream output(stdout), errors(stderr);
    const int status = offline::callTool(arguments);
    output.giveBack();
    errors.giveBack();
    rewind(output.text);
    rewind(errors.text);
    repeatErrors(errors, newSidOf(output));
    return status;
}

struct Plan {
    const PlanOptions& options;
    const std::vector<offline::DiskName> disks = namedDisks(options.images, options.format);
    Audit before = {}, after = {};
    std::vector<std::string> places = {};
    int runStatus = 0;

    void lookBefore();
    void run();
    int tell();
};

/* What holds the machine's SID now. */
void Plan::lookBefore() {
    Opened opened;
    openDisks(disks, opened, before.problems);
    readInstallation(opened, before.problems);
    if (opened.machineSid.empty()) {
        throw Failure{before.problems.empty() ? "no machine SID was found" : before.problems.front()};
    }
    before.wanted = after.wanted = wantedSid(offline::sidFromText(opened.machineSid));
    if (options.verbose) {
        before.found = [&](const Finding& finding) {
            places.push_back(findingLine(finding, "would change", "stays       "));
        };
    }
    auditInstallation(opened, before);
}

/* The run, and what would still hold the SID after it. */
void Plan::run() {
    offline::Problem problem;
    if (offline::systemChooseAccess(problem) < 0 ||
        offline::systemOpen(disks, offline::DiskAccess::planned, problem) < 0) {
        throw Failure{problem.text};
    }
    runStatus = runSilently(options.quilletOptions);
    Opened left;
    if (offline::systemHandOver(left.installation, problem) < 0) after.problems.push_back(problem.text);
    readInstallation(left, after.problems);
    after.found = [&](const Finding& finding) {
        if (options.verbose && !finding.left) places.push_back(findingLine(finding, "would remain", ""));
    };
    auditInstallation(left, after);
}

int Plan::tell() {
    for (const std::string& place : places) printf("%s\n", place.c_str());
    if (!places.empty()) printf("\n");
    Audit planned = before;
    for (size_t i = 0; i < kindCount; i++) {
        planned.treated[i] -= std::min(planned.treated[i], after.treated[i]);
    }
    printCounts(planned, "would change", "stays");
    const uint64_t remaining = sum(after.treated);
    printf("\nnothing was written; the run would end with status %d", runStatus);
    if (remaining != 0) {
        printf(", and %llu places that quillet treats would still hold the SID",
               static_cast<unsigned long long>(remaining));
    }
    printf("\n");
    fflush(stdout);
    for (const std::string& problem : after.problems) say(problem);
    if (!after.problems.empty()) return exitFailed;
    if (runStatus != 0) return offline::exitStatusOf(runStatus);
    return remaining != 0 ? exitRemains : exitDone;
}

} /* namespace */

int plan(const PlanOptions& options) {
    Plan plan{options};
    plan.lookBefore();
    plan.run();
    return plan.tell();
}

} /* namespace companion */
