/* SPDX-License-Identifier: GPL-2.0-or-later */
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

/* Saves every hive that has changed; all are tried. The problem names those that could not be written. */
NTSTATUS machineHivesSave(Problem& problem);

/* Whether it is the SID of an account whose hive a running system always has open: it is mounted with the
 * machine's, and one that is there but can't be read refuses the installation. */
bool isServiceAccount(std::u16string_view sid);

} /* namespace offline */

#endif
