/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Names of keys and values as they are stored: compressed (Latin-1) where every character allows it, else
 * UTF-16. */
#ifndef QUILLET_OFFLINE_HIVE_NAMES_H
#define QUILLET_OFFLINE_HIVE_NAMES_H

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "platform/offline/base/bytes.h"
#include "platform/offline/hive/format.h"

namespace offline {

struct StoredName {
    Bytes bytes;
    bool compressed = true;

    size_t length() const { return compressed ? bytes.size() : bytes.size() / sizeof(char16_t); }
    char16_t operator[](size_t i) const {
        return compressed ? bytes[i] : regf::load<char16_t>(bytes.data() + i * sizeof(char16_t));
    }
};

/* The names in the data of a key's and of a value's cell. */
inline StoredName keyName(Bytes key) {
    return {key.subspan(regf::nk::name, get(key, regf::nk::nameLength)),
            (get(key, regf::nk::flags) & regf::nk::compressedName) != 0};
}
inline StoredName valueName(Bytes value) {
    return {value.subspan(regf::vk::name, get(value, regf::vk::nameLength)),
            (get(value, regf::vk::flags) & regf::vk::compressedName) != 0};
}

/* As the platform orders names; below, at or above 0. */
int compareNames(const StoredName& left, const StoredName& right);
int compareNames(const StoredName& left, std::u16string_view right);

/* The hash that an "lh" list holds. */
uint32_t nameHash(const StoredName& name);

/* What an "lf" list holds: the first four characters when all of them are Latin-1. */
uint32_t nameHint(const StoredName& name);

void copyName(const StoredName& name, char16_t* out);

/* Whether a name is to be stored compressed, and its size in bytes as stored. */
bool compressible(std::u16string_view name);
size_t storedSize(std::u16string_view name);

/* Stores it in storedSize bytes. */
void storeName(std::u16string_view name, uint8_t* out);

} /* namespace offline */

#endif
