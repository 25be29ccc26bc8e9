/* What an audit found, in words: for a person, and the names of the same things for programs. */
#ifndef QUILLET_COMPANION_AUDIT_WORDS_H
#define QUILLET_COMPANION_AUDIT_WORDS_H

#include "companion/audit.h"

namespace companion {

struct Words {
    const char* label; /* for a person */
    const char* name;  /* in JSON */
    const char* one;   /* of one finding */
};
const Words& wordsOf(Kind kind);
const Words& wordsOf(Left left);

uint64_t sum(const std::array<uint64_t, kindCount>& counts);

/* A line for one finding, without a newline, after what is said of those that are treated, or that are not.
 */
std::string findingLine(const Finding& finding, const char* treated, const char* left);

/* How many of each kind there are, under these titles, and why some are left. */
void printCounts(const Audit& audit, const char* treated, const char* left);

} /* namespace companion */

#endif
