/* SPDX-License-Identifier: GPL-2.0-or-later */
/* What a command found and did: filled by the command as it goes, told at its end, as far as it got, in
 * words, as JSON (docs/results.md) and as a report. */
#ifndef QUILLET_COMPANION_RESULTS_H
#define QUILLET_COMPANION_RESULTS_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "companion/audit/audit.h"
#include "companion/identity/identity.h"
#include "companion/results/places.h"
#include "companion/results/report_file.h"
#include "companion/results/tool_lines.h"
#include "companion/survey.h"

namespace companion {

/* Something that was measured. */
struct Timed {
    std::string name;
    uint64_t milliseconds = 0;
};

/* Measures from its beginning to its end. The list gets its entry at the beginning: an end must not need
 * memory. */
class Timer {
public:
    Timer(std::vector<Timed>& list, std::string name)
        : all(list), place(list.size()), begin(std::chrono::steady_clock::now()) {
        list.push_back({std::move(name)});
    }
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;
    ~Timer();

private:
    std::vector<Timed>& all;
    size_t place;
    std::chrono::steady_clock::time_point begin;
};

/* How many places of each kind; texts of the same are in audit_words.h. */
struct Counts {
    std::optional<std::array<uint64_t, kindCount>> before = {}; /* none: nobody looked then */
    std::array<uint64_t, kindCount> changed = {}, remaining = {}, left = {};
    std::array<uint64_t, leftCount> reasons = {};
};

enum class CommitState { unchanged, committed, withheld, failed };

struct Commit {
    CommitState state = CommitState::unchanged; /* there was nothing to commit */
    uint64_t bytes = 0, stretches = 0;
    std::string undoFile, takeBack; /* empty: there is none */
};

struct TakenBack {
    uint64_t bytes = 0, stretches = 0;
    std::string undoFile;              /* that was used up; empty: none */
    std::vector<std::string> journals; /* of runs that had been cut off */
};

/* One clone of a call, made or not. */
struct CloneResult {
    std::string file = {}, computerName = {}; /* the name is empty where it stays the golden image's */
    bool made = false;
    std::string oldSid = {}, newSid = {}; /* empty: its run had not come so far */
    uint64_t bytes = 0;                   /* of its file; 0 where it was not made */
    uint64_t milliseconds = 0;
    std::optional<int> runStatus = {}; /* none: its run was not begun, or was ended */
    std::vector<IdentityChange> identity = {};
    std::vector<PassedOver> passedOver = {};
    uint64_t passedOverMore = 0;
    Problems problems = {};
};

struct Cloned {
    std::string golden, format; /* its path, and what it is */
    std::vector<CloneResult> clones;
};

struct Results {
    bool json = false; /* whether they are wanted as JSON */
    std::string command;
    std::vector<std::string> images;
    std::chrono::system_clock::time_point started = std::chrono::system_clock::now();
    bool finished = false; /* the command came to its end; else what follows is as far as it got */
    bool asTool = false;   /* the exit status is the tool's, and ends like one */
    Problems problems;     /* each was or will be a line on standard error */
    Problems unseen;       /* the same for what the last audit could not look at */

    /* of audit, plan, run */
    std::string oldSid, newSid; /* empty: not known, or there is none */
    std::optional<Counts> counts;
    std::optional<OtherSids> others;
    std::unique_ptr<Places> places;     /* null: they are not wanted */
    bool listPlaces = false;            /* in JSON */
    std::unique_ptr<ReportFile> report; /* null: none is wanted */

    /* of plan, run */
    std::optional<int> runStatus;
    std::vector<PassedOver> passedOver;
    uint64_t passedOverMore = 0; /* that are not in the list for its length */
    std::vector<Explained> explained;
    std::vector<Timed> phases, steps;
    std::optional<Commit> commit;
    std::vector<IdentityChange> identity; /* names and ids beside the SID */

    std::optional<Sight> sight; /* of info */
    bool usable = false;
    std::optional<TakenBack> takenBack; /* of undo */
    std::optional<Cloned> cloned;       /* of clone */
};

/* Makes the file of a report, where a name is given, and sees to what it needs. Throws Failure. */
void wantReport(const std::string& file, Results& results);

/* Whether anything of them needs a person's eyes; docs/results.md says what does. */
bool needsAttention(const Results& results, int exitStatus);

/* Writes them as one JSON object of docs/quillet-results.schema.json to standard output. */
void printJson(Results& results, int exitStatus);

} /* namespace companion */

#endif
