/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Bytes of a structure that comes from a disk, and the little-endian numbers in them. */
#ifndef QUILLET_OFFLINE_BASE_BYTES_H
#define QUILLET_OFFLINE_BASE_BYTES_H

#include <bit>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

namespace offline {

static_assert(std::endian::native == std::endian::little, "structures on the disk are read as they lie");

using Bytes = std::span<const uint8_t>;  /* a view of what somebody else owns */
using ByteVector = std::vector<uint8_t>; /* owned */

/* The count bytes at the offset, or an empty span when they do not all lie inside. Every offset and length
 * that comes from a disk goes through here. */
inline Bytes checkedSpan(Bytes bytes, uint64_t offset, uint64_t count) {
    if (offset > bytes.size() || count > bytes.size() - offset) return {};
    return bytes.subspan(static_cast<size_t>(offset), static_cast<size_t>(count));
}

/* The number at an address of any alignment. */
template <class Number>
Number loadNumber(const void* at) {
    Number number;
    std::memcpy(&number, at, sizeof number);
    return number;
}

/* The number at an offset that the caller knows to lie inside. */
template <class Number>
Number numberAt(Bytes bytes, size_t offset) {
    assert(offset <= bytes.size() && sizeof(Number) <= bytes.size() - offset);
    return loadNumber<Number>(bytes.data() + offset);
}

inline bool sameBytes(Bytes left, Bytes right) {
    return left.size() == right.size() &&
           (left.empty() || std::memcmp(left.data(), right.data(), left.size()) == 0);
}

inline bool allZero(Bytes bytes) {
    return bytes.empty() || (bytes[0] == 0 && sameBytes(bytes.subspan(1), bytes.first(bytes.size() - 1)));
}

} /* namespace offline */

#endif
