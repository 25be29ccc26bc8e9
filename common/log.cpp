#include "common/log.h"

ombraLogHook ombraLogger = nullptr;

void ombraSetLogger(ombraLogHook hook) {
    ombraLogger = hook;
}
