/* No exception leaves a room: a public function that allocates runs its body through here. */
#ifndef QUILLET_OFFLINE_BASE_GUARDED_H
#define QUILLET_OFFLINE_BASE_GUARDED_H

#include <new>
#include <stdexcept>

#include "platform/nt.h"

namespace offline {

/* The body's status; running out of memory becomes STATUS_NO_MEMORY. */
template <typename Body>
NTSTATUS guarded(Body body) noexcept {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return STATUS_NO_MEMORY;
    } catch (const std::length_error&) {
        return STATUS_NO_MEMORY;
    }
}

} /* namespace offline */

#endif
