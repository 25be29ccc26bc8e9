/* SPDX-License-Identifier: GPL-2.0-or-later */
/* From statuses to last errors. */
#ifndef QUILLET_OFFLINE_BASE_STATUS_H
#define QUILLET_OFFLINE_BASE_STATUS_H

#include "platform/nt.h"

namespace offline {

/* The result of a Win32 call that answers with a boolean: on failure the status becomes the last error. */
inline BOOL booleanResult(NTSTATUS status) {
    if (status >= 0) return TRUE;
    SetLastError(RtlNtStatusToDosError(status));
    return FALSE;
}

} /* namespace offline */

#endif
