/* SPDX-License-Identifier: GPL-2.0-or-later */
/* What an audit found, in words: for a person, and the names of the same things for programs. */
#ifndef QUILLET_COMPANION_AUDIT_WORDS_H
#define QUILLET_COMPANION_AUDIT_WORDS_H

#include "companion/audit/audit.h"
#include "companion/results/results.h"

namespace companion {

struct Words {
    const char* label; /* for a person */
    const char* name;  /* in JSON */
    const char* one;   /* of one finding */
};
const Words& wordsOf(Kind kind);
const Words& wordsOf(Left left);

/* Why the SID is left there, and whether that matters: whole sentences. */
const char* whyLeft(Left left);
const char* whetherItMatters(Left left);

uint64_t sum(const std::array<uint64_t, kindCount>& counts);

/* "1 place", "3,216 places" */
std::string placesText(uint64_t number);

/* A line for one finding, without a newline, after what becomes of it. */
std::string findingLine(const Finding& finding, const char* state);

/* How many of each kind there are, why some stay, and which other machines' SIDs there are. Under the title
 * for those that are treated: what was changed, and in a column of its own what remains of them; or, without
 * a title for the latter, what a run would find. */
struct Titles {
    const char *changed, *remaining;
};
void printCounts(const Counts& counts, const OtherSids& others, Titles titles);

} /* namespace companion */

#endif
