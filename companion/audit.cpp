/* audit: where a machine's SID stands in an installation. */
#include "companion/audit.h"

#include <cstdio>
#include <optional>

#include "companion/audit_words.h"
#include "companion/commands.h"
#include "companion/ending.h"
#include "companion/formatting.h"
#include "companion/json.h"
#include "companion/machine.h"
#include "platform/offline/descriptor/sid_format.h"

namespace companion {
namespace {

constexpr int exitFound = 1;

/* ---- For a person ---- */

void printFinding(const Finding& finding) {
    printf("%s\n", findingLine(finding, "treated", "left   ").c_str());
}

std::string conclusion(const Audit& audit, const std::string& sid) {
    const uint64_t treated = sum(audit.treated);
    std::string text = audit.problems.empty() ? "" : "not everything could be looked at; in the rest ";
    if (treated == 0) return text + "nothing that quillet treats holds " + sid;
    text += std::to_string(treated);
    return text + (treated == 1 ? " place that quillet treats holds " : " places that quillet treats hold ") +
           sid;
}

void print(const Audit& audit, const std::string& sid) {
    printCounts(audit, "treated", "left alone");
    printf("\n%s\n", conclusion(audit, sid).c_str());
}

/* ---- For programs ---- */

void write(JsonWriter& json, const Finding& finding) {
    json.open('{');
    json.put("kind", wordsOf(finding.kind).name);
    json.put("treated", !finding.left);
    if (finding.left) json.put("reason", wordsOf(*finding.left).name);
    json.put("path", finding.path);
    if (finding.kind == Kind::value) json.put("value", finding.value);
    json.close('}');
}

void write(JsonWriter& json, const Audit& audit) {
    json.put("treated", sum(audit.treated));
    json.put("leftAlone", sum(audit.left));
    for (size_t i = 0; i < kindCount; i++) {
        json.open(wordsOf(static_cast<Kind>(i)).name, '{');
        json.put("treated", audit.treated[i]);
        json.put("leftAlone", audit.left[i]);
        json.close('}');
    }
    json.open("reasons", '{');
    for (size_t i = 0; i < leftCount; i++) json.put(wordsOf(static_cast<Left>(i)).name, audit.reasons[i]);
    json.close('}');
    json.open("problems", '[');
    for (const std::string& problem : audit.problems) json.item(problem);
    json.close(']');
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

int finish(const Problems& problems, bool found) {
    fflush(stdout);
    for (const std::string& problem : problems) say(problem);
    if (!problems.empty()) return exitFailed;
    return found ? exitFound : exitDone;
}

} /* namespace */

int audit(AuditOptions options) {
    takeSid(options);
    Opened opened;
    Problems problems;
    openDisks(namedDisks(options.images, options.format), opened, problems);
    readInstallation(opened, problems);
    const std::string sid = options.sid.empty() ? opened.machineSid : options.sid;
    if (sid.empty()) {
        noteUnread(opened, problems);
        if (options.json) printf("{\"sid\":null}\n");
        return finish(problems, false);
    }
    Audit audit{wantedSid(offline::sidFromText(sid)), {}};
    audit.problems = std::move(problems);
    JsonWriter json;
    json.open('{');
    json.put("sid", sid);
    if (options.all && options.json) {
        json.open("places", '[');
        audit.found = [&json](const Finding& finding) { write(json, finding); };
    } else if (options.all) {
        audit.found = printFinding;
    }
    auditInstallation(opened, audit);
    if (options.json) {
        if (options.all) json.close(']');
        write(json, audit);
        json.close('}');
        printf("%s\n", json.text.c_str());
    } else {
        print(audit, sid);
    }
    return finish(audit.problems, sum(audit.treated) != 0);
}

} /* namespace companion */
