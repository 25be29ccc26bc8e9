/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The children of a key that are not stored with it, and their order among those that are. */
#ifndef QUILLET_OFFLINE_REGISTRY_ATTACHED_H
#define QUILLET_OFFLINE_REGISTRY_ATTACHED_H

#include <cstdint>
#include <span>
#include <string_view>

#include "platform/nt.h"
#include "platform/offline/registry/namespace.h"

namespace offline {

/* What hangs below the key without being stored there, in folded order. */
std::span<const Attached> attachedBelow(const KeyRef& parent);

/* STATUS_OBJECT_NAME_NOT_FOUND when there is none of this name. */
NTSTATUS findAttached(const KeyRef& parent, std::u16string_view name, KeyRef& child);

/* Hangs a child below a key. The name must be free among the attached ones. May throw std::bad_alloc, and
 * then nothing has changed. */
void attach(const KeyRef& parent, std::u16string_view name, const KeyRef& child);

/* The child at an index among stored and attached ones; a stored child of an attached one's name is hidden.
 * When the child is a stored one, found is null and the index is made the one among all stored children. */
NTSTATUS childAmongAttached(const KeyRef& parent, uint32_t& index, const Attached*& found);

} /* namespace offline */

#endif
