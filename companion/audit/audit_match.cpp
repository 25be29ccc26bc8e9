/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "companion/audit/audit_match.h"

#include <cstring>

#include "companion/machine.h"
#include "platform/nt.h"
#include "platform/offline/base/unicode.h"
#include "platform/offline/descriptor/sid_format.h"

namespace companion {
namespace {

constexpr size_t countAt = 1;     /* a SID's number of sub-authorities */
constexpr size_t authorityAt = 2; /* from here on two SIDs of one machine are the same */
constexpr size_t subAuthoritiesAt = 8;
constexpr uint8_t machineCount = 4, mostSubAuthorities = 15;

size_t sizeOfSid(uint8_t count) {
    return subAuthoritiesAt + 4 * size_t{count};
}

offline::Bytes bytesOf(std::u16string_view text) {
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size() * sizeof(char16_t)};
}

/* The offset of the needle in data at or after an offset; data.size() when it is not there. */
size_t findBytes(offline::Bytes data, size_t from, offline::Bytes needle) {
    if (from >= data.size()) return data.size();  // empty data need not lie anywhere
    const void* found = memmem(data.data() + from, data.size() - from, needle.data(), needle.size());
    return found == nullptr ? data.size()
                            : static_cast<size_t>(static_cast<const uint8_t*>(found) - data.data());
}

/* ---- SIDs in bytes ---- */

/* Whether the SID at the head of the bytes is the machine's or an account's of it. */
bool beginsWithSid(const Wanted& wanted, offline::Bytes sid) {
    return sid.size() >= machineSidSize && sid[countAt] >= machineCount &&
           memcmp(&sid[authorityAt], &wanted.sid[authorityAt], machineSidSize - authorityAt) == 0;
}

/* Anywhere, whole and valid. */
bool holdsSid(const Wanted& wanted, offline::Bytes data) {
    const offline::Bytes needle = offline::Bytes(wanted.sid).subspan(authorityAt);
    for (size_t at = findBytes(data, authorityAt, needle); at < data.size();
         at = findBytes(data, at + 1, needle)) {
        const offline::Bytes sid = data.subspan(at - authorityAt);
        const uint8_t count = sid[countAt];
        if (sid[0] == 1 && count >= machineCount && count <= mostSubAuthorities &&
            sizeOfSid(count) <= sid.size()) {
            return true;
        }
    }
    return false;
}

/* ---- SIDs in UTF-16 text ---- */

bool isUnit(offline::Bytes text, size_t at, char16_t low, char16_t high) {
    if (at + sizeof(char16_t) > text.size()) return false;
    char16_t unit;
    memcpy(&unit, &text[at], sizeof unit);
    return unit >= low && unit <= high;
}

/* Anywhere, at any alignment, as long as the last number does not go on. */
bool holdsText(const Wanted& wanted, offline::Bytes data) {
    for (size_t at = findBytes(data, 0, wanted.textBytes); at < data.size();
         at = findBytes(data, at + 1, wanted.textBytes)) {
        if (!isUnit(data, at + wanted.textBytes.size(), u'0', u'9')) return true;
    }
    return false;
}

/* The whole text is the SID's, or goes on with "-" after it. */
bool beginsWithText(const Wanted& wanted, offline::Bytes text) {
    const size_t size = wanted.textBytes.size();
    return text.size() >= size && memcmp(text.data(), wanted.textBytes.data(), size) == 0 &&
           (text.size() == size || isUnit(text, size, u'-', u'-'));
}

void addString(const Wanted& wanted, offline::Bytes text, Match& match) {
    const bool begins = beginsWithText(wanted, text);
    if (begins) match.treated = true;
    if (holdsText(wanted, begins ? text.subspan(wanted.textBytes.size()) : text)) {
        match.left = Left::insideText;
    }
}

/* Strings with a terminator each, which the last may lack. */
void addStrings(const Wanted& wanted, offline::Bytes data, Match& match) {
    size_t start = 0;
    for (size_t at = 0; at + 1 < data.size(); at += 2) {
        if (data[at] != 0 || data[at + 1] != 0) continue;
        addString(wanted, data.subspan(start, at - start), match);
        start = at + 2;
    }
    addString(wanted, data.subspan(start), match);
}

/* ---- Parts of a descriptor ---- */

struct DescriptorLook {
    const Wanted& wanted;
    offline::Bytes image;
    Match match = {};
    bool sound = true;

