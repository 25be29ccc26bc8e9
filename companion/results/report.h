/* SPDX-License-Identifier: GPL-2.0-or-later */
/* A report: one page of HTML that stands for itself, readable without scripts, in the dark and on paper. */
#ifndef QUILLET_COMPANION_REPORT_H
#define QUILLET_COMPANION_REPORT_H

#include <cstdio>
#include <string>

#include "companion/results/results.h"

namespace companion {

/* Writes the page piece by piece. Needs counts and places. Whether all could be written is the stream's to
 * say. May throw Failure when the places can't be read. */
void writeReport(Results& results, int exitStatus, FILE* stream);

/* Text from wherever as text of the page: nothing in it is markup, a control character, or turns the
 * direction of writing; what is longer than anybody reads is shortened in the middle, and says so. */
std::string htmlText(const std::string& text);

} /* namespace companion */

#endif
