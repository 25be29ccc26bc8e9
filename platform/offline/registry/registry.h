/* The key namespace over mounted hives: \Registry\Machine\SAM and its neighbours. The platform's registry calls
 * (platform/nt.h) are answered in this room. No function throws. */
#ifndef QUILLET_OFFLINE_REGISTRY_REGISTRY_H
#define QUILLET_OFFLINE_REGISTRY_REGISTRY_H

#include <memory>
#include <string>
#include <string_view>

#include "platform/nt.h"
#include "platform/offline/hive/hive.h"

namespace offline {

/* \Registry, \Registry\Machine and \Registry\User live in memory and hold the mount points, in folded order. Their
 * descriptors let everyone read and the system and administrators do everything. */

/* Mounts a hive at a path such as "\Registry\Machine\SAM", of which all but the last component is one of the keys in
 * memory. The store, which may be null for a hive that is never saved, belongs to the registry from then on.
 * STATUS_OBJECT_NAME_COLLISION when the name is taken. */
NTSTATUS registryMount(std::u16string_view path, HivePtr hive, std::unique_ptr<HiveStore> store);

/* Makes a symbolic link that lives in memory and is never stored: at a path below a mounted hive or a key in memory,
 * to a target such as "\Registry\Machine\SYSTEM\ControlSet001". It is enumerated among the stored children of its
 * parent and hides a stored child of its own name. */
NTSTATUS registryAddLink(std::u16string_view path, std::u16string_view target);

/* Saves every hive that has changed. All are tried; the first failure is the result. */
NTSTATUS registrySaveAll();

/* Forgets every mount, link and open key, unsaved changes too. Open handles answer STATUS_KEY_DELETED from then on. */
void registryReset();

/* How RegLoadKeyW gets at a file: its Windows path ("C:\Users\x\ntuser.dat", "\\?\C:\…") to a validated hive and the
 * store that saves it. Set by the system room; without one RegLoadKeyW finds no file. */
using HiveLoader = NTSTATUS (*)(std::u16string_view file, HivePtr& hive, std::unique_ptr<HiveStore>& store);
void registrySetLoader(HiveLoader loader);

} /* namespace offline */

#endif
