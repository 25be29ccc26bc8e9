/* SPDX-License-Identifier: GPL-2.0-or-later */
/* What the sections of a report are made with. Private to the report. */
#ifndef QUILLET_COMPANION_REPORT_PARTS_H
#define QUILLET_COMPANION_REPORT_PARTS_H

#include <cstdio>
#include <string>

#include "companion/results/results.h"

namespace companion {

struct PageWriter {
    Results& results;
    FILE* const out;

    const Counts& counts() const { return *results.counts; }
    bool isRun() const { return results.command == "run" || results.command == "clone"; }
    bool isAudit() const { return results.command == "audit"; }

    void put(const std::string& html) const { fwrite(html.data(), 1, html.size(), out); }

    /* A section; the title and the note are HTML. */
    void open(const char* title, const std::string& note = {}) const;
    void close() const { put("</section>\n"); }
};

/* "12,345" */
std::string number(uint64_t value);

/* "3 files" */
std::string counted(uint64_t value, const char* one, const char* many);

/* The last beginning of a character of UTF-8 at or before an offset. */
size_t characterAt(const std::string& text, size_t at);

/* The section that counts by kind and by place, with a bar for each. */
void writeReportBars(const PageWriter& page);

/* The section with every place, in groups that lie together. */
void writeReportPlaces(const PageWriter& page);

} /* namespace companion */

#endif
