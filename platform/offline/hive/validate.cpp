/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/hive/validate.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <string>

#include "platform/offline/hive/cells.h"
#include "platform/offline/hive/data.h"
#include "platform/offline/hive/names.h"
#include "platform/offline/hive/security_cells.h"
#include "platform/offline/hive/subkeys.h"

namespace offline {
namespace {

using namespace regf;

struct Pending { /* a key whose subkeys are still to be looked at */
    Cell key;
    uint32_t depth;
};

struct Check {
    Hive& hive;
    Problem& problem;
    CellBits used;                                /* by what can be reached */
    std::unordered_map<Cell, uint32_t> refcounts; /* of each descriptor of the ring */
    std::vector<Pending> pending;
};

/* "is damaged: the key at 0x1a20 is too short"; the offset is the one in the bins. */
bool fault(Check& check, const char* what, uint32_t offset, const char* how) {
    char number[16];
    snprintf(number, sizeof number, "0x%" PRIx32, offset);
    refuse(check.problem, STATUS_REGISTRY_CORRUPT,
           std::string("is damaged: the ") + what + " at " + number + " " + how);
    return false;
}

/* ---- Bins and cells ---- */

bool checkCells(Check& check, uint32_t bin, uint32_t size) {
    Hive& hive = check.hive;
    const uint8_t* bins = hive.bytes.data() + pageSize;
    for (uint32_t cell = bin + bin::headerSize; cell < bin + size;) {
        const int64_t head = load<int32_t>(bins + cell);
        const int64_t length = head < 0 ? -head : head;
        if (length == 0 || length % cellGrain != 0 || length > bin + size - cell) {
            return fault(check, "cell", cell, "has an impossible size");
        }
        hive.starts.set(cell);
        if (head > 0) noteFreeCell(hive, cell, static_cast<uint32_t>(head));
        cell += static_cast<uint32_t>(length);
    }
    return true;
}

bool checkBins(Check& check) {
    Hive& hive = check.hive;
    const Bytes bins = Bytes(hive.bytes).subspan(pageSize, hive.binsSize);
    for (uint32_t offset = 0; offset < hive.binsSize;) {
        const Bytes header = bins.subspan(offset, bin::headerSize);
        if (get(header, bin::signature) != bin::magic) return fault(check, "bin", offset, "is missing");
        if (get(header, bin::offset) != offset) return fault(check, "bin", offset, "names another place");
        const uint32_t size = get(header, bin::size);
        if (size == 0 || size % pageSize != 0 || size > hive.binsSize - offset) {
            return fault(check, "bin", offset, "has an impossible size");
        }
        std::fill_n(hive.pageBin.begin() + offset / pageSize, size / pageSize, offset);
        if (!checkCells(check, offset, size)) return false;
        offset += size;
    }
    return true;
}

/* The data of a cell that nothing else uses; empty, with a fault, when there is none of this length. */
Bytes claim(Check& check, const char* what, Cell cell, size_t length) {
    const Bytes data = cellData(check.hive, cell);
    if (data.empty()) {
        fault(check, what, cell, "lies in no allocated cell");
        return {};
    }
    if (check.used.test(cell)) {
        fault(check, what, cell, "is used twice");
        return {};
    }
    if (data.size() < length) {
        fault(check, what, cell, "does not fit its cell");
        return {};
    }
    check.used.set(cell);
    return data;
}

/* ---- Descriptors ---- */

bool checkRing(Check& check) {
    const Hive& hive = check.hive;
    const Bytes root = cellData(hive, hive.root);
    if (root.size() < nk::name || get(root, nk::signature) != nk::magic)
        return fault(check, "root key", hive.root, "is missing");
    const Cell first = get(root, nk::descriptor);
    Cell cell = first;
    do {
        const Bytes data = claim(check, "security descriptor", cell, sk::descriptor);
        if (data.empty()) return false;
        if (get(data, sk::signature) != sk::magic)
            return fault(check, "security descriptor", cell, "is none");
        if (get(data, sk::length) == 0 || get(data, sk::length) > data.size() - sk::descriptor) {
            return fault(check, "security descriptor", cell, "does not fit its cell");
        }
        const Cell next = get(data, sk::next);
        const Bytes neighbour = cellData(hive, next);
        if (neighbour.size() < sk::descriptor || get(neighbour, sk::previous) != cell) {
            return fault(check, "security descriptor", cell, "breaks the ring of descriptors");
        }
        check.refcounts.emplace(cell, 0);
        noteDescriptor(check.hive, cell);
        cell = next;
    } while (cell != first);
    return true;
}

/* In memory only: a page that is not changed otherwise is not saved for it. */
void correctRefcounts(Check& check) {
    for (const auto& [cell, refcount] : check.refcounts) {
        const size_t at = pageSize + cell + cellHeader;
        set(std::span<uint8_t>(check.hive.bytes).subspan(at, sk::descriptor), sk::refcount, refcount);
    }
}

/* ---- Values ---- */

bool checkBigData(Check& check, Cell cell, uint32_t length) {
    const Bytes big = claim(check, "big data", cell, db::size);
    if (big.empty()) return false;
    const uint32_t count = segmentsOf(length);
    if (get(big, db::signature) != db::magic) return fault(check, "big data", cell, "is none");
    if (get(big, db::count) != count) return fault(check, "big data", cell, "has a wrong number of segments");
    const Bytes list = claim(check, "segment list", get(big, db::list), count * sizeof(Cell));
    if (list.empty()) return false;
    for (uint32_t i = 0; i < count; i++) {
        const uint32_t here = std::min(length - i * db::segmentSize, db::segmentSize);
        if (claim(check, "data segment", entryAt(list, 0, i), here).empty()) return false;
    }
    return true;
}

bool checkValue(Check& check, Cell cell) {
    const Bytes value = claim(check, "value", cell, vk::name);
    if (value.empty()) return false;
    if (get(value, vk::signature) != vk::magic) return fault(check, "value", cell, "is none");
    const uint32_t nameLength = get(value, vk::nameLength);
    if (nameLength > value.size() - vk::name)
        return fault(check, "name of the value", cell, "does not fit its cell");
    const StoredName name = valueName(value);
    if (!name.compressed && nameLength % sizeof(char16_t) != 0) {
        return fault(check, "name of the value", cell, "ends within a character");
    }
    if (name.length() > longestValueName) return fault(check, "name of the value", cell, "is too long");

    const StoredData stored{get(value, vk::dataSize), get(value, vk::data)};
    const uint32_t length = dataLength(stored);
    switch (dataForm(check.hive, stored.size)) {
        case DataForm::none:
            return true;
        case DataForm::inlined:
            return length <= vk::longestInline ||
                   fault(check, "value", cell, "has data of an impossible length");
        case DataForm::cell:
            return !claim(check, "value data", stored.where, length).empty();
        case DataForm::big:
            return checkBigData(check, stored.where, length);
    }
    return false;
}

bool checkValues(Check& check, Bytes key) {
    const uint32_t count = get(key, nk::valueCount);
    if (count == 0 || (get(key, nk::flags) & nk::predefinedHandle) != 0) return true;
    const Bytes list = claim(check, "value list", get(key, nk::valueList), size_t{count} * sizeof(Cell));
    if (list.empty()) return false;
    for (uint32_t i = 0; i < count; i++) {
        if (!checkValue(check, entryAt(list, 0, i))) return false;
    }
    return true;
}

/* ---- Keys ---- */

bool checkName(Check& check, Cell cell, Bytes key) {
    const uint32_t bytes = get(key, nk::nameLength);
    if (bytes > key.size() - nk::name) return fault(check, "name of the key", cell, "does not fit its cell");
    const StoredName name = keyName(key);
    if (!name.compressed && bytes % sizeof(char16_t) != 0) {
        return fault(check, "name of the key", cell, "ends within a character");
    }
    if (name.length() > longestKeyName) return fault(check, "name of the key", cell, "is too long");
    if (cell == check.hive.root) return true;
    if (name.length() == 0) return fault(check, "key", cell, "has no name");
    for (size_t i = 0; i < name.length(); i++) {
        if (name[i] == u'\\') return fault(check, "name of the key", cell, "holds a backslash");
    }
    return true;
}

/* Everything about a key but its subkeys, which are looked at later. */
bool checkKey(Check& check, Cell cell, Cell parent, uint32_t depth) {
    const Bytes key = claim(check, "key", cell, nk::name);
    if (key.empty()) return false;
    if (get(key, nk::signature) != nk::magic) return fault(check, "key", cell, "is none");
    const bool isRoot = (get(key, nk::flags) & HIVE_KEY_ROOT) != 0;
    if (isRoot != (parent == noCell)) {
        return fault(check, "key", cell, isRoot ? "is a second root" : "is the root and not marked so");
    }
    if (!isRoot && get(key, nk::parent) != parent) return fault(check, "key", cell, "names another parent");
    if (depth > deepestKey) return fault(check, "key", cell, "lies too deep");
    if (!checkName(check, cell, key)) return false;
    if (const uint16_t length = get(key, nk::classLength);
        length != 0 && claim(check, "class", get(key, nk::classCell), length).empty()) {
        return false;
    }
    const auto descriptor = check.refcounts.find(get(key, nk::descriptor));
    if (descriptor == check.refcounts.end()) return fault(check, "key", cell, "has no security descriptor");
    descriptor->second++;
    check.hive.keys.set(cell);
    ++check.hive.keysFound;
    if (get(key, nk::subkeyCount) != 0) check.pending.push_back({cell, depth});
    return checkValues(check, key);
}

/* What is known of a key's list when a part of it has been looked at. */
struct ListState {
    Cell key;
    uint32_t depth;
    StoredName last;
    uint32_t count = 0;
};

bool checkLeaf(Check& check, ListState& state, Cell cell) {
    const Leaf leaf = readLeaf(claim(check, "subkey list", cell, list::entries));
    if (leaf.data.empty()) return false;
    if (leaf.kind != list::li && leaf.kind != list::lf && leaf.kind != list::lh) {
        return fault(check, "subkey list", cell, "is none");
    }
    if (leaf.count == 0) return fault(check, "subkey list", cell, "is empty");
    if (list::entries + leaf.count * leaf.entrySize > leaf.data.size()) {
        return fault(check, "subkey list", cell, "does not fit its cell");
    }
    for (uint32_t i = 0; i < leaf.count; i++) {
        const Cell child = leaf.child(i);
        if (!checkKey(check, child, state.key, state.depth + 1)) return false;
        const StoredName name = keyName(cellData(check.hive, child));
        if (state.count++ > 0 && compareNames(state.last, name) >= 0) {
            return fault(check, "key", child, "is out of order among its neighbours, or there twice");
        }
        if (leaf.kind == list::lh && leaf.hint(i) != nameHash(name)) {
            return fault(check, "key", child, "has a wrong hash in its list");
        }
        state.last = name;
    }
    return true;
}

bool checkSubkeys(Check& check, Pending which) {
    const Bytes key = cellData(check.hive, which.key);
    const Cell list = get(key, nk::subkeyList);
    ListState state{which.key, which.depth, {}};
    const Bytes data = cellData(check.hive, list);
    if (data.empty()) return fault(check, "subkey list", list, "lies in no allocated cell");
    if (get(data, list::signature) != list::ri) {
        if (!checkLeaf(check, state, list)) return false;
    } else {
        const uint32_t leaves = get(data, list::count);
        if (claim(check, "subkey list", list, list::entries + leaves * list::plainEntry).empty())
            return false;
        for (uint32_t i = 0; i < leaves; i++) {
            if (!checkLeaf(check, state, entryAt(data, list::entries, i))) return false;
        }
    }
    if (state.count == get(key, nk::subkeyCount)) return true;
    return fault(check, "key", which.key, "has another number of subkeys than its list");
}

bool checkAll(Check& check) {
    if (!checkBins(check) || !checkRing(check)) return false;
    if (!checkKey(check, check.hive.root, noCell, 0)) return false;
    while (!check.pending.empty()) {
        const Pending next = check.pending.back();
        check.pending.pop_back();
        if (!checkSubkeys(check, next)) return false;
    }
    correctRefcounts(check);
    return true;
}

} /* namespace */

NTSTATUS validate(Hive& hive, Problem& problem) {
    hive.keysFound = 0;
    hive.freeCells.clear();
    hive.descriptors.clear();
    hive.starts.words.assign(hive.binsSize / 512, 0);
    hive.keys.words.assign(hive.binsSize / 512, 0);
    hive.pageBin.assign(hive.binsSize / pageSize, 0);
    hive.dirtyPages.assign(hive.binsSize / pageSize, 0);
    Check check{hive, problem, {std::vector<uint64_t>(hive.binsSize / 512)}, {}, {}};
    return checkAll(check) ? STATUS_SUCCESS : STATUS_REGISTRY_CORRUPT;
}

} /* namespace offline */
