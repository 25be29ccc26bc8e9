/* SPDX-License-Identifier: GPL-2.0-or-later */
/* What the security room knows between calls, as a part of the session. Private to this room. */
#ifndef QUILLET_OFFLINE_SECURITY_SECURITY_STATE_H
#define QUILLET_OFFLINE_SECURITY_SECURITY_STATE_H

#include <bitset>
#include <cstddef>
#include <cstdint>

#include "platform/offline/base/session.h"
#include "platform/offline/security/security.h"
#include "platform/offline/security/token.h"

namespace offline {

/* Lets every path be traversed; the platform has it enabled in every token. */
constexpr uint32_t changeNotifyPrivilege = 23;

/* The token: whose it is, and its privileges by LUID. */
struct TokenState {
    AccessMode mode = AccessMode::unrefused;
    std::bitset<lastPrivilege + 1> held;
    std::bitset<lastPrivilege + 1> enabled;
    TokenState() { reset(); }
    void reset() {
        held.set();
        enabled.reset();
        enabled.set(changeNotifyPrivilege);
    }
};

/* The walk of a caller who asks for one entry after the other, in either direction. The entry that was given
 * last is known by its address and by the sizes that led there; from it only the next or the one before is
 * taken, and only while the list's header and the sizes of both say the same as when they were walked over.
 * Everything else, the first question about a list included, is answered by walking from the list's start,
 * which asking for the list's size begins anew. What SIDs and masks were written in between does not matter,
 * and whatever was: what is given is a whole entry inside the list. */
struct EntryWalk {
    const ACL* list = nullptr;
    uint8_t head[sizeof(ACL)] = {};
    size_t index = 0;
    uint16_t offsets[UINT16_MAX / sizeof(ACE_HEADER)] = {}; /* of the entries up to and including this one */
};

struct SecurityState {
    TokenState token;
    EntryWalk entryWalk;
};

inline SecurityState& securityState() {
    return roomState<SecurityState>(StatefulRoom::security);
}

} /* namespace offline */

#endif
