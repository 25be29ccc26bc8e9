/* Little-endian numbers in bytes from a disk, and the room's border for exceptions. Private to this room. */
#ifndef QUILLET_OFFLINE_VOLUME_BYTES_H
#define QUILLET_OFFLINE_VOLUME_BYTES_H

#include <bit>
#include <cassert>
#include <cstdint>
#include <cstring>
#include <new>
#include <span>
#include <stdexcept>

#include "platform/nt.h"
#include "platform/offline/base/guarded.h"

namespace offline {

static_assert(std::endian::native == std::endian::little, "structures on the disk are read as they lie");

using Bytes = std::span<const uint8_t>;

/* The count bytes at the offset, or an empty span when they do not all lie inside. Every offset and length
 * that comes from a disk goes through here. */
inline Bytes checkedSpan(Bytes bytes, uint64_t offset, uint64_t count) {
    if (offset > bytes.size() || count > bytes.size() - offset) return {};
    return bytes.subspan(static_cast<size_t>(offset), static_cast<size_t>(count));
}

/* The number at an offset that the caller knows to lie inside. */
template <class Number>
Number numberAt(Bytes bytes, size_t offset) {
    assert(offset <= bytes.size() && sizeof(Number) <= bytes.size() - offset);
    Number number;
    std::memcpy(&number, bytes.data() + offset, sizeof number);
    return number;
}

} /* namespace offline */

#endif
