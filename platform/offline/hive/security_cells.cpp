/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/hive/security_cells.h"

#include <algorithm>
#include <functional>
#include <string_view>

#include "platform/offline/hive/cells.h"

namespace offline {
namespace {

using namespace regf;

uint64_t hashOf(Bytes bytes) {
    const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    return std::hash<std::string_view>()(text);
}

void linkRing(Hive& hive, Cell left, Cell right) {
    set(changeCell(hive, left), sk::next, right);
    set(changeCell(hive, right), sk::previous, left);
}

/* The ring hangs at the root key's descriptor, which is made first and goes last. */
void enterRing(Hive& hive, Cell cell) {
    const Cell anchor = hive.root == noCell ? noCell : get(cellData(hive, hive.root), nk::descriptor);
    if (anchor == noCell) {
        linkRing(hive, cell, cell);
        return;
    }
    const Cell next = get(cellData(hive, anchor), sk::next);
    linkRing(hive, anchor, cell);
    linkRing(hive, cell, next);
}

void setRefcount(Hive& hive, Cell cell, uint32_t refcount) {
    set(changeCell(hive, cell), sk::refcount, refcount);
}

} /* namespace */

void noteDescriptor(Hive& hive, Cell cell) {
    hive.descriptors.try_emplace(hashOf(descriptorIn(hive, cell)), cell);
}

Bytes descriptorIn(const Hive& hive, Cell cell) {
    const Bytes data = cellData(hive, cell);
    return data.subspan(sk::descriptor, get(data, sk::length));
}

DescriptorUse findDescriptor(const Hive& hive, Bytes bytes) {
    DescriptorUse use{bytes, hashOf(bytes), noCell};
    const auto found = hive.descriptors.find(use.hash);
    if (found == hive.descriptors.end()) return use;
    const Bytes there = descriptorIn(hive, found->second);
    if (std::equal(there.begin(), there.end(), bytes.begin(), bytes.end())) use.cell = found->second;
    return use;
}

uint64_t descriptorGrowth(const DescriptorUse& use) {
    return use.cell != noCell ? 0 : growthFor(sk::descriptor + use.bytes.size());
}

Cell takeDescriptor(Hive& hive, const DescriptorUse& use) {
    if (use.cell != noCell) {
        setRefcount(hive, use.cell, get(cellData(hive, use.cell), sk::refcount) + 1);
        return use.cell;
    }
    const auto [entry, entered] = hive.descriptors.try_emplace(use.hash, noCell);
    const Cell cell = allocateCell(hive, sk::descriptor + use.bytes.size());
    if (entered) entry->second = cell;
    const std::span<uint8_t> data = changeCell(hive, cell);
    set(data, sk::signature, sk::magic);
    set(data, sk::refcount, 1);
    set(data, sk::length, static_cast<uint32_t>(use.bytes.size()));
    memcpy(data.data() + sk::descriptor, use.bytes.data(), use.bytes.size());
    enterRing(hive, cell);
    return cell;
}

void dropDescriptor(Hive& hive, Cell cell) {
    const uint32_t refcount = get(cellData(hive, cell), sk::refcount);
    if (refcount > 1) {
        setRefcount(hive, cell, refcount - 1);
        return;
    }
    const auto found = hive.descriptors.find(hashOf(descriptorIn(hive, cell)));
    if (found != hive.descriptors.end() && found->second == cell) hive.descriptors.erase(found);
    linkRing(hive, get(cellData(hive, cell), sk::previous), get(cellData(hive, cell), sk::next));
    releaseCell(hive, cell);
}

} /* namespace offline */
