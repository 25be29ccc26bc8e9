/* The registry of an installation: which hive file is mounted where. No function throws. */
#ifndef QUILLET_OFFLINE_SYSTEM_MACHINE_HIVES_H
#define QUILLET_OFFLINE_SYSTEM_MACHINE_HIVES_H

#include <string>
#include <string_view>

#include "platform/offline/hive/hive.h"
#include "platform/offline/system/installation.h"

namespace offline {

/* Reads, validates and mounts the machine's hives, gives the volumes their letters, and makes the links that
 * a running system has (the current control set, the SAM below SECURITY). A hive that is missing or damaged,
 * or dirty beyond what its logs mend, is refused. */
NTSTATUS machineHivesMount(Installation& installation, Problem& problem);

/* Saves what has changed. */
NTSTATUS machineHivesSave(const Installation& installation, Problem& problem);

/* The number of the current control set, from the key "Select"; 0 when the hive does not say. */
uint32_t currentControlSet(const Hive& system);

/* A value's text without its terminators; empty when there is no such key or value, or it is no text. path is
 * below the hive's root. */
std::u16string hiveText(const Hive& hive, std::u16string_view path, std::u16string_view name);
std::u16string hiveValueText(const Hive& hive, const HiveValue& value);

/* Whether it is the SID of an account whose hive a running system always has open: it is mounted with the
 * machine's, and one that is there but can't be read refuses the installation. */
bool isServiceAccount(std::u16string_view sid);

/* The key at a path below the hive's root, components between backslashes, no links. */
NTSTATUS hiveFindPath(const Hive& hive, std::u16string_view path, Cell& key);

} /* namespace offline */

#endif
