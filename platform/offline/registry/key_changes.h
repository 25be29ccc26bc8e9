/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Changing keys, as the native and the Win32 calls do it. */
#ifndef QUILLET_OFFLINE_REGISTRY_KEY_CHANGES_H
#define QUILLET_OFFLINE_REGISTRY_KEY_CHANGES_H

#include <cstddef>
#include <string_view>

#include "platform/nt.h"
#include "platform/offline/registry/namespace.h"

namespace offline {

/* Sets or creates a value; size in bytes. STATUS_ACCESS_DENIED on a link key for anything but its target. */
NTSTATUS setValue(const KeyRef& key, std::u16string_view name, ULONG type, const void* data, size_t size);

/* STATUS_OBJECT_NAME_NOT_FOUND when there is none; STATUS_ACCESS_DENIED on a link key. */
NTSTATUS deleteValue(const KeyRef& key, std::u16string_view name);

} /* namespace offline */

#endif
