/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The control sets of a SYSTEM hive. */
#ifndef QUILLET_OFFLINE_SYSTEM_CONTROL_SET_H
#define QUILLET_OFFLINE_SYSTEM_CONTROL_SET_H

#include "platform/offline/hive/hive.h"

namespace offline {

/* The number of the current control set, from the key "Select"; 0 when the hive does not say. */
uint32_t currentControlSet(const Hive& system);

} /* namespace offline */

#endif
