/* Structure: the published self-relative security descriptor. This room only makes sure that whoever reads it
 * stays inside; what it means is another room's. */
#include "platform/offline/volume/open_volume.h"

namespace offline {
namespace {

constexpr size_t descriptorHeader = 20, sidHeader = 8, aclHeader = 8, aceHeader = 4;
constexpr uint8_t mostSubAuthorities = 15;

bool sidInBounds(Bytes descriptor, uint32_t offset) {
    if (offset == 0) return true;
    Bytes header = checkedSpan(descriptor, offset, sidHeader);
    if (offset < descriptorHeader || header.empty() || header[1] > mostSubAuthorities) return false;
    return !checkedSpan(descriptor, offset, sidHeader + 4u * header[1]).empty();
}

bool aclInBounds(Bytes descriptor, uint32_t offset) {
    if (offset == 0) return true;
    Bytes header = checkedSpan(descriptor, offset, aclHeader);
    if (offset < descriptorHeader || header.empty()) return false;
    Bytes acl = checkedSpan(descriptor, offset, numberAt<uint16_t>(header, 2));
    if (acl.size() < aclHeader) return false;
    size_t place = aclHeader;
    for (uint16_t left = numberAt<uint16_t>(header, 4); left > 0; --left) {
        Bytes ace = checkedSpan(acl, place, aceHeader);
        if (ace.empty()) return false;
        uint16_t size = numberAt<uint16_t>(ace, 2);
        if (size < aceHeader || checkedSpan(acl, place, size).empty()) return false;
        place += size;
    }
    return true;
}

} /* namespace */

bool descriptorInBounds(Bytes descriptor) {
    if (descriptor.size() < descriptorHeader || descriptor[0] != SECURITY_DESCRIPTOR_REVISION) return false;
    uint16_t control = numberAt<uint16_t>(descriptor, 2);
    if ((control & SE_SELF_RELATIVE) == 0) return false;
    return sidInBounds(descriptor, numberAt<uint32_t>(descriptor, 4)) &&
           sidInBounds(descriptor, numberAt<uint32_t>(descriptor, 8)) &&
           aclInBounds(descriptor, numberAt<uint32_t>(descriptor, 12)) &&
           aclInBounds(descriptor, numberAt<uint32_t>(descriptor, 16));
}

} /* namespace offline */
