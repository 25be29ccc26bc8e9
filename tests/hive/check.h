/* What the hive tests share: a reader of hive files of its own, and a hive's contents in a form to compare.
 */
#ifndef QUILLET_TESTS_HIVE_CHECK_H
#define QUILLET_TESTS_HIVE_CHECK_H

#include <cstdint>
#include <map>
#include <random>
#include <span>
#include <string>
#include <tuple>
#include <vector>

#include "platform/offline/hive/hive.h"

namespace offline::test {

using Bytes = std::vector<uint8_t>;

/* The first invariant that this file breaks, read without the room's code; empty when it is sound. */
std::string faultOf(const Bytes& file);

/* Everything in a key and below it, the values in their order. */
struct Content {
    std::u16string name;
    uint16_t flags = 0; /* link and no-delete only */
    Bytes classText;
    Bytes descriptor;
    std::vector<std::tuple<std::u16string, uint32_t, Bytes>> values;
    std::vector<Content> subkeys; /* in order */

    bool operator==(const Content&) const = default;
};
Content contentOf(const Hive& hive, Cell key);

/* A descriptor-like run of bytes that differs with the seed. */
Bytes someDescriptor(uint32_t seed);
Bytes someBytes(std::mt19937& random, size_t length);

HivePtr newHive(uint32_t minor);
HivePtr opened(const Bytes& file); /* null, with a test failure, when it does not open */

/* A small hive with every kind of structure: values of all forms, classes, an ri list, shared descriptors. */
HivePtr variedHive(uint32_t minor);

/* Opens a file and, when it can be opened, reads all of it, changes and deletes things, and opens the result.
 * False when a hive that was opened can't be opened again, or is found broken, after the changes. */
bool exercise(const Bytes& file);

/* Real hives of a folder of the shared directory, by name; empty when there is none. */
std::map<std::string, Bytes> realHives(const std::string& folder);
std::string sharedFile(const std::string& name); /* its path, or empty */

} /* namespace offline::test */

#endif
