/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "companion/results/report.h"

#include <sys/random.h>

#include <algorithm>
#include <array>

#include "companion/audit/audit_words.h"
#include "companion/ending.h"
#include "companion/formatting.h"
#include "companion/results/code_names.h"
#include "companion/results/report_page.h"
#include "companion/results/report_parts.h"

namespace companion {
namespace {

constexpr size_t mostListed = 500; /* objects that were passed over, problems */

std::string durationText(uint64_t milliseconds) {
    if (milliseconds < 1000) return std::to_string(milliseconds) + " ms";
    if (milliseconds < 120000) {
        return std::to_string(milliseconds / 1000) + "." + std::to_string(milliseconds % 1000 / 100) + " s";
    }
    return std::to_string(milliseconds / 60000) + " min";
}

/* No page that was made before could know it, so that nothing from a disk can pass for the page's own. */
std::string randomNonce() {
    std::array<uint8_t, 16> bytes = {};
    if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
        throw Failure{"the system gives no random numbers, which the report needs"};
    }
    std::string text;
    for (const uint8_t byte : bytes) {
        text += "0123456789abcdef"[byte >> 4];
        text += "0123456789abcdef"[byte & 15];
    }
    return text;
}

struct Page : PageWriter {
    const int exitStatus;

    Page(Results& all, int status, FILE* stream) : PageWriter{all, stream}, exitStatus(status) {}
    bool committed() const { return results.commit && results.commit->state == CommitState::committed; }

