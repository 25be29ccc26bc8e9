/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Descriptors for what the benchmarks make. */
#ifndef QUILLET_BENCH_MADE_DESCRIPTOR_H
#define QUILLET_BENCH_MADE_DESCRIPTOR_H

#include <string>
#include <vector>

#include "platform/offline/descriptor/sid_format.h"

namespace offline {

inline void put(std::vector<uint8_t>& bytes, uint64_t number, size_t size) {
    for (size_t i = 0; i < size; ++i) bytes.push_back(static_cast<uint8_t>(number >> (8 * i)));
}

inline void append(std::vector<uint8_t>& bytes, const std::vector<uint8_t>& more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
}

/* Self-relative: owned by an account of the machine, number rid from 1000 on, as group too, which may do
 * everything; two well-known ones beside it. */
inline std::vector<uint8_t> descriptorOf(const std::string& machine, size_t rid) {
    const std::vector<uint8_t> account = sidFromText(machine + "-" + std::to_string(1000 + rid));
    std::vector<uint8_t> list;
    for (const auto& sid : {account, sidFromText("S-1-5-18"), sidFromText("S-1-5-32-544")}) {
        put(list, 0, 2);
        put(list, 8 + sid.size(), 2);
        put(list, 0x1F01FF, 4);
        append(list, sid);
    }
    std::vector<uint8_t> bytes;
    put(bytes, 0x80040001, 4); /* self-relative, with a list of rights */
    put(bytes, 20, 4);
    put(bytes, 20 + account.size(), 4);
    put(bytes, 0, 4);
    put(bytes, 20 + 2 * account.size(), 4);
    append(bytes, account);
    append(bytes, account);
    put(bytes, 2, 2);
    put(bytes, 8 + list.size(), 2);
    put(bytes, 3, 4);
    append(bytes, list);
    return bytes;
}

} /* namespace offline */

#endif
