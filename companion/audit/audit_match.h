/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Whether a machine's SIDs stand in a descriptor, a name or a value, and whether quillet would rewrite them
 * there. The rules are written down here a second time, on their own, so that they can contradict it. */
#ifndef QUILLET_COMPANION_AUDIT_MATCH_H
#define QUILLET_COMPANION_AUDIT_MATCH_H

#include "platform/offline/base/bytes.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace companion {

/* Every SID that begins with a machine's. */
struct Wanted {
    std::vector<uint8_t> sid;       /* machineSidSize bytes */
    std::u16string text;            /* "S-1-5-21-x-y-z" */
    std::vector<uint8_t> textBytes; /* the same, as it lies in a value */
};

Wanted wantedSid(std::vector<uint8_t> machineSid);

/* Why a SID is left where it stands. */
enum class Left { otherEntry, nameOutside, valueOutside, otherType, insideText, valueName };
constexpr size_t leftCount = 6;

/* One finding can hold SIDs of both sorts. */
struct Match {
    bool treated = false;
    std::optional<Left> left = {};
};

/* A self-relative descriptor. Nothing when it is not one by every bound. */
std::optional<Match> matchDescriptor(const Wanted& wanted, offline::Bytes image);

/* The name of a key; inTable: it lies below a tree whose names are rewritten. */
Match matchKeyName(const Wanted& wanted, std::u16string_view name, bool inTable);

/* The data of a value; inTable: values of its name are rewritten where it lies. */
Match matchValue(const Wanted& wanted, uint32_t type, offline::Bytes data, bool inTable);

/* The name of a value, which is never rewritten. */
Match matchValueName(const Wanted& wanted, std::u16string_view name);

} /* namespace companion */

#endif
