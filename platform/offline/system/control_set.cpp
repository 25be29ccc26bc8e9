/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/system/control_set.h"

#include <cstring>

#include "platform/offline/hive/hive_paths.h"

namespace offline {

uint32_t currentControlSet(const Hive& system) {
    Cell key;
    HiveValue value;
    if (hiveFindPath(system, u"Select", key) < 0 || hiveFindValue(system, key, u"Current", value) < 0)
        return 0;
    uint8_t data[4];
    if (value.type != REG_DWORD || value.dataLength != sizeof data) return 0;
    hiveValueData(system, value, data);
    uint32_t number;
    memcpy(&number, data, sizeof number);
    return number <= 999 ? number : 0;
}

} /* namespace offline */
