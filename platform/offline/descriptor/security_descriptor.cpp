/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Descriptors as bytes: checked, taken apart and laid out. */
#include "platform/offline/descriptor/security_descriptor.h"

#include "platform/offline/descriptor/access_list.h"

namespace offline {
namespace {

/* Where a field of the self-relative form says that a part lies. An offset of 0 is a part that is not there.
 */
bool partAt(Bytes image, size_t field, size_t (*lengthOf)(Bytes), Bytes& part) {
    part = {};
    const size_t offset = numberAt<uint32_t>(image, field);
    if (offset == 0) return true;
    if (offset < sizeof(SECURITY_DESCRIPTOR_RELATIVE) || offset % 4 != 0 || offset >= image.size())
        return false;
    part = image.subspan(offset, lengthOf(image.subspan(offset)));
    return !part.empty();
}

bool apart(Bytes left, Bytes right) {
    return left.empty() || right.empty() || left.data() + left.size() <= right.data() ||
           right.data() + right.size() <= left.data();
}

bool sameOrApart(Bytes left, Bytes right) {
    return left.data() == right.data() || apart(left, right);
}

/* Two SIDs or two lists may be one and the same, but no part may lie across another: a caller that writes a
 * SID over one in the image must not change the size of a list with it. */
bool partsDisjoint(const DescriptorParts& parts) {
    return sameOrApart(parts.owner, parts.group) && sameOrApart(parts.sacl, parts.dacl) &&
           apart(parts.owner, parts.sacl) && apart(parts.owner, parts.dacl) &&
           apart(parts.group, parts.sacl) && apart(parts.group, parts.dacl);
}

size_t lengthUpTo(Bytes image, const DescriptorParts& parts) {
    size_t length = sizeof(SECURITY_DESCRIPTOR_RELATIVE);
    for (const Bytes part : {parts.owner, parts.group, parts.sacl, parts.dacl}) {
        if (part.empty()) continue;
        const auto end = static_cast<size_t>(part.data() + part.size() - image.data());
        if (end > length) length = end;
    }
    return length;
}

} /* namespace */

bool partsOfImage(Bytes image, DescriptorParts& parts, size_t& length) {
    using Image = SECURITY_DESCRIPTOR_RELATIVE;
    parts = {};
    if (image.size() < sizeof(Image) || image[offsetof(Image, Revision)] != SECURITY_DESCRIPTOR_REVISION)
        return false;
    parts.resourceControl = image[offsetof(Image, Sbz1)];
    parts.control = numberAt<uint16_t>(image, offsetof(Image, Control));
    if ((parts.control & SE_SELF_RELATIVE) == 0) return false;
    // A list's offset counts only with its present bit, as the calls have it.
    const bool sacl = (parts.control & SE_SACL_PRESENT) != 0;
    const bool dacl = (parts.control & SE_DACL_PRESENT) != 0;
    if (!partAt(image, offsetof(Image, Owner), sidLength, parts.owner) ||
        !partAt(image, offsetof(Image, Group), sidLength, parts.group) ||
        (sacl && !partAt(image, offsetof(Image, Sacl), aclLength, parts.sacl)) ||
        (dacl && !partAt(image, offsetof(Image, Dacl), aclLength, parts.dacl)) || !partsDisjoint(parts)) {
        return false;
    }
    length = lengthUpTo(image, parts);
    return true;
}

namespace {

DWORD append(std::vector<uint8_t>& image, Bytes part) {
    if (part.empty()) return 0;
    image.resize((image.size() + 3) & ~size_t{3});
    const auto offset = static_cast<DWORD>(image.size());
    image.insert(image.end(), part.begin(), part.end());
    return offset;
}

} /* namespace */

std::vector<uint8_t> layOut(const DescriptorParts& parts) {
    SECURITY_DESCRIPTOR_RELATIVE head = {};
    std::vector<uint8_t> image(sizeof head);
    head.Revision = SECURITY_DESCRIPTOR_REVISION;
    head.Sbz1 = parts.resourceControl;
    head.Control = parts.control | SE_SELF_RELATIVE;
    head.Sacl = append(image, parts.sacl);
    head.Dacl = append(image, parts.dacl);
    head.Owner = append(image, parts.owner);
    head.Group = append(image, parts.group);
    memcpy(image.data(), &head, sizeof head);
    return image;
}

bool descriptorValid(Bytes image) {
    DescriptorParts parts;
    size_t length = 0;
    return partsOfImage(image, parts, length);
}

} /* namespace offline */