    void writeHead() const;
    std::string title() const;
    std::string summary() const;
    void writeFacts() const;
    void writeAttention() const;
    void writeIdentity() const;
    void writeReasons() const;
    void writeOthers() const;
    void writeWayBack() const;
    void writeTimes() const;
    void write() const;
};

/* ---- The head ---- */

std::string Page::title() const {
    if (isAudit()) return "Where " + results.oldSid + " stands";
    if (!isRun()) return "What a run would change";
    if (committed() && results.runStatus != 0) return "The run ended early, and what it did was kept";
    if (committed() && results.newSid.empty()) return "The machine has the identity that it had";
    if (committed()) return "The machine has a new identity";
    return "Nothing was changed";
}

std::string Page::summary() const {
    const uint64_t changed = sum(counts().changed), remaining = sum(counts().remaining);
    const std::string left =
        placesText(sum(counts().left)) + (sum(counts().left) == 1 ? " stays" : " stay") + " by design.";
    if (isAudit() && counts().before) {
        return placesText(remaining) + (remaining == 1 ? " holds" : " hold") +
               " the SID and would be changed by a run; " + left;
    }
    if (isRun() && !committed()) {
        return "The run ended without a change to the disks; " + placesText(remaining) +
               (remaining == 1 ? " holds" : " hold") + " the SID as before.";
    }
    std::string text = placesText(changed);
    text += isRun() ? (changed == 1 ? " was changed; " : " were changed; ")
                    : (isAudit() ? (changed == 1 ? " holds the machine's SID of now; "
                                                 : " hold the machine's SID of now; ")
                                 : " would be changed; ");
    if (remaining != 0) {
        text += placesText(remaining) + " that quillet treats " +
                (isRun() || isAudit() ? "still " : "would still ") +
                (remaining == 1 && (isRun() || isAudit()) ? "holds" : "hold") + " the old SID; ";
    }
    return text + left;
}

void Page::writeHead() const {
    const std::string nonce = randomNonce();
    put("<!DOCTYPE html>\n<html lang=\"en\" dir=\"ltr\">\n<head>\n<meta charset=\"utf-8\">\n"
        "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; style-src 'nonce-" +
        nonce + "'; script-src 'nonce-" + nonce +
        "'; base-uri 'none'; form-action 'none'\">\n"
        "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
        "<meta name=\"referrer\" content=\"no-referrer\">\n<title>" +
        htmlText(title()) + "</title>\n<style nonce=\"" + nonce + "\">" + reportStyle +
        "</style>\n<script type=\"module\" nonce=\"" + nonce + "\">" + reportScript +
        "</script>\n</head>\n<body>\n<main>\n<header>\n<p class=\"eyebrow\">quillet-offline " QUILLET_VERSION
        " &middot; " +
        htmlText(results.command) + " &middot; " + timeText(results.started, "%Y-%m-%d %H:%M:%S UTC") +
        "</p>\n<h1>" + htmlText(title()) + "</h1>\n");
    const bool attention = needsAttention(results, exitStatus);
    put(std::string("<p><span class=\"verdict ") + (attention ? "warn" : "good") + "\">" +
        (attention ? "Needs a person&rsquo;s eyes" : "Nothing here needs a person&rsquo;s eyes") +
        "</span></p>\n<p class=\"lead\">" + htmlText(summary()) + "</p>\n</header>\n");
}

/* ---- The sections ---- */

void Page::writeFacts() const {
    open(isRun() ? "What was done" : isAudit() ? "What was looked at" : "What was tried");
    put("<dl>\n");
    const auto row = [&](const char* name, const std::string& html) {
        put(std::string("<dt>") + name + "</dt><dd>" + html + "</dd>\n");
    };
    const auto code = [](const std::string& text) { return "<code>" + htmlText(text) + "</code>"; };
    std::string disks;
    for (const std::string& image : results.images) disks += (disks.empty() ? "" : "<br>") + code(image);
    row("Disks", disks);
    row(isRun() && !results.newSid.empty() ? "Old SID" : "SID", code(results.oldSid));
    if (!results.newSid.empty()) {
        row(isAudit() ? "The machine&rsquo;s now" : "New SID", code(results.newSid));
    }
    if (results.runStatus) {
        const auto status = static_cast<uint32_t>(*results.runStatus);
        const char* const name = win32Name(status);
        std::string text = std::to_string(*results.runStatus);
        if (name != nullptr) text += std::string(", ") + name;
        if (status != 0 && name != nullptr) text += ": " + win32Words(status);
        row(isRun() ? "Status of the run" : "The run&rsquo;s status", htmlText(text));
    }
    if (results.commit) {
        const Commit& commit = *results.commit;
        const std::string written =
            sizeText(commit.bytes) + " in " + counted(commit.stretches, "stretch", "stretches");
        row("Written", committed() ? htmlText(written) : "nothing");
    } else {
        row("Written", "nothing");
    }
    uint64_t took = 0;
    for (const Timed& phase : results.phases) took += phase.milliseconds;
    row("Took", durationText(took));
    row("Exit status", std::to_string(exitStatus));
    put("</dl>\n");
    close();
}

void Page::writeAttention() const {
    const uint64_t passedOver = results.passedOver.size() + results.passedOverMore;
    const size_t problems = results.problems.size() + results.unseen.size();
    if (passedOver == 0 && problems == 0) return;
    open("What needs a look");
    size_t shown = 0;
    if (problems != 0) put("<ul>\n");
    for (const Problems* list : {&results.problems, &results.unseen}) {
        for (const std::string& line : *list) {
            if (shown++ < mostListed) put("<li>" + htmlText(line) + "</li>\n");
        }
    }
    if (problems != 0) put("</ul>\n");
    if (problems > mostListed) put("<p>And " + number(problems - mostListed) + " more.</p>\n");
    if (passedOver != 0) {
        put("<h3>Passed over (" + number(passedOver) +
            ")</h3>\n<div class=\"scroll\"><table><tr><th>Object</th><th>Why</th><th>What that "
            "means</th></tr>\n");
        for (size_t i = 0; i < std::min(results.passedOver.size(), mostListed); i++) {
            const PassedOver& one = results.passedOver[i];
            put("<tr><td class=\"name mono\">" + htmlText(one.object.empty() ? one.line : one.object) +
                "</td><td>" + htmlText(one.reason) + "</td><td>" + sentenceOf(one.as) + "</td></tr>\n");
        }
        put("</table></div>\n");
        if (passedOver > mostListed) {
            put("<p>And " + number(passedOver - std::min(results.passedOver.size(), mostListed)) +
                " more; the lines that quillet wrote name them all.</p>\n");
        }
    }
    close();
}

/* ---- Names and ids ---- */

const char* becameWords(const IdentityChange& change, bool ran) {
    switch (change.action) {
        case IdentityAction::replaced:
            return "a new one";
        case IdentityAction::removed:
            return ran ? "removed; the system makes a new one" : "would be removed";
        case IdentityAction::unchanged:
            return "as it was";
        case IdentityAction::notThere:
            return "not there";
        case IdentityAction::kept:
            break;
    }
    return "kept: nothing was committed";
}

void Page::writeIdentity() const {
    if (results.identity.empty()) return;
    open("Names and ids");
    put(std::string("<div class=\"scroll\"><table><tr><th>What</th><th>Where</th><th>Was</th><th>") +
        (isRun() ? "Is now" : "Would be") + "</th></tr>\n");
    for (const IdentityChange& change : results.identity) {
        const bool known = change.action == IdentityAction::replaced && change.to.has_value();
        put(std::string("<tr><td>") + nameOf(change.item) + "</td><td class=\"name mono\">" +
            htmlText(change.key + " \"" + change.value + "\"") + "</td><td class=\"name mono\">" +
            htmlText(change.from.value_or("")) + "</td><td class=\"name" + (known ? " mono" : "") + "\">" +
            htmlText(known ? *change.to : becameWords(change, isRun())) + "</td></tr>\n");
    }
    put("</table></div>\n");
    close();
}

void Page::writeReasons() const {
    if (sum(counts().left) == 0) return;
    open("What stays, and whether it matters",
         "These places hold the old SID before and after every run: what they mean is not known well enough "
         "to "
         "rewrite them.");
    put("<div class=\"scroll\"><table><tr><th>What</th><th class=\"n\">Places</th><th>Why, and whether it "
        "matters</th></tr>\n");
    for (size_t i = 0; i < leftCount; i++) {
        if (counts().reasons[i] == 0) continue;
        const auto left = static_cast<Left>(i);
        put(std::string("<tr><td class=\"name\">") + wordsOf(left).label + "</td><td class=\"n\">" +
            number(counts().reasons[i]) + "</td><td>" + whyLeft(left) + "<br><span class=\"soft\">" +
            whetherItMatters(left) + "</span></td></tr>\n");
    }
    put("</table></div>\n");
    close();
}

void Page::writeOthers() const {
    const auto others = results.others->byPlaces();
    if (others.empty()) return;
    open("SIDs of other machines and domains",
         "No run changes them. Each is of a domain that the machine belongs to, or of an earlier identity: "
         "the "
         "machine&rsquo;s before another run, or that of the system it was copied from.");
    put("<div class=\"scroll\"><table><tr><th>SID</th><th class=\"n\">Places</th></tr>\n");
    for (size_t i = 0; i < std::min(others.size(), mostListed); i++) {
        put("<tr><td class=\"mono name\">" + htmlText(others[i].first) + "</td><td class=\"n\">" +
            number(others[i].second) + "</td></tr>\n");
    }
    put("</table></div>\n");
    if (others.size() > mostListed) put("<p>And " + number(others.size() - mostListed) + " more.</p>\n");
    close();
}

void Page::writeWayBack() const {
    if (!isRun()) return;
    open("How to take it back");
    if (!committed()) {
        put("<p>There is nothing to take back: the disks are as they were.</p>\n");
    } else if (results.commit->takeBack.empty()) {
        put("<p>No undo file was kept, so that only a backup leads back.</p>\n");
    } else {
        put("<p><code>" + htmlText(results.commit->takeBack) +
            "</code></p>\n<p>Every byte is then again what it was before the run. That works until the "
            "system is "
            "started or anything else changes what the run has written.</p>\n<p class=\"note\">Undo file: "
            "<code>" +
            htmlText(results.commit->undoFile) +
            "</code>. It holds pieces of the disk as they were, secrets among them: keep it as safe as the "
            "disk, "
            "and remove it when the system is as you want it.</p>\n");
    }
    close();
}

void Page::writeTimes() const {
    open("Time");
    const auto table = [&](const std::vector<Timed>& list) {
        put("<div class=\"scroll\"><table>\n");
        for (const Timed& one : list) {
            put("<tr><td class=\"name\">" + htmlText(one.name) + "</td><td class=\"n\">" +
                durationText(one.milliseconds) + "</td></tr>\n");
        }
        put("</table></div>\n");
    };
    table(results.phases);
    if (!results.steps.empty()) {
        put("<details><summary>The run, step by step</summary>\n");
        table(results.steps);
        put("</details>\n");
    }
    close();
}

void Page::write() const {
    writeHead();
    writeFacts();
    writeAttention();
    writeIdentity();
    writeReportBars(*this);
    writeReasons();
    writeOthers();
    writeWayBack();
    writeReportPlaces(*this);
    writeTimes();
    put("<footer>Made by quillet-offline " QUILLET_VERSION
        ". This page holds names from the disk and needs nothing but "
        "itself.</footer>\n</main>\n</body>\n</html>\n");
}

} /* namespace */

void writeReport(Results& results, int exitStatus, FILE* stream) {
    Page(results, exitStatus, stream).write();
}

} /* namespace companion */