    /* Bytes of the image; empty, and the image unsound, when they are not inside. */
    offline::Bytes part(size_t offset, size_t size) {
        if (offset <= image.size() && size <= image.size() - offset) return image.subspan(offset, size);
        sound = false;
        return {};
    }
    size_t number(size_t offset, size_t size) {
        size_t value = 0;
        const offline::Bytes bytes = part(offset, size);
        if (!bytes.empty()) memcpy(&value, bytes.data(), size);
        return value;
    }

    void lookAtSid(size_t offset) {
        if (offset == 0) return;
        const size_t count = number(offset + countAt, 1);
        const offline::Bytes sid = part(offset, subAuthoritiesAt + 4 * count);
        if (beginsWithSid(wanted, sid)) match.treated = true;
    }

    /* Of an entry: its type, its flags, its size, its mask; in the types 0 to 3 the SID is next. */
    void lookAtEntry(offline::Bytes entry) {
        constexpr size_t sidAt = 8;
        if (entry[0] > SYSTEM_ALARM_ACE_TYPE) {
            if (holdsSid(wanted, entry)) match.left = Left::otherEntry;
        } else if (entry.size() <= sidAt + countAt ||
                   entry.size() - sidAt < sizeOfSid(entry[sidAt + countAt])) {
            sound = false;
        } else if (beginsWithSid(wanted, entry.subspan(sidAt))) {
            match.treated = true;
        }
    }

    void lookAtList(size_t offset) {
        if (offset == 0) return;
        constexpr size_t headerSize = 8, entryHeaderSize = 4;
        size_t at = offset + headerSize;
        const size_t end = offset + number(offset + 2, 2);
        for (size_t left = number(offset + 4, 2); left > 0 && sound; left--) {
            const size_t size = number(at + 2, 2);
            const offline::Bytes entry = part(at, size);
            if (size < entryHeaderSize || at + size > end) sound = false;
            if (sound) lookAtEntry(entry);
            at += size;
        }
    }
};

} /* namespace */

Wanted wantedSid(std::vector<uint8_t> machineSid) {
    Wanted wanted{std::move(machineSid), {}, {}};
    wanted.text = offline::toUtf16(offline::sidToText(wanted.sid));
    const offline::Bytes bytes = bytesOf(wanted.text);
    wanted.textBytes.assign(bytes.begin(), bytes.end());
    return wanted;
}

std::optional<Match> matchDescriptor(const Wanted& wanted, offline::Bytes image) {
    constexpr size_t controlAt = 2, ownerAt = 4, groupAt = 8, saclAt = 12, daclAt = 16, headerSize = 20;
    DescriptorLook look{wanted, image};
    if (look.part(0, headerSize).empty() || image[0] != SECURITY_DESCRIPTOR_REVISION) return std::nullopt;
    const size_t control = look.number(controlAt, 2);
    look.lookAtSid(look.number(ownerAt, 4));
    look.lookAtSid(look.number(groupAt, 4));
    if ((control & SE_SACL_PRESENT) != 0) look.lookAtList(look.number(saclAt, 4));
    if ((control & SE_DACL_PRESENT) != 0) look.lookAtList(look.number(daclAt, 4));
    if (!look.sound) return std::nullopt;
    return look.match;
}

Match matchKeyName(const Wanted& wanted, std::u16string_view name, bool inTable) {
    if (!holdsText(wanted, bytesOf(name))) return {};
    if (!beginsWithText(wanted, bytesOf(name))) return {false, Left::insideText};
    return inTable ? Match{true, {}} : Match{false, Left::nameOutside};
}

Match matchValue(const Wanted& wanted, uint32_t type, offline::Bytes data, bool inTable) {
    Match match;
    const bool sid = holdsSid(wanted, data), text = holdsText(wanted, data);
    if (!sid && !text) return match;
    if (!inTable) {
        match.left = Left::valueOutside;
    } else if (type == REG_BINARY || type == REG_NONE) {
        match.treated = sid;
        if (text) match.left = Left::insideText;
    } else if (type == REG_SZ || type == REG_MULTI_SZ) {
        if (sid) match.left = Left::otherType;
        if (type == REG_SZ) addString(wanted, data, match);
        if (type == REG_MULTI_SZ) addStrings(wanted, data, match);
    } else {
        match.left = Left::otherType;
    }
    return match;
}

Match matchValueName(const Wanted& wanted, std::u16string_view name) {
    if (!holdsText(wanted, bytesOf(name))) return {};
    return {false, Left::valueName};
}

} /* namespace companion */
