/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The installation is opened when the first call needs it, so that what needs none (help, option errors)
 * never touches a disk. The calls of the rooms above the system room ask here; the system room says what
 * opening means. */
#ifndef QUILLET_OFFLINE_BASE_SYSTEM_NEEDED_H
#define QUILLET_OFFLINE_BASE_SYSTEM_NEEDED_H

#include "platform/nt.h"

namespace offline {

/* Set once by the start-up (or a test): opens the installation and gives its status. */
void setSystemOpener(NTSTATUS (*opener)());

/* Opens the installation at the first call; every later call gives the same status. Without an opener:
 * success. */
NTSTATUS systemNeeded();

/* Forgets the outcome, so that the next call opens again. For the end of a run, and for tests. */
void systemForget();

} /* namespace offline */

#endif
