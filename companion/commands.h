/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The commands of the program, each in a file of its own. command_line.cpp declares their options and calls
 * them. Each gives the exit status and may throw Failure. What has results fills them as far as it comes;
 * with the option "json" it prints nothing to standard output, for they are going to be. */
#ifndef QUILLET_COMPANION_COMMANDS_H
#define QUILLET_COMPANION_COMMANDS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "companion/identity/identity.h"

namespace companion {

struct Results;

struct SampleOptions {
    std::string image;
    uint64_t size = 0; /* bytes; 0: as much as is needed */
    std::string table; /* "mbr", "gpt", or empty: none */
    bool force = false;
    size_t files = 400;      /* ordinary ones */
    size_t descriptors = 60; /* different ones among them */
    std::string machine;     /* a SID; empty: a random one */
};
int sample(const SampleOptions& options);

struct InfoOptions {
    std::vector<std::string> images;
    std::string format; /* of the images, as diskNames takes it; "": by their names */
    bool json = false;
};
int info(const InfoOptions& options, Results& results);

struct AuditOptions {
    std::vector<std::string> images; /* the last may be a SID */
    std::string format;
    std::string sid;
    bool all = false;
    bool json = false;
    std::string report; /* the file of a report; empty: none */
};
int audit(AuditOptions options, Results& results);

struct RunOptions {
    std::vector<std::string> images;
    std::string format;
    std::string undoFile; /* empty: beside the first image, under the next free name */
    bool noUndo = false;
    std::string commit = "success"; /* or "always" */
    bool verify = false;            /* audit what was committed */
    bool scratch = false;           /* the disks are: see disk_name.h */
    bool strict = false;            /* commit only when nothing was passed over */
    IdentityOptions identity;
    bool json = false;
    std::string report;                      /* the file of a report; empty: none */
    std::vector<std::string> quilletOptions; /* what stood after "--" */
};
int run(const RunOptions& options, Results& results);

struct PlanOptions {
    std::vector<std::string> images;
    std::string format;
    bool verbose = false; /* list every place */
    IdentityOptions identity;
    bool json = false;
    std::string report;                      /* the file of a report; empty: none */
    std::vector<std::string> quilletOptions; /* what stood after "--" */
};
int plan(const PlanOptions& options, Results& results);

struct CloneOptions {
    std::string golden;
    std::vector<std::string> clones;   /* files to be made */
    std::string format;                /* of the golden image */
    size_t jobs = 0;                   /* how many at a time; 0: one for each processor */
    bool verbose = false;              /* show what each run says on standard error */
    IdentityOptions identity;          /* the name may be a pattern with a number */
    std::optional<size_t> firstNumber; /* of that */
    bool json = false;
    std::vector<std::string> quilletOptions; /* what stood after "--" */
};
int clone(const CloneOptions& options, Results& results);

struct UndoOptions {
    std::vector<std::string> images;
    std::string format;
    std::string file; /* empty: the latest beside the images */
    bool json = false;
};
int undo(const UndoOptions& options, Results& results);

} /* namespace companion */

#endif
