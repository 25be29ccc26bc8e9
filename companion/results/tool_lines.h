/* SPDX-License-Identifier: GPL-2.0-or-later */
/* What the tool says on standard error, read once, here: which objects it passed over, and which lines are
 * harmless. Its texts are fixed (common/log.h, tool/log_sink.cpp). */
#ifndef QUILLET_COMPANION_TOOL_LINES_H
#define QUILLET_COMPANION_TOOL_LINES_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace companion {

/* What became of the object. */
enum class PassedOverAs {
    object,    /* it was left as it was, in whole or in part */
    tree,      /* and so was what is below it */
    profile,   /* the hive of a user */
    openToAll, /* its permissions were lost: it is open to everyone */
    notNamed   /* the line names no object */
};

struct PassedOver {
    PassedOverAs as = PassedOverAs::notNamed;
    std::string object;             /* UTF-8; empty where none is named */
    std::string level, call;        /* "ERROR" or "WARN", empty for lines without one; the call that failed */
    std::optional<uint32_t> code;   /* Win32's; none: no code is told */
    std::optional<uint32_t> native; /* the status that stands in the line in its place */
    std::string reason;             /* in words */
    std::string line;               /* as it was written, without its newline */
};

/* A line that looks like trouble and is none. */
struct Explained {
    std::string line, words;
};

/* What a line of standard error tells; at most one of them is there. */
struct ToolLine {
    std::optional<std::string> problem; /* the line: it is of no object, such as "invalid option: -z" */
    std::optional<PassedOver> passedOver;
    std::optional<Explained> explained;
};
ToolLine readToolLine(std::string_view line);

/* Whether the last of a list is the same object for the same reason: one can be refused several times in a
 * row. */
bool isToldAgain(const std::vector<PassedOver>& list, const PassedOver& one);

/* "passedOver" and so on, in JSON; and a sentence for a person. */
const char* nameOf(PassedOverAs as);
const char* sentenceOf(PassedOverAs as);

} /* namespace companion */

#endif
