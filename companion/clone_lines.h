/* SPDX-License-Identifier: GPL-2.0-or-later */
/* What the run on a clone tells the program that makes the clone: lines on standard output, after quillet's.
 */
#ifndef QUILLET_COMPANION_CLONE_LINES_H
#define QUILLET_COMPANION_CLONE_LINES_H

#include <string>

#include "companion/results/results.h"

namespace companion {

/* Writes the run's status and its changes of names and ids. */
void printCloneLines(const Results& results);

/* Takes a line of the run, quillet's own among them. False for one that is neither of these nor has the SIDs.
 */
bool hearCloneLine(const std::string& line, CloneResult& clone);

} /* namespace companion */

#endif
