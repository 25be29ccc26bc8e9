/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/registry/key_information.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

#include "platform/offline/registry/registry_state.h"

namespace offline {
namespace {

constexpr ULONG nowhere = 0xFFFFFFFF; /* the offset of a part that the record doesn't have */

/* Parts after a name begin at the next multiple of four. */
size_t afterName(size_t nameAt, size_t nameBytes) {
    return (nameAt + nameBytes + 3) & ~size_t{3};
}

/* The part of the buffer from an offset on, at most length bytes. */
std::span<uint8_t> partOf(const QueryBuffer& out, size_t at, size_t length) {
    if (at >= out.size) return {};
    return {static_cast<uint8_t*>(out.bytes) + at, std::min(length, out.size - at)};
}

void copyPart(const QueryBuffer& out, size_t at, const void* bytes, size_t length) {
    const std::span part = partOf(out, at, length);
    if (!part.empty()) memcpy(part.data(), bytes, part.size());
}

/* Reports the record's size and what that means for the buffer. */
NTSTATUS fit(const QueryBuffer& out, size_t fixedPart, size_t total) {
    *out.total = static_cast<ULONG>(total);
    if (out.size < fixedPart) return STATUS_BUFFER_TOO_SMALL;
    return out.size < total ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
}

struct KeyFacts {
    HiveKey info;
    char16_t name[longestKeyName];
    size_t nameBytes;
};

NTSTATUS writeBasic(const KeyFacts& key, const QueryBuffer& out) {
    constexpr size_t nameAt = offsetof(KEY_BASIC_INFORMATION, Name);
    KEY_BASIC_INFORMATION fixed{};
    fixed.LastWriteTime.QuadPart = static_cast<LONGLONG>(key.info.lastWrite);
    fixed.NameLength = static_cast<ULONG>(key.nameBytes);
    const NTSTATUS status = fit(out, nameAt, nameAt + key.nameBytes);
    if (status == STATUS_BUFFER_TOO_SMALL) return status;
    copyPart(out, 0, &fixed, nameAt);
    copyPart(out, nameAt, key.name, key.nameBytes);
    return status;
}

NTSTATUS writeNode(const KeyRef& ref, const KeyFacts& key, const QueryBuffer& out) {
    constexpr size_t nameAt = offsetof(KEY_NODE_INFORMATION, Name);
    const auto classText = hiveKeyClass(*ref.mount->hive, ref.cell);
    const size_t classAt = afterName(nameAt, key.nameBytes);
    KEY_NODE_INFORMATION fixed{};
    fixed.LastWriteTime.QuadPart = static_cast<LONGLONG>(key.info.lastWrite);
    fixed.ClassOffset = classText.empty() ? nowhere : static_cast<ULONG>(classAt);
    fixed.ClassLength = static_cast<ULONG>(classText.size());
    fixed.NameLength = static_cast<ULONG>(key.nameBytes);
    const size_t total = classText.empty() ? nameAt + key.nameBytes : classAt + classText.size();
    const NTSTATUS status = fit(out, nameAt, total);
    if (status == STATUS_BUFFER_TOO_SMALL) return status;
    copyPart(out, 0, &fixed, nameAt);
    copyPart(out, nameAt, key.name, key.nameBytes);
    copyPart(out, classAt, classText.data(), classText.size());
    return status;
}

NTSTATUS writeFull(const Hive& hive, const HiveValue& value, const QueryBuffer& out) {
    constexpr size_t nameAt = offsetof(KEY_VALUE_FULL_INFORMATION, Name);
    const size_t nameBytes = value.nameLength * sizeof(char16_t);
    const size_t dataAt = afterName(nameAt, nameBytes);
    KEY_VALUE_FULL_INFORMATION fixed{};
    fixed.Type = value.type;
    fixed.DataOffset = value.dataLength == 0 ? nowhere : static_cast<ULONG>(dataAt);
    fixed.DataLength = value.dataLength;
    fixed.NameLength = static_cast<ULONG>(nameBytes);
    const size_t total = value.dataLength == 0 ? nameAt + nameBytes : dataAt + value.dataLength;
    const NTSTATUS status = fit(out, nameAt, total);
    if (status == STATUS_BUFFER_TOO_SMALL) return status;
    std::array<char16_t, longestValueName>& name = registryState().valueName;
    hiveValueName(hive, value, name.data());
    copyPart(out, 0, &fixed, nameAt);
    copyPart(out, nameAt, name.data(), nameBytes);
    hiveValueData(hive, value, partOf(out, dataAt, value.dataLength));
    return status;
}

NTSTATUS writePartial(const Hive& hive, const HiveValue& value, const QueryBuffer& out) {
    constexpr size_t dataAt = offsetof(KEY_VALUE_PARTIAL_INFORMATION, Data);
    KEY_VALUE_PARTIAL_INFORMATION fixed{};
    fixed.Type = value.type;
    fixed.DataLength = value.dataLength;
    const NTSTATUS status = fit(out, dataAt, dataAt + value.dataLength);
    if (status == STATUS_BUFFER_TOO_SMALL) return status;
    copyPart(out, 0, &fixed, dataAt);
    hiveValueData(hive, value, partOf(out, dataAt, value.dataLength));
    return status;
}

} /* namespace */

NTSTATUS writeKeyFlags(const KeyRef& key, const QueryBuffer& out) {
    HiveKey info;
    const NTSTATUS found = hiveKey(*key.mount->hive, key.cell, info);
    if (found < 0) return found;
    KEY_FLAGS_INFORMATION flags{};
    flags.KeyFlags = (info.flags & HIVE_KEY_LINK) != 0 ? REG_FLAG_LINK : 0;
    const NTSTATUS status = fit(out, sizeof flags, sizeof flags);
    if (status >= 0) copyPart(out, 0, &flags, sizeof flags);
    return status;
}

NTSTATUS writeKeyRecord(const KeyRef& key, KEY_INFORMATION_CLASS infoClass, const QueryBuffer& out) {
    KeyFacts facts;
    const NTSTATUS status = hiveKey(*key.mount->hive, key.cell, facts.info);
    if (status < 0) return status;
    facts.nameBytes = keyName(key, facts.name) * sizeof(char16_t);
    switch (infoClass) {
        case KeyBasicInformation:
            return writeBasic(facts, out);
        case KeyNodeInformation:
            return writeNode(key, facts, out);
        default:
            return STATUS_INVALID_PARAMETER;
    }
}

NTSTATUS writeValueRecord(const Hive& hive, const HiveValue& value, KEY_VALUE_INFORMATION_CLASS infoClass,
                          const QueryBuffer& out) {
    switch (infoClass) {
        case KeyValueFullInformation:
            return writeFull(hive, value, out);
        case KeyValuePartialInformation:
            return writePartial(hive, value, out);
        default:
            return STATUS_INVALID_PARAMETER;
    }
}

} /* namespace offline */
