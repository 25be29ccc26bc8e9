#include "platform/offline/base/system_needed.h"

namespace offline {
namespace {

NTSTATUS (*systemOpener)() = nullptr;
bool opened = false;
NTSTATUS outcome = STATUS_SUCCESS;

} /* namespace */

void setSystemOpener(NTSTATUS (*opener)()) {
    systemOpener = opener;
    opened = false;
}

NTSTATUS systemNeeded() {
    if (!opened) {
        opened = true;
        outcome = systemOpener == nullptr ? STATUS_SUCCESS : systemOpener();
    }
    return outcome;
}

void systemForget() {
    opened = false;
}

} /* namespace offline */
