/* SPDX-License-Identifier: GPL-2.0-or-later */
/* What the registry knows between calls, as a part of the session. Private to this room. */
#ifndef QUILLET_OFFLINE_REGISTRY_REGISTRY_STATE_H
#define QUILLET_OFFLINE_REGISTRY_REGISTRY_STATE_H

#include <array>
#include <cstdint>
#include <vector>

#include "platform/offline/base/session.h"
#include "platform/offline/registry/namespace.h"
#include "platform/offline/registry/registry.h"

namespace offline {

struct OpenKey; /* open_keys.cpp */

struct RegistryState {
    Namespace tree;
    std::array<OpenKey*, 4096> openKeys =
        {}; /* the keys that are open and not deleted, in chains by KeyRef */
    HiveLoader hiveLoader = nullptr;

    /* Kept from call to call: a sweep asks for every key's descriptor, and names of values are too large for
     * the stack of every call. */
    std::vector<uint8_t> descriptor;
    std::array<char16_t, longestValueName> valueName;
};

inline RegistryState& registryState() {
    return roomState<RegistryState>(StatefulRoom::registry);
}

} /* namespace offline */

#endif
