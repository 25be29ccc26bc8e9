/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Well-known SIDs as bytes. */
#ifndef QUILLET_OFFLINE_DESCRIPTOR_WELL_KNOWN_SIDS_H
#define QUILLET_OFFLINE_DESCRIPTOR_WELL_KNOWN_SIDS_H

#include <array>
#include <cstddef>
#include <cstdint>

namespace offline {

/* S-1-authority-subAuthorities… */
template <typename... SubAuthority>
constexpr std::array<uint8_t, 8 + 4 * sizeof...(SubAuthority)> makeSid(uint8_t authority,
                                                                       SubAuthority... subAuthorities) {
    std::array<uint8_t, 8 + 4 * sizeof...(SubAuthority)> sid = {
        1, sizeof...(SubAuthority), 0, 0, 0, 0, 0, authority};
    size_t at = 8;
    for (const uint32_t value : {static_cast<uint32_t>(subAuthorities)...}) {
        for (int shift = 0; shift < 32; shift += 8) sid[at++] = static_cast<uint8_t>(value >> shift);
    }
    return sid;
}

constexpr auto everyoneSid = makeSid(1, 0);
constexpr auto creatorOwnerSid = makeSid(3, 0);
constexpr auto creatorGroupSid = makeSid(3, 1);
constexpr auto ownerRightsSid = makeSid(3, 4);
constexpr auto interactiveSid = makeSid(5, 4);
constexpr auto authenticatedUsersSid = makeSid(5, 11);
constexpr auto systemSid = makeSid(5, 18);
constexpr auto administratorsSid = makeSid(5, 32, 544);
constexpr auto usersSid = makeSid(5, 32, 545);

} /* namespace offline */

#endif
