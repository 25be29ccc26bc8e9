/* SPDX-License-Identifier: GPL-2.0-or-later */
/* audit: where a machine's SID stands in an installation. */
#include <cstdio>

#include "companion/audit/audit_words.h"
#include "companion/commands.h"
#include "companion/ending.h"
#include "companion/machine.h"
#include "platform/offline/descriptor/sid_format.h"

namespace companion {
namespace {

constexpr int exitFound = 1;

/* ---- For a person ---- */

std::string conclusion(const Results& results) {
    const uint64_t treated = sum(results.counts->remaining);
    std::string text = results.unseen.empty() ? "" : "not everything could be looked at; in the rest ";
    if (treated == 0) return text + "nothing that quillet treats holds " + results.oldSid;
    return text + placesText(treated) + " that quillet treats " + (treated == 1 ? "holds " : "hold ") +
           results.oldSid;
}

void print(const Results& results) {
    const bool after = !results.counts->before.has_value();
    const Titles titles = after ? Titles{"changed", "still old"} : Titles{"would change", nullptr};
    printCounts(*results.counts, *results.others, titles);
    if (after && sum(results.counts->changed) != 0)
        printf("\n\"changed\" are places that hold the machine's SID of now, %s\n", results.newSid.c_str());
    printf("\n%s\n", conclusion(results).c_str());
}

/* ---- The command ---- */

[[noreturn]] void refuseSid(const std::string& text) {
    throw Failure{"\"" + text + "\" is no machine SID; give one such as S-1-5-21-1111-2222-3333"};
}

/* The last of the images may be the SID. */
void takeSid(AuditOptions& options) {
    const std::string last = options.images.back();
    if (last.rfind("S-1-", 0) == 0) {
        if (!isMachineSid(offline::sidFromText(last))) refuseSid(last);
        if (!options.sid.empty()) throw Failure{"two SIDs are given; give one"};
        if (options.images.size() == 1) throw Failure{"no image is given; name one before the SID"};
        options.sid = last;
        options.images.pop_back();
    }
    if (!options.sid.empty() && !isMachineSid(offline::sidFromText(options.sid))) refuseSid(options.sid);
}

int finish(const Results& results, bool found) {
    fflush(stdout);
    sayAll(results.unseen);
    if (!results.unseen.empty()) return exitFailed;
    return found ? exitFound : exitDone;
}

/* What is done with each place. */
std::function<void(const Finding&)> listing(const AuditOptions& options, bool after, Results& results) {
    results.listPlaces = options.all && options.json;
    if (results.listPlaces && !results.places) results.places = std::make_unique<Places>();
    if (!options.all && !results.places) return {};
    return [after, printed = options.all && !options.json, &results](const Finding& finding) {
        if (results.places) results.places->add(finding);
        if (!printed) return;
        const char* const state = finding.left ? "stays       " : after ? "still old   " : "would change";
        printf("%s\n", findingLine(finding, state).c_str());
    };
}

/* The audit of an installation that has this SID, or had it. */
void look(const Opened& opened, const AuditOptions& options, Results& results) {
    const Timer timer(results.phases, "audit");
    const bool after = !opened.machineSid.empty() && opened.machineSid != results.oldSid;
    Audit audit{wantedSid(offline::sidFromText(results.oldSid))};
    if (after) audit.current = wantedSid(offline::sidFromText(opened.machineSid));
    if (after) results.newSid = opened.machineSid;
    audit.problems = std::move(results.unseen);
    audit.found = listing(options, after, results);
    auditInstallation(opened, audit);
    results.counts = Counts{audit.treated, audit.changed, audit.treated, audit.left, audit.reasons};
    if (after) results.counts->before.reset();
    results.others = std::move(audit.others);
    results.unseen = std::move(audit.problems);
}

} /* namespace */

int audit(AuditOptions options, Results& results) {
    takeSid(options);
    results.json = options.json;
    results.images = options.images;
    wantReport(options.report, results);
    Opened opened;
    {
        const Timer timer(results.phases, "look");
        openDisks(namedDisks(options.images, options.format), opened, results.unseen);
        readInstallation(opened, results.unseen);
    }
    results.oldSid = options.sid.empty() ? opened.machineSid : options.sid;
    if (results.oldSid.empty()) {
        noteUnread(opened, results.unseen);
        return finish(results, false);
    }
    look(opened, options, results);
    results.finished = true;
    if (!options.json) print(results);
    return finish(results, sum(results.counts->remaining) != 0);
}

} /* namespace companion */
