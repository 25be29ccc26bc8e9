/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Private to this room. */
#ifndef QUILLET_OFFLINE_DEVICE_HOST_MOUNTS_H
#define QUILLET_OFFLINE_DEVICE_HOST_MOUNTS_H

#include <sys/stat.h>

namespace offline {

/* Whether the system's list of mounts names the file or device, by whatever path. */
bool isMounted(const struct stat& disk);

} /* namespace offline */

#endif
