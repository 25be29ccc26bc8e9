/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Open keys. All handles on one key share a key object, so that deleting the key ends them all, even when its
 * cell is soon another key's. Each handle carries the rights that were granted when it was opened. */
#ifndef QUILLET_OFFLINE_REGISTRY_OPEN_KEYS_H
#define QUILLET_OFFLINE_REGISTRY_OPEN_KEYS_H

#include "platform/nt.h"
#include "platform/offline/registry/namespace.h"

namespace offline {

/* A new handle on the key. STATUS_NO_MEMORY leaves nothing open. */
NTSTATUS openHandle(const KeyRef& ref, ACCESS_MASK granted, HANDLE& handle);

/* The key of a handle that is to be used with these rights: STATUS_INVALID_HANDLE, STATUS_ACCESS_DENIED
 * when the handle lacks one of them, STATUS_KEY_DELETED. */
NTSTATUS useKey(HANDLE handle, ACCESS_MASK needed, KeyRef& ref);

/* The same for the Win32 calls, which take predefined handles too: those are good for what the key's
 * descriptor lets the token do. */
NTSTATUS useRegKey(HKEY key, ACCESS_MASK needed, KeyRef& ref);

bool isOpen(const KeyRef& ref);

/* Every handle on the key answers STATUS_KEY_DELETED from now on. */
void markDeleted(const KeyRef& ref);

/* The same for every open key; their mounts are about to go. */
void forgetOpenKeys();

} /* namespace offline */

#endif
