/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The platform's calls as a test sees and steers them, the log, and memory that runs out. */
#ifndef QUILLET_TESTS_SUPPORT_WATCHED_H
#define QUILLET_TESTS_SUPPORT_WATCHED_H

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "platform/nt.h"

using ByteVector = std::vector<uint8_t>;
using Events = std::vector<std::string>;
using Legend = std::vector<std::pair<std::string, std::string>>;

/* A call that fails: on this key (by its name; an open counts as a call on the key that it names), path or
 * privilege ("": on any), after so many that succeed, so many times. */
struct Fault {
    std::string call;
    std::string on = {};
    LONG code = 0;
    int after = 0;
    int times = 1 << 30;
};
constexpr LONG silently = -1; /* as a code of calls that leave a last error: they leave none */

/* The calls by their names: what answers them in the platform's place, and the platform's own. */
struct Answers {
#define CODE(result, name, parameters, arguments) std::function<decltype(::name)> name;
#define FLAG CODE
#define OTHER CODE
#include "tests/support/calls.h"
};

/* How a test steers the calls; it begins with none of this. */
extern std::vector<Fault> faults;
extern Answers answer;
extern const Answers platform;
extern int allocationsLeft; /* of the system proper's; below 0: without an end */

/* What happened: how often each call was made, and what was noted in order, log lines among it, as "LEVEL
 * function: text". */
extern std::map<std::string, int> callsMade;
extern Events events;
void note(const char* format, ...);
std::string text(const char* format, ...); /* with the log hook's directives */

/* The events on one line, separated by ", ", with these texts replaced by others, in this order. */
std::string shortened(const Legend& legend, const Events& all = events);

size_t openHandles(); /* keys, tokens, searches and volumes */

/* As before any steering, with the log recorded; and without. */
void beginWatching();
void endWatching();

#endif
