/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The token: who it is and which privileges it has. */
#include "platform/offline/security/token.h"

#include "platform/offline/descriptor/well_known_sids.h"
#include "platform/offline/security/security_state.h"

namespace offline {
namespace {

constexpr Bytes systemGroups[] = {administratorsSid, everyoneSid, authenticatedUsersSid};
constexpr Token systemToken = {systemSid, administratorsSid, systemSid, systemGroups};

/* The account of no machine, so that nothing of the installation is its own by chance. */
constexpr auto accountSid = makeSid(5, 21, 1, 2, 3, 500);
constexpr auto accountGroupSid = makeSid(5, 21, 1, 2, 3, 513);
constexpr Bytes accountGroups[] = {administratorsSid, usersSid, everyoneSid, authenticatedUsersSid,
                                   interactiveSid};
constexpr Token accountToken = {accountSid, administratorsSid, accountGroupSid, accountGroups};

TokenState& state() {
    return securityState().token;
}

bool known(uint32_t luid) {
    return luid >= firstPrivilege && luid <= lastPrivilege;
}

} /* namespace */

void setAccessMode(AccessMode mode) {
    state().mode = mode;
    state().reset();
}

AccessMode accessMode() {
    return state().mode;
}

const Token& currentToken() {
    return state().mode == AccessMode::unrefused ? systemToken : accountToken;
}

bool tokenHas(Bytes sid) {
    const Token& token = currentToken();
    if (sameBytes(sid, token.user)) return true;
    for (const Bytes group : token.groups) {
        if (sameBytes(sid, group)) return true;
    }
    return false;
}

bool tokenMayOwn(Bytes sid) {
    return sameBytes(sid, currentToken().user) || sameBytes(sid, administratorsSid);
}

bool privilegeHeld(uint32_t luid) {
    return known(luid) && state().held[luid];
}

bool privilegeEnabled(uint32_t luid) {
    return privilegeHeld(luid) && state().enabled[luid];
}

void enablePrivilege(uint32_t luid, bool enabled) {
    if (privilegeHeld(luid)) state().enabled[luid] = enabled;
}

void removePrivilege(uint32_t luid) {
    if (known(luid)) state().held[luid] = false;
}

} /* namespace offline */
