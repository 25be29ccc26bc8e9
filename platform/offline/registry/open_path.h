/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Opening keys by path, as the native and the Win32 calls do it. */
#ifndef QUILLET_OFFLINE_REGISTRY_OPEN_PATH_H
#define QUILLET_OFFLINE_REGISTRY_OPEN_PATH_H

#include <string_view>

#include "platform/nt.h"
#include "platform/offline/registry/namespace.h"

namespace offline {

/* Opens the key at a path below another. openLink: a link that is the last component is opened itself. May
 * throw std::bad_alloc. */
NTSTATUS openPath(const KeyRef& from, std::u16string_view path, bool openLink, ACCESS_MASK access,
                  HANDLE& handle);

} /* namespace offline */

#endif
