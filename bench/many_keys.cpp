/* SPDX-License-Identifier: GPL-2.0-or-later */
/* many_keys HIVE SID KEYS: adds KEYS keys to a hive file, below "Many", a thousand in each key there. Every
 * one has a value; of a hundred keys one is named after the machine SID, one has a value with it, and all
 * have one of two hundred descriptors that name its accounts. */
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "bench/made_descriptor.h"
#include "platform/offline/base/unicode.h"
#include "platform/offline/hive/hive.h"

namespace {

using namespace offline;

constexpr size_t inParent = 1000, descriptors = 200, oneIn = 100;
constexpr uint64_t madeAt = 132'514'560'000'000'000; /* 100 ns since 1601 */

[[noreturn]] void fail(const std::string& why) {
    fprintf(stderr, "many_keys: %s\n", why.c_str());
    exit(1);
}

void check(NTSTATUS status, const std::string& what) {
    if (status < 0) fail(what + ": status " + std::to_string(static_cast<uint32_t>(status)));
}

struct Maker {
    Hive& hive;
    const std::string machine;

    Cell make(Cell parent, const std::string& name, size_t rid) {
        Cell key = noCell;
        check(hiveCreateSubkey(hive, parent, toUtf16(name), {}, descriptorOf(machine, rid), 0, madeAt, key),
              name);
        return key;
    }
    void fill(size_t keys) {
        Cell parent = noCell;
        const Cell top = make(hiveRoot(hive), "Many", 0);
        for (size_t i = 0; i < keys; ++i) {
            if (i % inParent == 0) parent = make(top, "parent " + std::to_string(i / inParent), 0);
            const std::string number = std::to_string(i % inParent);
            const bool named = i % oneIn == 0, valued = i % oneIn == 1;
            const Cell key = make(parent, named ? machine + "-" + number : "key " + number, i % descriptors);
            const std::u16string text = toUtf16(valued ? machine : "a value like many others");
            check(
                hiveSetValue(hive, key, u"Value", REG_SZ,
                             {reinterpret_cast<const uint8_t*>(text.data()), text.size() * sizeof(char16_t)},
                             madeAt),
                number);
        }
    }
};

} /* namespace */

int main(int count, char** words) {
    if (count != 4) fail("usage: many_keys HIVE SID KEYS");
    std::ifstream in(words[1], std::ios::binary);
    std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(in), {}};
    HivePtr hive;
    Problem problem;
    if (hiveOpen(std::move(bytes), hive, problem) < 0) fail("the hive " + problem.text);
    Maker{*hive, words[2]}.fill(strtoull(words[3], nullptr, 10));
    bytes = hiveImage(*hive);
    std::ofstream out(words[1], std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!out.flush()) fail(std::string(words[1]) + ": can't be written");
}
