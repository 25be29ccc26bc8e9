/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/base/system_needed.h"

#include "platform/offline/base/guarded.h"
#include "platform/offline/base/session.h"

namespace offline {

void setSystemOpener(NTSTATUS (*opener)()) {
    session().systemOpener = opener;
    session().systemAsked = false;
}

NTSTATUS systemNeeded() {
    Session& current = session();
    if (!current.systemAsked) {
        current.systemAsked = true;
        current.systemStatus =
            current.systemOpener == nullptr ? STATUS_SUCCESS : guarded(current.systemOpener);
    }
    return current.systemStatus;
}

void systemForget() {
    session().systemAsked = false;
}

} /* namespace offline */
