/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The last error of the session's one thread. */
#include "platform/offline/base/session.h"

DWORD GetLastError() {
    return offline::session().lastError;
}

VOID SetLastError(DWORD code) {
    offline::session().lastError = code;
}
