/* SPDX-License-Identifier: GPL-2.0-or-later */
/* SIDs as bytes and as text. */
#ifndef QUILLET_OFFLINE_DESCRIPTOR_SID_FORMAT_H
#define QUILLET_OFFLINE_DESCRIPTOR_SID_FORMAT_H

#include "platform/offline/base/bytes.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace offline {

/* Revision, number of sub-authorities, authority (6 bytes, the highest first), sub-authorities (4 bytes
 * each). */
constexpr uint8_t sidRevision = 1;
constexpr size_t sidHead = 8; /* bytes */
constexpr size_t mostSubAuthorities = 15;
constexpr size_t longestSid = sidHead + mostSubAuthorities * 4; /* bytes */

/* Bytes of the SID at the head of the span; 0 when it is not whole or not valid (revision 1, at most 15
 * sub-authorities). */
size_t sidLength(Bytes sid);

/* "S-1-", an authority of at most 14 characters, and "-4294967295" for each sub-authority. */
constexpr size_t longestSidText = 4 + 14 + mostSubAuthorities * 11;
struct SidText {
    char characters[longestSidText + 1]; /* ended by 0 */
};

/* The text of the SID at the head of the span as the platform writes it: its length, 0 when it is no SID. */
size_t formatSid(Bytes sid, SidText& text);

/* "S-1-5-…"; empty when it is no SID. And back; empty when it is no SID's text. Both may throw
 * std::bad_alloc: what is no SID and what could not be held are two things. */
std::string sidToText(Bytes sid);
std::vector<uint8_t> sidFromText(const std::string& text);

} /* namespace offline */

#endif
