/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Hives made from tables of keys and values. */
#ifndef QUILLET_COMPANION_PRACTICE_SAMPLE_HIVE_H
#define QUILLET_COMPANION_PRACTICE_SAMPLE_HIVE_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "companion/machine.h"
#include "companion/practice/sample_descriptors.h"

namespace companion {

struct Value {
    std::u16string name;
    uint32_t type;
    ByteVector data;
};

/* A key by its path below the root. Keys on the way that no row has named are made with the descriptor of
 * what lies above them; so is this one when its own is empty. A second row for a key adds values. */
struct Key {
    std::u16string path;
    std::vector<Value> values = {};
    ByteVector descriptor = {};
    std::u16string classText = {};
    std::u16string linkTarget = {}; /* a symbolic link's */
};

using Keys = std::vector<Key>;

/* ---- Values ---- */

Value text(std::u16string name, std::u16string_view text);       /* REG_SZ, terminated */
Value expandText(std::u16string name, std::u16string_view text); /* REG_EXPAND_SZ */
Value number(std::u16string name, uint32_t number);
Value binary(std::u16string name, ByteVector data);
Value textList(std::u16string name, const std::vector<std::u16string>& texts); /* REG_MULTI_SZ */

/* UTF-16 as it lies in a value, without a terminator. */
ByteVector utf16Bytes(std::u16string_view text);

/* ---- The whole hive ---- */

struct HiveSketch {
    std::u16string_view fileName;
    uint32_t minorVersion;
    ByteVector rootDescriptor;
    Keys keys;
};

/* The file's bytes. Throws Failure. */
ByteVector makeHive(const HiveSketch& sketch);

/* ---- The hives of an installation ---- */

/* What the SYSTEM hive remembers of the disk that it lies on; empty when the disk has no partition table. */
struct DiskIdentity {
    ByteVector mountedName;
};

HiveSketch samHive(const Machine& machine);
HiveSketch securityHive(const Machine& machine);
HiveSketch softwareHive(const Machine& machine);
HiveSketch systemHive(const Machine& machine, const DiskIdentity& disk);
HiveSketch defaultHive();
HiveSketch userHive(const Machine& machine, uint32_t rid, uint32_t minorVersion);
HiveSketch serviceHive(const Machine& machine, uint32_t minorVersion);

/* Keys of every shape of descriptor, links and names below a path: what no real installation has all of. */
void addOddKeys(Keys& keys, const Machine& machine, const std::u16string& path);

} /* namespace companion */

#endif
