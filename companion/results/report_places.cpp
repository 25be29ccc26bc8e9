/* SPDX-License-Identifier: GPL-2.0-or-later */
#include <algorithm>

#include "companion/audit/audit_words.h"
#include "companion/results/report.h"
#include "companion/results/report_parts.h"

namespace companion {
namespace {

constexpr size_t mostLines = 1000;    /* of one group of places */
constexpr size_t mostPlaces = 300000; /* in a page that is still opened in seconds */

/* Where it lies, as far as its area does not say so. */
std::string placeText(const Finding& finding) {
    if (finding.kind == Kind::file) return finding.path;
    return finding.path.substr(std::min(finding.path.size(), areaOf(finding).size() + 2));
}

/* The places of one kind and state, in groups that lie together, each under what their texts have in common.
 */
struct Group {
    const PageWriter& page;
    Kind kind;
    std::string area = {}, common = {}, lines = {};
    uint64_t size = 0;

    void add(const Finding& finding) {
        const std::string here = areaOf(finding), text = placeText(finding);
        if (here != area || size == mostLines) end();
        if (size == 0) common = text;
        const auto differs =
            std::mismatch(common.begin(), common.end(), text.begin(), text.end()).first - common.begin();
        common.resize(characterAt(common, static_cast<size_t>(differs)));
        area = here;
        lines += htmlText(finding.kind == Kind::value ? text + "  \"" + finding.value + "\"" : text);
        if (finding.left) lines += std::string("  (") + wordsOf(*finding.left).one + ")";
        lines += '\n';
        size++;
    }
    std::string title() const {
        const std::string title = kind == Kind::file ? common : area + ": " + common;
        return htmlText(title) + (size > 1 ? "&hellip;" : "");
    }
    void end() {
        if (size == 0) return;
        page.put(std::string("<details class=\"places\"><summary><b>") + wordsOf(kind).label +
                 "</b> <span class=\"mono\">" + title() + "</span> <span class=\"n\">" + number(size) +
                 "</span></summary>\n<pre tabindex=\"0\">" + lines.substr(0, lines.size() - 1) +
                 "</pre></details>\n");
        lines.clear();
        size = 0;
    }
};

} /* namespace */

void writeReportPlaces(const PageWriter& page) {
    struct Row {
        PlaceState state;
        const char* title;
    };
    const Row rows[] = {
        {PlaceState::remains, page.isRun() ? "Still old" : "Would remain"},
        {PlaceState::treated, page.isAudit() ? (page.counts().before ? "Would change" : "Still old")
                                             : (page.isRun() ? "Changed" : "Would change")},
        {PlaceState::stays, "Stay, by design"}};
    page.open("Every place",
              "In groups that lie together; open one to see its places. The names are the disk&rsquo;s: what "
              "can&rsquo;t "
              "be shown in one stands as its number, such as &lt;U+202E&gt;.");
    page.put(
        "<div class=\"filter\" hidden><label for=\"filter\">Show only places with</label><input "
        "id=\"filter\" "
        "type=\"search\" autocomplete=\"off\" spellcheck=\"false\" placeholder=\"a name, a user, a path\"><p "
        "class=\"note\" "
        "id=\"found\" aria-live=\"polite\"></p></div>\n");
    uint64_t all = 0, listed = 0;
    for (const Row& row : rows) {
        bool titled = false;
        for (size_t kind = 0; kind < kindCount; kind++) {
            Group group{page, static_cast<Kind>(kind)};
            page.results.places->visit([&](const Finding& finding, PlaceState state) {
                if (state != row.state || finding.kind != static_cast<Kind>(kind)) return;
                all++;
                if (listed >= mostPlaces) return;
                listed++;
                if (!titled) page.put(std::string("<h3>") + row.title + "</h3>\n");
                titled = true;
                group.add(finding);
            });
            group.end();
        }
    }
    if (all == 0) page.put("<p>There is none.</p>\n");
    if (all > listed) {
        page.put("<p>And " + number(all - listed) + " more, which would make this page too large; <code>" +
                 (page.isAudit() ? "audit --all" : "plan -v") + "</code> lists all.</p>\n");
    }
    page.close();
}

} /* namespace companion */
