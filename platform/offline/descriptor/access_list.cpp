/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/descriptor/access_list.h"

#include "platform/offline/descriptor/sid_format.h"

namespace offline {
namespace {

constexpr uint8_t lowestRevision = 2;
constexpr uint8_t highestRevision = 4;

/* Types 5 to 8, 11, 12, 15 and 16 carry flags after the mask and up to two types of objects before the SID.
 */
bool isObjectAce(uint8_t type) {
    return (type >= 5 && type <= 8) || type == 11 || type == 12 || type == 15 || type == 16;
}

/* The others up to 20 have the SID after the mask, but for type 4, which names two accounts. */
bool isPlainAce(uint8_t type) {
    return type <= 20 && type != 4 && !isObjectAce(type);
}

} /* namespace */

Bytes aclHead(Bytes span) {
    if (span.size() < sizeof(ACL)) return {};
    const uint8_t revision = span[offsetof(ACL, AclRevision)];
    const size_t size = numberAt<uint16_t>(span, offsetof(ACL, AclSize));
    if (revision < lowestRevision || revision > highestRevision) return {};
    if (size < sizeof(ACL) || size > span.size()) return {};
    return span.first(size);
}

bool aceValid(Bytes ace) {
    if (aceType(ace) > SYSTEM_ALARM_ACE_TYPE) return true;
    return !aceSid(ace).empty();
}

uint32_t aceObjectFlags(Bytes ace) {
    return isObjectAce(aceType(ace)) && ace.size() >= sidInAce + 4 ? numberAt<uint32_t>(ace, sidInAce) : 0;
}

Bytes aceSid(Bytes ace) {
    size_t offset = sidInAce;
    if (isObjectAce(aceType(ace))) {
        constexpr size_t typeSize = 16;
        const uint32_t flags = aceObjectFlags(ace);
        offset += 4;
        if ((flags & aceObjectType) != 0) offset += typeSize;
        if ((flags & aceInheritedObjectType) != 0) offset += typeSize;
    } else if (!isPlainAce(aceType(ace))) {
        return {};
    }
    if (ace.size() <= offset) return {};
    return ace.subspan(offset, sidLength(ace.subspan(offset)));
}

size_t aclLength(Bytes span) {
    const Bytes acl = aclHead(span);
    if (acl.empty()) return 0;
    bool valid = true;
    const bool whole = forEachAce(acl, [&](Bytes ace) { valid = valid && aceValid(ace); });
    return whole && valid ? acl.size() : 0;
}

} /* namespace offline */
