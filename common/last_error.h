/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The reason of a call that has failed and reports it through the last error. */
#ifndef QUILLET_COMMON_LAST_ERROR_H
#define QUILLET_COMMON_LAST_ERROR_H

#include "platform/nt.h"

/* The last error; ERROR_INTERNAL_ERROR where the failed call has left none, so that its failure can't be
 * taken for a success. Never 0. */
inline DWORD ombraLastError() {
    const DWORD error = GetLastError();
    return error != 0 ? error : DWORD{ERROR_INTERNAL_ERROR};
}

#endif
