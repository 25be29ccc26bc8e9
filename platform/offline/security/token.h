/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The token's contents, for this room alone. */
#ifndef QUILLET_OFFLINE_SECURITY_TOKEN_H
#define QUILLET_OFFLINE_SECURITY_TOKEN_H

#include <span>

#include "platform/offline/base/bytes.h"
#include "platform/offline/security/security.h"

namespace offline {

struct Token {
    Bytes user;
    Bytes owner;        /* of what it creates */
    Bytes primaryGroup; /* of what it creates */
    std::span<const Bytes> groups;
};

const Token& currentToken();

/* Whether the SID is the token's user or one of its groups. */
bool tokenHas(Bytes sid);

/* Whether the token may make this SID an owner: its user, or a group that may own. */
bool tokenMayOwn(Bytes sid);

/* Privileges are numbered from 2 to 35; a number outside is one that no token has. */
constexpr uint32_t firstPrivilege = 2;
constexpr uint32_t lastPrivilege = 35;
bool privilegeHeld(uint32_t luid);
void enablePrivilege(uint32_t luid, bool enabled); /* of one that is held */

} /* namespace offline */

#endif
