/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Values: reading, setting and deleting them. */
#include <algorithm>

#include "platform/offline/base/guarded.h"
#include "platform/offline/hive/cells.h"
#include "platform/offline/hive/data.h"
#include "platform/offline/hive/hive.h"
#include "platform/offline/hive/key_nodes.h"
#include "platform/offline/hive/names.h"

namespace offline {
namespace {

using namespace regf;

constexpr uint32_t notThere = UINT32_MAX;
constexpr uint32_t mostValues = UINT32_MAX / sizeof(Cell) / 2;

Cell valueCell(const Hive& hive, Bytes key, uint32_t index) {
    return entryAt(cellData(hive, get(key, nk::valueList)), 0, index);
}

/* The value's index in its key's list, or notThere. */
uint32_t findValue(const Hive& hive, Cell key, std::u16string_view name) {
    const Bytes data = cellData(hive, key);
    const uint32_t count = valueCount(data);
    for (uint32_t i = 0; i < count; i++) {
        const StoredName stored = valueName(cellData(hive, valueCell(hive, data, i)));
        if (stored.length() == name.size() && compareNames(stored, name) == 0) return i;
    }
    return notThere;
}

StoredData storedData(Bytes value) {
    return {get(value, vk::dataSize), get(value, vk::data)};
}

void readValue(const Hive& hive, Cell cell, HiveValue& value) {
    const Bytes data = cellData(hive, cell);
    value = {cell, get(data, vk::type), dataLength(storedData(data)),
             static_cast<uint16_t>(valueName(data).length())};
}

/* The cell of a value that a caller names; empty when there is none. */
Bytes valueAt(const Hive& hive, const HiveValue& value) {
    const Bytes data = cellData(hive, value.cell);
    if (data.size() < vk::name || get(data, vk::signature) != vk::magic) return {};
    return data;
}

/* Stamps a key whose value of these lengths has been set. */
void noteChange(Hive& hive, Cell key, size_t nameLength, size_t length, uint64_t time) {
    const std::span<uint8_t> data = changeCell(hive, key);
    set(data, nk::longestValueName,
        std::max(get(data, nk::longestValueName), static_cast<uint32_t>(2 * nameLength)));
    set(data, nk::longestValueData, std::max(get(data, nk::longestValueData), static_cast<uint32_t>(length)));
    set(data, nk::lastWrite, time);
}

size_t listSize(uint32_t count) {
    return (count < 16 ? count : count + count / 8) * sizeof(Cell);
}

/* The room that one more entry in the key's list of values needs. */
uint64_t listGrowth(const Hive& hive, Bytes key) {
    const uint32_t count = valueCount(key);
    if (count != 0 && cellData(hive, get(key, nk::valueList)).size() >= (count + 1) * sizeof(Cell)) return 0;
    return growthFor(listSize(count + 1));
}

void appendValue(Hive& hive, Cell key, Cell value) {
    const uint32_t count = valueCount(cellData(hive, key));
    Cell list = count == 0 ? noCell : get(cellData(hive, key), nk::valueList);
    if (list == noCell || cellData(hive, list).size() < (count + 1) * sizeof(Cell)) {
        const Cell longer = allocateCell(hive, listSize(count + 1));
        if (list != noCell) {
            memcpy(changeCell(hive, longer).data(), cellData(hive, list).data(), count * sizeof(Cell));
            releaseCell(hive, list);
        }
        list = longer;
    }
    setEntry(changeCell(hive, list), 0, count, value);
    const std::span<uint8_t> data = changeCell(hive, key);
    set(data, nk::valueList, list);
    set(data, nk::valueCount, count + 1);
}

void putData(Hive& hive, Cell cell, uint32_t type, Bytes data) {
    const StoredData stored = replaceData(hive, storedData(cellData(hive, cell)), data);
    const std::span<uint8_t> value = changeCell(hive, cell);
    set(value, vk::dataSize, stored.size);
    set(value, vk::data, stored.where);
    set(value, vk::type, type);
}

Cell newValue(Hive& hive, std::u16string_view name) {
    const Cell cell = allocateCell(hive, vk::name + storedSize(name));
    const std::span<uint8_t> value = changeCell(hive, cell);
    set(value, vk::signature, vk::magic);
    set(value, vk::nameLength, static_cast<uint16_t>(storedSize(name)));
    /* The platform marks no form on a name that is not there. */
    set(value, vk::flags, !name.empty() && compressible(name) ? vk::compressedName : 0);
    storeName(name, value.data() + vk::name);
    return cell;
}

NTSTATUS setValue(Hive& hive, Cell key, std::u16string_view name, uint32_t type, Bytes data) {
    const Bytes node = cellData(hive, key);
    const uint32_t index = findValue(hive, key, name);
    uint64_t growth = dataGrowth(hive, data.size());
    if (index == notThere) growth += growthFor(vk::name + storedSize(name)) + listGrowth(hive, node);
    if (index == notThere && valueCount(node) >= mostValues) return STATUS_INSUFFICIENT_RESOURCES;
    if (const NTSTATUS status = makeRoom(hive, growth); status < 0) return status;

    const Cell cell = index == notThere ? newValue(hive, name) : valueCell(hive, cellData(hive, key), index);
    putData(hive, cell, type, data);
    if (index == notThere) appendValue(hive, key, cell);
    return STATUS_SUCCESS;
}

void removeValue(Hive& hive, Cell key, uint32_t index) {
    const std::span<uint8_t> data = changeCell(hive, key);
    const Cell list = get(data, nk::valueList);
    const uint32_t count = get(data, nk::valueCount) - 1;
    set(data, nk::valueCount, count);
    if (count != 0) {
        uint8_t* at = changeCell(hive, list).data() + index * sizeof(Cell);
        memmove(at, at + sizeof(Cell), (count - index) * sizeof(Cell));
        return;
    }
    set(data, nk::valueList, noCell);
    set(data, nk::longestValueName, 0);
    set(data, nk::longestValueData, 0);
    releaseCell(hive, list);
}

bool isPredefined(const Hive& hive, Cell key) {
    return (get(cellData(hive, key), nk::flags) & nk::predefinedHandle) != 0;
}

} /* namespace */

uint32_t valueCount(Bytes key) {
    return (get(key, nk::flags) & nk::predefinedHandle) != 0 ? 0 : get(key, nk::valueCount);
}

void releaseValues(Hive& hive, Cell key) {
    const Bytes data = cellData(hive, key);
    const uint32_t count = valueCount(data);
    for (uint32_t i = 0; i < count; i++) {
        const Cell cell = valueCell(hive, data, i);
        releaseData(hive, storedData(cellData(hive, cell)));
        releaseCell(hive, cell);
    }
    if (count != 0) releaseCell(hive, get(data, nk::valueList));
}

NTSTATUS hiveValue(const Hive& hive, Cell key, uint32_t index, HiveValue& value) {
    if (!isKey(hive, key)) return STATUS_REGISTRY_CORRUPT;
    const Bytes data = cellData(hive, key);
    if (index >= valueCount(data)) return STATUS_NO_MORE_ENTRIES;
    readValue(hive, valueCell(hive, data, index), value);
    return STATUS_SUCCESS;
}

NTSTATUS hiveFindValue(const Hive& hive, Cell key, std::u16string_view name, HiveValue& value) {
    if (!isKey(hive, key)) return STATUS_REGISTRY_CORRUPT;
    const uint32_t index = findValue(hive, key, name);
    if (index == notThere) return STATUS_OBJECT_NAME_NOT_FOUND;
    readValue(hive, valueCell(hive, cellData(hive, key), index), value);
    return STATUS_SUCCESS;
}

void hiveValueName(const Hive& hive, const HiveValue& value, char16_t* name) {
    const Bytes data = valueAt(hive, value);
    if (!data.empty()) copyName(valueName(data), name);
}

void hiveValueData(const Hive& hive, const HiveValue& value, std::span<uint8_t> out) {
    const Bytes data = valueAt(hive, value);
    if (!data.empty()) readData(hive, storedData(data), out);
}

NTSTATUS hiveSetValue(Hive& hive, Cell key, std::u16string_view name, uint32_t type, Bytes data,
                      uint64_t time) {
    if (!isKey(hive, key)) return STATUS_REGISTRY_CORRUPT;
    if (name.size() > longestValueName || data.size() > longestData || isPredefined(hive, key)) {
        return STATUS_INVALID_PARAMETER;
    }
    const NTSTATUS status = guarded([&] { return setValue(hive, key, name, type, data); });
    if (status >= 0) noteChange(hive, key, name.size(), data.size(), time);
    return status;
}

NTSTATUS hiveDeleteValue(Hive& hive, Cell key, std::u16string_view name, uint64_t time) {
    if (!isKey(hive, key)) return STATUS_REGISTRY_CORRUPT;
    const uint32_t index = findValue(hive, key, name);
    if (index == notThere) return STATUS_OBJECT_NAME_NOT_FOUND;
    const Cell cell = valueCell(hive, cellData(hive, key), index);
    releaseData(hive, storedData(cellData(hive, cell)));
    releaseCell(hive, cell);
    removeValue(hive, key, index);
    set(changeCell(hive, key), nk::lastWrite, time);
    return STATUS_SUCCESS;
}

} /* namespace offline */
