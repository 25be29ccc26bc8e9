/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The identity of a machine: its SID, and the accounts below it. */
#ifndef QUILLET_COMPANION_MACHINE_H
#define QUILLET_COMPANION_MACHINE_H

#include <cstdint>
#include <string>
#include <vector>

#include "platform/offline/base/bytes.h"
#include "platform/offline/hive/hive.h"

namespace companion {

constexpr size_t machineSidSize = 24; /* bytes: S-1-5-21-x-y-z */

struct Machine {
    std::u16string sid; /* "S-1-5-21-x-y-z" */

    std::u16string account(uint32_t rid) const;
};

/* Whether the bytes are a SID S-1-5-21-x-y-z. */
bool isMachineSid(offline::Bytes sid);

/* A machine with a SID that no other has. Throws Failure when the kernel has no random bytes. */
Machine randomMachine();

/* The machine with this SID; throws Failure when the text is none of the form S-1-5-21-x-y-z. */
Machine machineFromText(const std::string& text);

/* The bytes of a SID's text that is known to be one. */
std::vector<uint8_t> sidBytes(std::u16string_view text);

/* The machine's SID as a SAM hive has it, as text. Empty when the hive does not say, and then why is one
 * clause about the hive. */
std::string samMachineSid(const offline::Hive& sam, std::string& why);

} /* namespace companion */

#endif
