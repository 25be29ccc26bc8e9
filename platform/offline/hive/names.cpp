#include "platform/offline/hive/names.h"

#include <algorithm>

#include "platform/offline/base/text.h"

namespace offline {
namespace {

char16_t fold(char16_t unit) {
    if (unit < 0x80) return unit >= u'a' && unit <= u'z' ? static_cast<char16_t>(unit - 32) : unit;
    return upcase(unit);
}

template <class Right>
int compareUnits(const StoredName& left, size_t leftLength, const Right& right, size_t rightLength) {
    const size_t common = std::min(leftLength, rightLength);
    for (size_t i = 0; i < common; i++) {
        const char16_t a = left[i];
        const char16_t b = right[i];
        if (a == b) continue;
        const int difference = int{fold(a)} - int{fold(b)};
        if (difference != 0) return difference;
    }
    return leftLength == rightLength ? 0 : leftLength < rightLength ? -1 : 1;
}

} /* namespace */

int compareNames(const StoredName& left, const StoredName& right) {
    return compareUnits(left, left.length(), right, right.length());
}

int compareNames(const StoredName& left, std::u16string_view right) {
    return compareUnits(left, left.length(), right, right.size());
}

uint32_t nameHash(const StoredName& name) {
    uint32_t hash = 0;
    for (size_t i = 0; i < name.length(); i++) hash = hash * 37 + fold(name[i]);
    return hash;
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
    if (name.latin) {
        std::copy(name.bytes.begin(), name.bytes.end(), out);
    } else if (!name.bytes.empty()) {
        memcpy(out, name.bytes.data(), name.length() * sizeof(char16_t));
    }
}

bool fitsLatin(std::u16string_view name) {
    return std::all_of(name.begin(), name.end(), [](char16_t unit) { return unit <= 0xFF; });
}

size_t storedSize(std::u16string_view name) {
    return fitsLatin(name) ? name.size() : name.size() * sizeof(char16_t);
}

void storeName(std::u16string_view name, uint8_t* out) {
    if (fitsLatin(name)) {
        std::transform(name.begin(), name.end(), out,
                       [](char16_t unit) { return static_cast<uint8_t>(unit); });
    } else {
        memcpy(out, name.data(), name.size() * sizeof(char16_t));
    }
}

} /* namespace offline */
