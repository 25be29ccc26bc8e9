/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The one border for exceptions: what the standard library throws is caught here and nowhere else. No
 * exception leaves a room: a public function that allocates runs its body through one of these. */
#ifndef QUILLET_OFFLINE_BASE_GUARDED_H
#define QUILLET_OFFLINE_BASE_GUARDED_H

#include <new>
#include <stdexcept>

#include "platform/nt.h"
#include "platform/offline/base/problem.h"
#include "platform/offline/base/session.h"

namespace offline {

/* Whoever walks passes a call over that failed, so that the session keeps in mind that one did. */
inline NTSTATUS memoryRanOut() {
    if (currentSession != nullptr) currentSession->memoryRanOut = true;
    return STATUS_NO_MEMORY;
}

/* The body's status; running out of memory becomes STATUS_NO_MEMORY. */
template <typename Body>
NTSTATUS guarded(Body body) noexcept {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return memoryRanOut();
    } catch (const std::length_error&) {
        return memoryRanOut();
    }
}

/* The body's value; the other one when memory runs out. */
template <typename Value, typename Body>
Value guardedOr(Value other, Body body) noexcept {
    static_cast<void>(guarded([&]() -> NTSTATUS {
        other = body();
        return STATUS_SUCCESS;
    }));
    return other;
}

/* The body's status, where a problem says what was refused: it says so of memory, too, unless the body has
 * said it better. */
template <typename Body>
NTSTATUS guardedRefusing(Problem& problem, Body body) noexcept {
    const NTSTATUS status = guarded(body);
    if (status != STATUS_NO_MEMORY || problem.status == status) return status;
    return guarded([&] { return refuse(problem, status, "out of memory"); });
}

} /* namespace offline */

#endif
