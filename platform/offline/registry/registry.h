/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The key namespace over mounted hives: \Registry\Machine\SAM and its neighbours. The platform's registry
 * calls (platform/nt.h) are answered in this room. No function throws. */
#ifndef QUILLET_OFFLINE_REGISTRY_REGISTRY_H
#define QUILLET_OFFLINE_REGISTRY_REGISTRY_H

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/nt.h"
#include "platform/offline/hive/hive.h"

namespace offline {

/* \Registry, \Registry\Machine and \Registry\User live in memory and hold the mount points, in folded order.
 * Their descriptors let everyone read and the system and administrators do everything. Nothing is created
 * below them by a registry call; a hive is mounted there. */

/* Mounts a hive at a path such as "\Registry\Machine\SAM", of which all but the last component is one of the
 * keys in memory. The store, which may be null for a hive that is never saved, belongs to the registry from
 * then on, also when the mount fails. STATUS_OBJECT_NAME_COLLISION when the name is taken,
 * STATUS_OBJECT_NAME_NOT_FOUND when a component before the last is missing, STATUS_INVALID_PARAMETER when it
 * is no key in memory. */
NTSTATUS registryMount(std::u16string_view path, HivePtr hive, std::unique_ptr<HiveStore> store);

/* Creates a symbolic link that lives in memory and is never stored: at a path below a mounted hive or a key
 * in memory, to a target such as "\Registry\Machine\SYSTEM\ControlSet001", which need not be there. It is
 * enumerated among the stored children of its parent and hides a stored child of its own name. Its descriptor
 * is its parent's. It goes with the hive that it hangs in, or when it is deleted.
 * STATUS_OBJECT_NAME_COLLISION when a mount point or a link in memory has the name. */
NTSTATUS registryAddLink(std::u16string_view path, std::u16string_view target);

/* Saves every hive that has changed. All are tried; the first failure is the result, and failed has the
 * stores of all that could not be saved, the first one's first. */
NTSTATUS registrySaveAll(std::vector<const HiveStore*>& failed);

/* Forgets every mount, link and open key, unsaved changes too. Open handles answer STATUS_KEY_DELETED from
 * then on. */
void registryReset();

/* How RegLoadKeyW gets at a file: its Windows path ("C:\Users\x\ntuser.dat", "\\?\C:\…") to a validated hive
 * and the store that saves it. Set by the system room; without one RegLoadKeyW finds no file. */
using HiveLoader = NTSTATUS (*)(std::u16string_view file, HivePtr& hive, std::unique_ptr<HiveStore>& store);
void registrySetLoader(HiveLoader loader);

} /* namespace offline */

#endif
