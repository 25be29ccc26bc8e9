/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The SIDs of machines and domains, whichever, in bytes and in text: what is left of an earlier identity. */
#ifndef QUILLET_COMPANION_OTHER_SIDS_H
#define QUILLET_COMPANION_OTHER_SIDS_H

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "platform/offline/base/bytes.h"

namespace companion {

/* x, y and z of S-1-5-21-x-y-z. */
using MachineId = std::array<uint32_t, 3>;
using MachineIds = std::vector<MachineId>;

/* Every one that the bytes hold at any place, as a SID, whole and valid, or as UTF-16 text; each once. An
 * account's counts as its machine's. S-1-5-21-0-0-0 is no machine's. */
MachineIds machineIdsIn(offline::Bytes data);

MachineId machineIdOf(offline::Bytes machineSid);
std::string machineIdText(const MachineId& id);

/* How many places hold each; at most as many different ones as below, for a disk could make up any number. */
constexpr size_t mostOtherSids = 4096;
struct OtherSids {
    std::map<MachineId, uint64_t> places = {};
    uint64_t more = 0; /* places of SIDs that there was no room for */

    void add(const MachineId& id);
    std::vector<std::pair<std::string, uint64_t>> byPlaces() const; /* as texts, the most first */
};

} /* namespace companion */

#endif
