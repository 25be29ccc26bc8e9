/* SPDX-License-Identifier: GPL-2.0-or-later */
/* What must hold in an opened hive before anything else reads it. */
#ifndef QUILLET_OFFLINE_HIVE_VALIDATE_H
#define QUILLET_OFFLINE_HIVE_VALIDATE_H

#include "platform/offline/base/problem.h"
#include "platform/offline/hive/image.h"

namespace offline {

/* Goes through all bins and cells and then through everything that can be reached from the root; fills the
 * hive's indexes of cells, keys and descriptors. Afterwards it holds that
 * - cells tile the bins;
 * - every cell in use by a key, value, list or data is allocated, large enough and used once;
 * - every key names its parent and a descriptor of the one ring, every list is sorted without doubles and its
 * hashes are right, and no key lies deeper than deepestKey;
 * - the descriptors' counts are exact: they are counted here, as the platform does when it loads a hive.
 * Needs binsSize, minor and root. STATUS_REGISTRY_CORRUPT with the first fault; throws std::bad_alloc. */
NTSTATUS validate(Hive& hive, Problem& problem);

} /* namespace offline */

#endif
