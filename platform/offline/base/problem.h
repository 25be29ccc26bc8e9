/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Why something can't be done, for the person who asked for it. */
#ifndef QUILLET_OFFLINE_BASE_PROBLEM_H
#define QUILLET_OFFLINE_BASE_PROBLEM_H

#include <string>

#include "platform/nt.h"

namespace offline {

struct Problem {
    NTSTATUS status = STATUS_SUCCESS;
    std::string
        text; /* one line in UTF-8 that names the object and says what to do, without a final newline */
};

/* Fills the problem and gives its status back, so that a refusal is one statement. */
inline NTSTATUS refuse(Problem& problem, NTSTATUS status, std::string text) {
    problem.status = status;
    problem.text = std::move(text);
    return status;
}

} /* namespace offline */

#endif
