/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Links that live in memory. */
#ifndef QUILLET_OFFLINE_REGISTRY_LINKS_H
#define QUILLET_OFFLINE_REGISTRY_LINKS_H

#include "platform/offline/registry/namespace.h"

namespace offline {

bool isMemoryLink(const KeyRef& ref);

/* Takes this link in memory out of the tree. */
void removeLink(const KeyRef& ref);

/* Gives back the cells of a link that hangs nowhere any more. */
void deleteLinkKey(Cell link);

} /* namespace offline */

#endif
