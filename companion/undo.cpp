/* SPDX-License-Identifier: GPL-2.0-or-later */
/* undo: takes the latest run on some disks back. */
#include <cstdio>

#include "companion/commands.h"
#include "companion/ending.h"
#include "companion/formatting.h"
#include "companion/opened.h"
#include "companion/results/results.h"
#include "platform/offline/base/ending_signals.h"
#include "platform/offline/base/unicode.h"
#include "platform/offline/system/run_disks.h"

namespace companion {
namespace {

constexpr int exitNothing = 1;

std::string namesOf(const std::vector<std::string>& images) {
    std::string names;
    for (const std::string& image : images) names += (names.empty() ? "" : ", ") + image;
    return offline::printable(names);
}

void printDone(const std::string& names, const offline::UndoReport& report) {
    for (const std::string& journal : report.recovery.takenBack) {
        printf("%s: a run was cut off while it was committed; it was taken back (%s)\n", names.c_str(),
               offline::printable(journal).c_str());
    }
    if (report.undoPath.empty()) return;
    printf("%s: the run was taken back, %s in %llu places; %s is used up\n", names.c_str(),
           sizeText(report.bytes).c_str(), static_cast<unsigned long long>(report.stretches),
           offline::printable(report.undoPath).c_str());
}

} /* namespace */

int undo(const UndoOptions& options, Results& results) {
    results.json = options.json;
    results.images = options.images;
    offline::endingSignalsSay("quillet-offline: ended by a signal; nothing was changed\n");
    offline::UndoReport report;
    offline::Problem problem;
    const std::vector<offline::DiskName> disks = namedDisks(options.images, options.format);
    const std::string names = namesOf(options.images);
    const std::string file = options.file.empty() ? "" : absolutePath(options.file);
    switch (offline::undoRun(disks, file, report, problem)) {
        case offline::UndoOutcome::done:
            results.takenBack =
                TakenBack{report.bytes, report.stretches, report.undoPath, report.recovery.takenBack};
            if (!options.json) printDone(names, report);
            results.finished = true;
            return exitDone;
        case offline::UndoOutcome::nothing:
            results.takenBack = TakenBack{};
            results.finished = true;
            if (options.json) return exitNothing;
            printf("%s: there is no undo file%s; nothing was changed\n", names.c_str(),
                   file.empty()
                       ? " beside it (that of a run on several disks lies beside the one that was named "
                         "first)"
                       : " of that name");
            return exitNothing;
        case offline::UndoOutcome::refused:
            break;
    }
    throw Failure{problem.text};
}

} /* namespace companion */
