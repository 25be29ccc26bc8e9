/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Hives in the tree. */
#ifndef QUILLET_OFFLINE_REGISTRY_HIVE_MOUNTS_H
#define QUILLET_OFFLINE_REGISTRY_HIVE_MOUNTS_H

#include <memory>

#include "platform/nt.h"
#include "platform/offline/registry/namespace.h"

namespace offline {

/* Hangs a hive below a key in memory, under its own name. STATUS_OBJECT_NAME_COLLISION when that is taken;
 * the mount is gone then. May throw std::bad_alloc. */
NTSTATUS addMount(const KeyRef& parent, std::unique_ptr<Mount> mount);

/* Whether the key's hive may be changed: STATUS_MEDIA_WRITE_PROTECTED where its file can only be read. */
NTSTATUS beginChange(const KeyRef& ref);

/* Writes the mount's changes back; nothing to do for one that is never saved. */
NTSTATUS saveMount(Mount& mount);

/* Takes a mount and the links in it away, unsaved. No key of it may be open. */
void removeMount(Mount* mount);

} /* namespace offline */

#endif
