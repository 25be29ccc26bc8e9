/* SPDX-License-Identifier: GPL-2.0-or-later */
#include <algorithm>
#include <array>

#include "companion/audit/audit_words.h"
#include "companion/results/report.h"
#include "companion/results/report_parts.h"

namespace companion {
namespace {

constexpr size_t mostAreas = 12; /* that are not folded away */

std::string percent(uint64_t part, uint64_t whole) {
    if (part == 0 || whole == 0) return "0";
    const uint64_t tenths = std::max<uint64_t>(part * 1000 / whole, 6);
    return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10) + "%";
}

struct Bar {
    uint64_t before, after, left;
};

/* One bar: what holds the old SID, and what stays by design beside it. */
std::string barOf(const char* colour, uint64_t part, uint64_t left, uint64_t most, const char* at) {
    const std::string from = percent(part, most);
    return std::string("<rect class=\"") + colour + "\" width=\"" + from + "\" " + at +
           "/><rect class=\"s\" x=\"" + from + "\" width=\"" + percent(left, most) + "\" " + at + "/>";
}

std::string barRow(const std::string& name, bool mono, const Bar& bar, uint64_t most, bool two) {
    std::string row = std::string("<tr><td class=\"name") + (mono ? " mono" : "") + "\">" + htmlText(name) +
                      "</td><td class=\"bars\"><svg aria-hidden=\"true\">";
    row += barOf(two ? "b" : "a", bar.before, bar.left, most, two ? "height=\"8\"" : "y=\"3\" height=\"12\"");
    if (two) row += barOf("a", bar.after, bar.left, most, "y=\"10\" height=\"8\"");
    row += "</svg></td><td class=\"n\">" + number(bar.before) + "</td>";
    if (two) row += "<td class=\"n\">" + number(bar.after) + "</td>";
    return row + "<td class=\"n\">" + number(bar.left) + "</td></tr>\n";
}

std::string legend(const char* colour, const char* text) {
    return std::string("<span><svg aria-hidden=\"true\"><rect class=\"") + colour +
           "\" width=\"12\" height=\"12\" rx=\"2\"/></svg>" + text + "</span>";
}

} /* namespace */

void writeReportBars(const PageWriter& page) {
    const bool two = !page.isAudit();
    const bool after = page.isAudit() && !page.counts().before;
    page.open("By kind and by place", "Places that quillet treats and that hold the SID" +
                                          std::string(two ? ", before and after the run" : "") +
                                          "; and places that it leaves alone by design.");
    page.put("<p class=\"key\">" +
             (two ? legend("b", "before") + legend("a", "after") : legend("a", "holds the SID")) +
             legend("s", "stays by design") + "</p>\n");
    const std::string head = std::string("<th></th><th class=\"n\">") +
                             (two     ? "Before"
                              : after ? "Still old"
                                      : "Hold it") +
                             "</th>" + (two ? "<th class=\"n\">After</th>" : "") +
                             "<th class=\"n\">Stay</th></tr>\n";
    page.put("<div class=\"scroll\"><table><tr><th>Kind</th>" + head);
    const std::array<uint64_t, kindCount>& first =
        page.counts().before ? *page.counts().before : page.counts().remaining;
    uint64_t most = 0;
    for (size_t i = 0; i < kindCount; i++) most = std::max(most, first[i] + page.counts().left[i]);
    for (size_t i = 0; i < kindCount; i++) {
        page.put(barRow(wordsOf(static_cast<Kind>(i)).label, false,
                        {first[i], page.counts().remaining[i], page.counts().left[i]}, most, two));
    }
    page.put("</table></div>\n");
    std::vector<AreaCounts> areas = page.results.places->areas();
    std::stable_sort(areas.begin(), areas.end(), [](const AreaCounts& left, const AreaCounts& right) {
        return left.before + left.left > right.before + right.left;
    });
    uint64_t largest = 0;
    for (const AreaCounts& area : areas) largest = std::max(largest, area.before + area.left);
    const auto rows = [&](size_t from, size_t to) {
        page.put("<div class=\"scroll\"><table><tr><th>Place</th>" + head);
        for (size_t i = from; i < to; i++) {
            page.put(barRow(areas[i].name, true, {areas[i].before, areas[i].remaining, areas[i].left},
                            largest, two));
        }
        page.put("</table></div>\n");
    };
    page.put("<h3>By place</h3>\n");
    rows(0, std::min(areas.size(), mostAreas));
    if (areas.size() > mostAreas) {
        page.put("<details><summary>" + number(areas.size() - mostAreas) + " more</summary>\n");
        rows(mostAreas, areas.size());
        page.put("</details>\n");
    }
    page.close();
}

} /* namespace companion */
