/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Keys: reading, creating and deleting them, and their descriptors. */
#include <algorithm>

#include "platform/offline/base/guarded.h"
#include "platform/offline/hive/cells.h"
#include "platform/offline/hive/data.h"
#include "platform/offline/hive/hive.h"
#include "platform/offline/hive/key_nodes.h"
#include "platform/offline/hive/names.h"
#include "platform/offline/hive/security_cells.h"
#include "platform/offline/hive/subkeys.h"

namespace offline {
namespace {

using namespace regf;

/* The key's subkey list, or noCell when it has no subkeys: a list that such a key names means nothing. */
Cell listOf(Bytes key) {
    return get(key, nk::subkeyCount) == 0 ? noCell : get(key, nk::subkeyList);
}

bool validName(std::u16string_view name) {
    return !name.empty() && name.size() <= longestKeyName && name.find(u'\\') == std::u16string_view::npos;
}

/* As many levels as an opened hive may have: nothing is made that could not be opened again. */
bool tooDeep(const Hive& hive, Cell parent) {
    uint32_t depth = 1;
    while (parent != hive.root && depth <= deepestKey) {
        parent = get(cellData(hive, parent), nk::parent);
        depth++;
    }
    return depth > deepestKey;
}

Cell storeClass(Hive& hive, Bytes classText) {
    if (classText.empty()) return noCell;
    const Cell cell = allocateCell(hive, classText.size());
    std::copy(classText.begin(), classText.end(), changeCell(hive, cell).begin());
    return cell;
}

/* Enters the new child in its parent, whose lists of subkeys and longest lengths follow. */
void adopt(Hive& hive, Cell parent, const SubkeySlot& slot, Cell child, const NewKey& fresh, uint64_t time) {
    const Cell list = insertSubkey(hive, listOf(cellData(hive, parent)), slot, child);
    const std::span<uint8_t> key = changeCell(hive, parent);
    const uint16_t nameSize = static_cast<uint16_t>(2 * fresh.name.size());
    const uint32_t classSize = static_cast<uint32_t>(fresh.classText.size());
    set(key, nk::subkeyList, list);
    set(key, nk::subkeyCount, get(key, nk::subkeyCount) + 1);
    set(key, nk::longestSubkeyName, std::max(get(key, nk::longestSubkeyName), nameSize));
    set(key, nk::longestSubkeyClass, std::max(get(key, nk::longestSubkeyClass), classSize));
    set(key, nk::lastWrite, time);
}

void abandon(Hive& hive, Cell parent, const SubkeySlot& slot, uint64_t time) {
    const Cell list = removeSubkey(hive, listOf(cellData(hive, parent)), slot);
    const std::span<uint8_t> key = changeCell(hive, parent);
    set(key, nk::subkeyList, list);
    set(key, nk::subkeyCount, get(key, nk::subkeyCount) - 1);
    set(key, nk::lastWrite, time);
    if (list != noCell) return;
    set(key, nk::longestSubkeyName, 0);
    set(key, nk::longestSubkeyClass, 0);
}

NTSTATUS createSubkey(Hive& hive, Cell parent, const NewKey& fresh, uint64_t time, Cell& child) {
    const Cell list = listOf(cellData(hive, parent));
    const SubkeySlot slot = findSubkey(hive, list, fresh.name);
    if (slot.found) return STATUS_OBJECT_NAME_COLLISION;
    const uint64_t growth = newKeyGrowth(fresh) + insertGrowth(hive, list, slot);
    if (const NTSTATUS status = makeRoom(hive, growth); status < 0) return status;
    child = storeKey(hive, parent, fresh, time);
    adopt(hive, parent, slot, child, fresh, time);
    return STATUS_SUCCESS;
}

} /* namespace */

uint64_t newKeyGrowth(const NewKey& fresh) {
    const uint64_t classGrowth = fresh.classText.empty() ? 0 : growthFor(fresh.classText.size());
    return growthFor(nk::name + storedSize(fresh.name)) + classGrowth + descriptorGrowth(fresh.descriptor);
}

Cell storeKey(Hive& hive, Cell parent, const NewKey& fresh, uint64_t time) {
    const Cell cell = allocateCell(hive, nk::name + storedSize(fresh.name));
    Cell descriptor = noCell;
    const NTSTATUS taken = guarded([&] {
        descriptor = takeDescriptor(hive, fresh.descriptor);
        return STATUS_SUCCESS;
    });
    if (taken < 0) {
        releaseCell(hive, cell);
        throw std::bad_alloc();
    }
    const Cell classCell = storeClass(hive, fresh.classText);
    const std::span<uint8_t> key = changeCell(hive, cell);
    const uint16_t form = compressible(fresh.name) ? nk::compressedName : 0;
    set(key, nk::signature, nk::magic);
    set(key, nk::flags, static_cast<uint16_t>(fresh.flags | form));
    set(key, nk::lastWrite, time);
    set(key, nk::parent, parent);
    set(key, nk::subkeyList, noCell);
    set(key, nk::volatileList, noCell);
    set(key, nk::valueList, noCell);
    set(key, nk::descriptor, descriptor);
    set(key, nk::classCell, classCell);
    set(key, nk::nameLength, static_cast<uint16_t>(storedSize(fresh.name)));
    set(key, nk::classLength, static_cast<uint16_t>(fresh.classText.size()));
    storeName(fresh.name, key.data() + nk::name);
    hive.keys.set(cell);
    return cell;
}

/* ---- Reading ---- */

Cell hiveRoot(const Hive& hive) {
    return hive.root;
}

bool hiveKeyIsLink(const Hive& hive, Cell key) {
    return isKey(hive, key) && (get(cellData(hive, key), nk::flags) & HIVE_KEY_LINK) != 0;
}

NTSTATUS hiveKey(const Hive& hive, Cell key, HiveKey& info) {
    if (!isKey(hive, key)) return STATUS_REGISTRY_CORRUPT;
    const Bytes data = cellData(hive, key);
    info.flags = get(data, nk::flags);
    info.lastWrite = get(data, nk::lastWrite);
    info.parent = key == hive.root ? noCell : get(data, nk::parent);
    info.subkeyCount = get(data, nk::subkeyCount);
    info.valueCount = valueCount(data);
    info.nameLength = static_cast<uint16_t>(keyName(data).length());
    info.classLength = get(data, nk::classLength);
    return STATUS_SUCCESS;
}

size_t hiveKeyName(const Hive& hive, Cell key, char16_t* name) {
    if (!isKey(hive, key)) return 0;
    const StoredName stored = keyName(cellData(hive, key));
    copyName(stored, name);
    return stored.length();
}

Bytes hiveKeyClass(const Hive& hive, Cell key) {
    if (!isKey(hive, key)) return {};
    const Bytes data = cellData(hive, key);
    const uint16_t length = get(data, nk::classLength);
    if (length == 0) return {};
    return cellData(hive, get(data, nk::classCell)).first(length);
}

Bytes hiveKeyDescriptor(const Hive& hive, Cell key) {
    if (!isKey(hive, key)) return {};
    return descriptorIn(hive, get(cellData(hive, key), nk::descriptor));
}

NTSTATUS hiveSubkey(const Hive& hive, Cell key, uint32_t index, Cell& child) {
    if (!isKey(hive, key)) return STATUS_REGISTRY_CORRUPT;
    const Bytes data = cellData(hive, key);
    if (index >= get(data, nk::subkeyCount)) return STATUS_NO_MORE_ENTRIES;
    child = subkeyAt(hive, get(data, nk::subkeyList), index);
    hive.lastSubkey = {hive.generation, key, child};
    return STATUS_SUCCESS;
}

NTSTATUS hiveFindSubkey(const Hive& hive, Cell key, std::u16string_view name, Cell& child) {
    if (!isKey(hive, key)) return STATUS_REGISTRY_CORRUPT;
    const SubkeyMemory& last = hive.lastSubkey;
    if (last.generation == hive.generation && last.key == key &&
        compareNames(keyName(cellData(hive, last.child)), name) == 0) {
        child = last.child;
        return STATUS_SUCCESS;
    }
    const SubkeySlot slot = findSubkey(hive, listOf(cellData(hive, key)), name);
    if (!slot.found) return STATUS_OBJECT_NAME_NOT_FOUND;
    child = slot.child;
    return STATUS_SUCCESS;
}

/* ---- Changing ---- */

NTSTATUS hiveCreateSubkey(Hive& hive, Cell parent, std::u16string_view name, Bytes classText,
                          Bytes descriptor, uint16_t flags, uint64_t time, Cell& child) {
    constexpr uint16_t allowed = HIVE_KEY_LINK | HIVE_KEY_NO_DELETE;
    if (!isKey(hive, parent)) return STATUS_REGISTRY_CORRUPT;
    if (!validName(name) || classText.size() > UINT16_MAX || (flags & ~allowed) != 0 ||
        !validDescriptor(descriptor) || tooDeep(hive, parent)) {
        return STATUS_INVALID_PARAMETER;
    }
    const NewKey fresh{name, classText, findDescriptor(hive, descriptor), flags};
    return guarded([&] { return createSubkey(hive, parent, fresh, time, child); });
}

NTSTATUS hiveDeleteKey(Hive& hive, Cell key, uint64_t time) {
    if (!isKey(hive, key)) return STATUS_REGISTRY_CORRUPT;
    const Bytes data = cellData(hive, key);
    constexpr uint16_t kept = HIVE_KEY_ROOT | HIVE_KEY_NO_DELETE;
    if (key == hive.root || (get(data, nk::flags) & kept) != 0 || get(data, nk::subkeyCount) != 0) {
        return STATUS_CANNOT_DELETE;
    }
    const Cell parent = get(data, nk::parent);
    char16_t name[longestKeyName];
    const size_t length = hiveKeyName(hive, key, name);
    const SubkeySlot slot = findSubkey(hive, listOf(cellData(hive, parent)), {name, length});

    releaseValues(hive, key);
    if (get(data, nk::classLength) != 0) releaseCell(hive, get(data, nk::classCell));
    dropDescriptor(hive, get(data, nk::descriptor));
    abandon(hive, parent, slot, time);
    hive.keys.clear(key);
    releaseCell(hive, key);
    return STATUS_SUCCESS;
}

NTSTATUS hiveSetKeyDescriptor(Hive& hive, Cell key, Bytes descriptor, uint64_t time) {
    if (!isKey(hive, key)) return STATUS_REGISTRY_CORRUPT;
    if (!validDescriptor(descriptor)) return STATUS_INVALID_PARAMETER;
    return guarded([&] {
        const DescriptorUse use = findDescriptor(hive, descriptor);
        if (const NTSTATUS status = makeRoom(hive, descriptorGrowth(use)); status < 0) return status;
        const Cell before = get(cellData(hive, key), nk::descriptor);
        const Cell after = takeDescriptor(hive, use);
        set(changeCell(hive, key), nk::descriptor, after);
        set(changeCell(hive, key), nk::lastWrite, time);
        dropDescriptor(hive, before);
        return STATUS_SUCCESS;
    });
}

} /* namespace offline */
