/* SPDX-License-Identifier: GPL-2.0-or-later */
/* A hive and a model of it: every change is done to both, and both must then tell the same. */
#ifndef QUILLET_TESTS_HIVE_MODEL_H
#define QUILLET_TESTS_HIVE_MODEL_H

#include "tests/hive/check.h"

namespace offline::test {

struct Twins {
    HivePtr hive;
    Content root;
    uint64_t time = 0;

    explicit Twins(HivePtr one) : hive(std::move(one)), root(contentOf(*hive)) {}

    /* source: where the bytes of the descriptor are taken from. */
    void create(Cell cell, Content& parent, const Content& fresh, Bytes source);
    void remove(Cell cell, Content& parent, const std::u16string& name); /* a key with children stays */
    void set(Cell cell, Content& key, const std::u16string& name, uint32_t type, const ByteVector& data);
    void erase(Cell cell, Content& key, const std::u16string& name);
    void describe(Cell cell, Content& key, const ByteVector& descriptor, Bytes source);

    /* One change of a random key. A new descriptor is now and then another key's, straight from the hive. */
    void change(std::mt19937& random);
    void compare() const;
};

/* Opens a file and, when it can be opened, compares it with a model through some random changes, and opens
 * the result. False, with test failures, when something of that does not hold. */
bool exercise(const ByteVector& file, size_t changes, ByteVector* after = nullptr);

/* Where a key of this name is in the model, or would be. */
std::vector<Content>::iterator placeOf(Content& parent, const std::u16string& name);

} /* namespace offline::test */

#endif
