/* No exception leaves this room: a public function that allocates runs its body through here. */
#ifndef QUILLET_OFFLINE_REGISTRY_GUARD_H
#define QUILLET_OFFLINE_REGISTRY_GUARD_H

#include <new>
#include <stdexcept>

#include "platform/nt.h"

namespace offline {

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
