/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "common/log.h"

ombraLogHook ombraLogger = nullptr;

void ombraSetLogger(ombraLogHook hook) {
    ombraLogger = hook;
}
