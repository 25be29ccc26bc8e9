/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/hive/names.h"

#include <algorithm>

#include "platform/offline/base/unicode.h"

namespace offline {
namespace {

char16_t fold(char16_t unit) {
    if (unit < 0x80) return unit >= u'a' && unit <= u'z' ? static_cast<char16_t>(unit - 32) : unit;
    return upcase(unit);
}

/* Units of a name as they are stored: how, is decided once and not for each of them. */
struct CompressedUnits {
    Bytes bytes;
    size_t size() const { return bytes.size(); }
    char16_t operator[](size_t i) const { return bytes[i]; }
};
struct WideUnits {
    Bytes bytes;
    size_t size() const { return bytes.size() / sizeof(char16_t); }
    char16_t operator[](size_t i) const { return regf::load<char16_t>(bytes.data() + i * sizeof(char16_t)); }
};

template <class Left, class Right>
int compareUnits(const Left& left, const Right& right) {
    const size_t common = std::min(left.size(), right.size());
    for (size_t i = 0; i < common; i++) {
        const char16_t a = left[i];
        const char16_t b = right[i];
        if (a == b) continue;
        const int difference = int{fold(a)} - int{fold(b)};
        if (difference != 0) return difference;
    }
    return left.size() == right.size() ? 0 : left.size() < right.size() ? -1 : 1;
}

template <class Right>
int compareStored(const StoredName& left, const Right& right) {
    return left.compressed ? compareUnits(CompressedUnits{left.bytes}, right)
                           : compareUnits(WideUnits{left.bytes}, right);
}

template <class Units>
uint32_t hashUnits(const Units& units) {
    uint32_t hash = 0;
    for (size_t i = 0; i < units.size(); i++) hash = hash * 37 + fold(units[i]);
    return hash;
}

} /* namespace */

int compareNames(const StoredName& left, const StoredName& right) {
    return right.compressed ? compareStored(left, CompressedUnits{right.bytes})
                            : compareStored(left, WideUnits{right.bytes});
}

int compareNames(const StoredName& left, std::u16string_view right) {
    return compareStored(left, right);
}

uint32_t nameHash(const StoredName& name) {
    return name.compressed ? hashUnits(CompressedUnits{name.bytes}) : hashUnits(WideUnits{name.bytes});
}

uint32_t nameHint(const StoredName& name) {
    uint32_t hint = 0;
    for (size_t i = 0; i < std::min<size_t>(name.length(), sizeof hint); i++) {
        if (name[i] > 0xFF) return 0;
        hint |= uint32_t{name[i]} << (8 * i);
    }
    return hint;
}

void copyName(const StoredName& name, char16_t* out) {
    if (name.compressed) {
        std::copy(name.bytes.begin(), name.bytes.end(), out);
    } else if (!name.bytes.empty()) {
        memcpy(out, name.bytes.data(), name.length() * sizeof(char16_t));
    }
}

bool compressible(std::u16string_view name) {
    return std::all_of(name.begin(), name.end(), [](char16_t unit) { return unit <= 0xFF; });
}

size_t storedSize(std::u16string_view name) {
    return compressible(name) ? name.size() : name.size() * sizeof(char16_t);
}

void storeName(std::u16string_view name, uint8_t* out) {
    if (compressible(name)) {
        std::transform(name.begin(), name.end(), out,
                       [](char16_t unit) { return static_cast<uint8_t>(unit); });
    } else {
        memcpy(out, name.data(), name.size() * sizeof(char16_t));
    }
}

} /* namespace offline */
