/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Everything of the platform that the system proper may use, and nothing else.
 *
 * On Windows: its own headers, and declarations of what they lack. Elsewhere: the same types, constants and
 * functions under the platform's names, with its widths and layouts, answered by platform/offline. */
#ifndef QUILLET_PLATFORM_NT_H
#define QUILLET_PLATFORM_NT_H

#ifdef _WIN32
#include "platform/nt_windows.h"
#else
#include "platform/nt_offline.h"
#endif

#include "platform/nt_native.h"

/* What both sides must agree on, on the one hand with the platform and on the other with each other. */
#include "platform/nt_layout.h"

#endif
