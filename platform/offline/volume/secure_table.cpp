/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The descriptors that a volume stores, by id and by hash. */
#include "platform/offline/volume/secure_file.h"
/* before everything else */
#include <algorithm>
#include <bit>

namespace offline {
namespace {

size_t chainOf(const SecureTable& table, uint32_t hash) {
    constexpr uint32_t spread = 0x9E3779B1; /* the golden ratio of 32 bits */
    return (hash * spread >> 7) & (table.heads.size() - 1);
}

void addToChain(SecureTable& table, size_t index) {
    uint32_t& head = table.heads[chainOf(table, table.entries[index].hash)];
    table.next[index] = head;
    head = static_cast<uint32_t>(index) + 1;
}

} /* namespace */

const SdsEntry* entryOf(const std::vector<SdsEntry>& entries, uint32_t id) {
    const auto found = std::lower_bound(entries.begin(), entries.end(), id,
                                        [](const SdsEntry& sds, uint32_t wanted) { return sds.id < wanted; });
    return found != entries.end() && found->id == id ? &*found : nullptr;
}

/* From the last to the first, so that of equal ones the first is found first. */
void makeChains(SecureTable& table) {
    table.heads.assign(std::max(table.heads.size(), std::bit_ceil(table.entries.size() + 1)), 0);
    table.next.resize(table.entries.size());
    for (size_t index = table.entries.size(); index-- > 0;) addToChain(table, index);
}

void addToTable(SecureTable& table, const SdsEntry& sds) {
    if (table.entries.size() + 1 >= table.heads.size()) { /* chains of two or so */
        table.heads.resize(std::max<size_t>(64, 2 * table.heads.size()));
        makeChains(table);
    }
    if (table.entries.size() == table.entries.capacity()) /* in smaller steps than by itself */
        table.entries.reserve(table.entries.size() + table.entries.size() / 4 + 64);
    table.next.resize(table.entries.size() + 1); /* one too many does not matter if the next step fails */
    table.entries.push_back(sds);
    addToChain(table, table.entries.size() - 1);
}

const SdsEntry* firstOfHash(const SecureTable& table, uint32_t hash) {
    const uint32_t first = table.heads.empty() ? 0 : table.heads[chainOf(table, hash)];
    return first == 0 ? nullptr : &table.entries[first - 1];
}

const SdsEntry* nextOfHash(const SecureTable& table, const SdsEntry* entry) {
    const uint32_t next = table.next[static_cast<size_t>(entry - table.entries.data())];
    return next == 0 ? nullptr : &table.entries[next - 1];
}

} /* namespace offline */
