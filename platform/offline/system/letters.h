/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Drive letters, from the installation's own memory of them. No function throws. */
#ifndef QUILLET_OFFLINE_SYSTEM_LETTERS_H
#define QUILLET_OFFLINE_SYSTEM_LETTERS_H

#include "platform/offline/hive/hive.h"
#include "platform/offline/system/installation.h"

namespace offline {

/* Gives every volume its letter: the one that the SYSTEM hive's key "MountedDevices" has for it (MBR: disk
 * signature and start; GPT: "DMIO:ID:" and the partition's GUID), else the next free one from C, the system
 * volume's first. Refused only when there are more volumes than letters. */
NTSTATUS lettersAssign(const Hive& system, Installation& installation, Problem& problem);

} /* namespace offline */

#endif
