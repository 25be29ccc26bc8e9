/* SPDX-License-Identifier: GPL-2.0-or-later */
/* What the hive tests share: a reader of hive files of its own, and a hive's contents in a form to compare.
 */
#ifndef QUILLET_TESTS_HIVE_CHECK_H
#define QUILLET_TESTS_HIVE_CHECK_H

#include <gtest/gtest.h>
#include <algorithm>
#include <map>
#include <random>
#include <tuple>

#include "platform/offline/hive/hive.h"

namespace offline::test {

void putNumber(ByteVector& bytes, size_t at, uint64_t number, size_t size = 4);
void seal(ByteVector& file); /* puts in the checksum of the base block */

/* The first invariant that this file breaks, read without the room's code; empty when it is sound. */
std::string faultOf(const ByteVector& file);

/* Everything in a key and below it, the values in their order; all of it is looked up by name as well. */
using Values = std::vector<std::tuple<std::u16string, uint32_t, ByteVector>>;
struct Content {
    std::u16string name;
    ByteVector classText, descriptor;
    uint64_t lastWrite = 0;
    Values values = {};
    std::vector<Content> subkeys = {}; /* in order */

    bool operator==(const Content&) const = default;
};
Values valuesOf(const Hive& hive, Cell key);
Content contentOf(const Hive& hive, Cell key = noCell); /* noCell: of the root */
std::vector<Cell> keysOf(const Hive& hive);             /* parents before their children */

ByteVector someBytes(std::mt19937& random, size_t length);
ByteVector someDescriptor(uint32_t seed); /* a run of bytes that differs with the seed */
std::u16string digits(size_t number);

/* These give null, or no cell, with a test failure, when it does not work. */
HivePtr newHive(uint32_t minor);
HivePtr opened(const ByteVector& file);
Cell made(Hive& hive, Cell parent, std::u16string_view name, uint32_t descriptor = 1);

/* A small hive with every kind of structure: values of all forms, classes, an ri list, shared descriptors. */
HivePtr variedHive(uint32_t minor);

/* A file in memory that notes every call and fails at one of them. */
struct RecordingStore : HiveStore {
    ByteVector file;
    std::string calls; /* g row, b ase block with unequal numbers, B with equal ones, p ages, f lush */
    size_t pageBytes = 0;
    int failAt = -1;

    NTSTATUS note(char call) {
        calls += call;
        return failAt >= 0 && failAt-- == 0 ? STATUS_IO_DEVICE_ERROR : STATUS_SUCCESS;
    }
    NTSTATUS write(uint64_t offset, std::span<const uint8_t> bytes) override {
        const bool clean = std::equal(bytes.begin() + 4, bytes.begin() + 8, bytes.begin() + 8);
        pageBytes += offset != 0 ? bytes.size() : 0;
        if (const NTSTATUS status = note(offset != 0 ? 'p' : clean ? 'B' : 'b'); status < 0) return status;
        if (offset + bytes.size() > file.size()) return STATUS_DISK_FULL;
        std::copy(bytes.begin(), bytes.end(), file.begin() + static_cast<long>(offset));
        return STATUS_SUCCESS;
    }
    NTSTATUS grow(uint64_t size) override {
        if (failAt != 0) file.resize(std::max<size_t>(file.size(), size));
        return note('g');
    }
    NTSTATUS flush() override { return note('f'); }
};

/* Real hives of a folder of the shared directory, by name; empty when there is none. */
std::map<std::string, ByteVector> realHives(const std::string& folder);
std::string sharedFile(const std::string& name); /* its path, or empty */

} /* namespace offline::test */

#endif
