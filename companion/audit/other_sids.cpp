/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "companion/audit/other_sids.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <string_view>

namespace companion {
namespace {

constexpr size_t countAt = 1, numbersAt = 12, idSize = 12; /* of a SID */
constexpr uint8_t fewest = 4, most = 15;                   /* sub-authorities */
const uint8_t authority[] = {0, 0, 0, 0, 0, 5, 21, 0, 0, 0};
const std::u16string_view prefix = u"S-1-5-21-";

size_t find(offline::Bytes data, size_t from, offline::Bytes needle) {
    if (from >= data.size()) return data.size();
    const void* found = memmem(data.data() + from, data.size() - from, needle.data(), needle.size());
    return found == nullptr ? data.size()
                            : static_cast<size_t>(static_cast<const uint8_t*>(found) - data.data());
}

void add(const MachineId& id, MachineIds& ids) {
    if (id != MachineId{} && std::find(ids.begin(), ids.end(), id) == ids.end()) ids.push_back(id);
}

/* The SID at the head of the bytes. */
std::optional<MachineId> readSid(offline::Bytes sid) {
    if (sid.size() < numbersAt + idSize || sid[0] != 1) return std::nullopt;
    const uint8_t count = sid[countAt];
    if (count < fewest || count > most || sid.size() < 8 + 4 * size_t{count}) return std::nullopt;
    MachineId id;
    memcpy(id.data(), &sid[numbersAt], idSize);
    return id;
}

/* A decimal number at an offset of UTF-16 text, which is moved past it. */
std::optional<uint32_t> readNumber(offline::Bytes text, size_t& at) {
    uint64_t number = 0;
    size_t digits = 0;
    for (; at + 2 <= text.size() && text[at + 1] == 0 && text[at] >= '0' && text[at] <= '9'; at += 2) {
        number = number * 10 + (text[at] - '0');
        if (++digits > 10) return std::nullopt;
    }
    if (digits == 0 || number > UINT32_MAX) return std::nullopt;
    return static_cast<uint32_t>(number);
}

/* The three numbers at an offset. */
std::optional<MachineId> readText(offline::Bytes text, size_t at) {
    MachineId id;
    for (size_t i = 0; i < id.size(); i++) {
        if (i > 0) {
            if (at + 2 > text.size() || text[at] != '-' || text[at + 1] != 0) return std::nullopt;
            at += 2;
        }
        const std::optional<uint32_t> number = readNumber(text, at);
        if (!number) return std::nullopt;
        id[i] = *number;
    }
    return id;
}

} /* namespace */

MachineIds machineIdsIn(offline::Bytes data) {
    MachineIds ids;
    constexpr size_t authorityAt = 2;
    for (size_t at = find(data, authorityAt, authority); at < data.size();
         at = find(data, at + 1, authority)) {
        if (const auto id = readSid(data.subspan(at - authorityAt))) add(*id, ids);
    }
    const offline::Bytes needle = {reinterpret_cast<const uint8_t*>(prefix.data()), 2 * prefix.size()};
    for (size_t at = find(data, 0, needle); at < data.size(); at = find(data, at + 1, needle)) {
        if (const auto id = readText(data, at + needle.size())) add(*id, ids);
    }
    return ids;
}

MachineId machineIdOf(offline::Bytes machineSid) {
    MachineId id;
    memcpy(id.data(), &machineSid[numbersAt], idSize);
    return id;
}

std::string machineIdText(const MachineId& id) {
    std::string text = "S-1-5-21";
    for (const uint32_t number : id) text += "-" + std::to_string(number);
    return text;
}

void OtherSids::add(const MachineId& id) {
    const auto known = places.find(id);
    if (known != places.end()) {
        known->second++;
    } else if (places.size() < mostOtherSids) {
        places.emplace(id, 1);
    } else {
        more++;
    }
}

std::vector<std::pair<std::string, uint64_t>> OtherSids::byPlaces() const {
    std::vector<std::pair<std::string, uint64_t>> sorted;
    for (const auto& [id, count] : places) sorted.emplace_back(machineIdText(id), count);
    std::stable_sort(sorted.begin(), sorted.end(),
                     [](const auto& left, const auto& right) { return left.second > right.second; });
    return sorted;
}

} /* namespace companion */
