/* The last error of the process's one thread. */
#include "platform/nt.h"

namespace {
DWORD lastError = 0;
}

DWORD GetLastError() {
    return lastError;
}

VOID SetLastError(DWORD code) {
    lastError = code;
}
