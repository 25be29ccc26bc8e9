/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The environment strings of an installation, as its system account would see them. No function throws. */
#ifndef QUILLET_OFFLINE_SYSTEM_ENVIRONMENT_H
#define QUILLET_OFFLINE_SYSTEM_ENVIRONMENT_H

#include "platform/offline/hive/hive.h"

namespace offline {

/* Makes the strings anew: %SystemDrive% and %SystemRoot% from where Windows lies, the others from its
 * registry. directory is Windows' directory on its volume. */
NTSTATUS environmentLoad(const Hive& system, const Hive& software, char letter,
                         std::u16string_view directory);

/* Replaces every %NAME% that is known by its string. A text that would become longer than the platform's
 * 32,767 characters stays as it is. May throw std::bad_alloc. */
std::u16string environmentExpand(std::u16string_view text);

void environmentReset();

} /* namespace offline */

#endif
