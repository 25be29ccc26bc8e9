/* SPDX-License-Identifier: GPL-2.0-or-later */
/* A run of the tool inside this process: what lay on the disks before it, what it says, what lies there after
 * it. plan and run are both made of these. */
#ifndef QUILLET_COMPANION_TOOL_RUN_H
#define QUILLET_COMPANION_TOOL_RUN_H

#include <string>
#include <vector>

#include "companion/results/results.h"

namespace companion {

/* Opens the installation as the next run is going to do, audits it for the SID that its machine has, where
 * that is wanted, and closes it; nothing is changed. False when the system is refused, as
 * offline::systemProblem says; the results then have the status that this ends a run with. Throws Failure
 * when there is no SID. */
bool lookBefore(Results& results, bool audited);

/* Whether what the tool writes to standard output is shown, and whether the new SID is: a plan's is nobody's.
 */
struct ToolShown {
    bool output = true, newSid = true;
};

/* Calls the tool and gives what it returned; fills runStatus, the SIDs, steps, passedOver and explained. What
 * it says of a system that was refused is dropped: why stands in offline::systemProblem. */
int callTool(const std::vector<std::string>& options, ToolShown shown, Results& results);

/* Audits what the run left, and brings counts, others and places up to date. What can't be looked at is added
 * to the unseen. found is called with each place that still holds the SID although quillet treats it. */
void lookAfter(Opened& left, Results& results, const std::function<void(const Finding&)>& found = {});

/* The same for a run of which nothing was kept. */
void nothingChanged(Results& results);

/* Throws Failure where the tool's options hide the lines that results are made of. */
void refuseQuiet(const std::vector<std::string>& options, const char* why);

} /* namespace companion */

#endif
