/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The places that an audit finds, kept in a nameless file, so that any number of them takes no memory, and
 * counted by where they are. */
#ifndef QUILLET_COMPANION_PLACES_H
#define QUILLET_COMPANION_PLACES_H

#include <cstdio>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "companion/audit/audit.h"

namespace companion {

/* What becomes of a place. */
enum class PlaceState { treated, remains, stays };

struct AreaCounts {
    std::string name; /* "C:\Users\", the path of a hive, or "elsewhere" */
    uint64_t before = 0, remaining = 0, left = 0;
};

class Places {
public:
    Places(); /* throws Failure where no such file can be made */
    ~Places();
    Places(const Places&) = delete;
    Places& operator=(const Places&) = delete;

    void add(const Finding& finding);

    /* One that is treated and was still found after the run; newSid is written as oldSid in its path. */
    void addRemaining(Finding finding, const std::string& oldSid, const std::string& newSid);

    /* All that is treated remains: the run was not committed. */
    void nothingChanged() { unchanged = true; }

    /* Visits each in the order in which they were found. Throws Failure when the file can't be read. */
    void visit(const std::function<void(const Finding&, PlaceState)>& visitor);

    std::vector<AreaCounts> areas() const;

private:
    void count(const Finding& finding, bool again);

    FILE* const file;
    bool unchanged = false;
    std::vector<uint64_t> remaining = {}; /* of their texts */
    std::map<std::string, AreaCounts> byArea = {};
};

/* Where it lies, in the large: "C:\Users\", or a hive. */
std::string areaOf(const Finding& finding);

} /* namespace companion */

#endif
