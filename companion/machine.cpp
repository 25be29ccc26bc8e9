/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "companion/machine.h"

#include <sys/random.h>

#include <cstring>

#include "companion/ending.h"
#include "companion/formatting.h"
#include "platform/offline/base/unicode.h"
#include "platform/offline/descriptor/sid_format.h"
#include "platform/offline/hive/hive_paths.h"

namespace companion {
namespace {

constexpr size_t accountHeaderSize = 48; /* bytes of the value "V" of the account domain, before its parts */
constexpr size_t sidOffsetAt = 12;       /* the SID's offset, counted from the end of the header */
constexpr size_t sidLengthAt = 16;
constexpr size_t longestAccountValue = 1 << 20; /* bytes; ours to set, the value has some hundred */

uint32_t number32(offline::Bytes bytes, size_t at) {
    uint32_t value;
    memcpy(&value, &bytes[at], sizeof value);
    return value;
}

/* The part of the account value that holds the SID; empty when it does not lie inside. */
offline::Bytes accountSid(offline::Bytes value) {
    if (value.size() < accountHeaderSize) return {};
    const uint64_t offset = accountHeaderSize + uint64_t{number32(value, sidOffsetAt)};
    const uint64_t length = number32(value, sidLengthAt);
    if (offset > value.size() || length > value.size() - offset) return {};
    return value.subspan(offset, length);
}

} /* namespace */

std::u16string Machine::account(uint32_t rid) const {
    return sid + u"-" + decimal(rid);
}

bool isMachineSid(offline::Bytes sid) {
    static const uint8_t head[12] = {1, 4, 0, 0, 0, 0, 0, 5, 21, 0, 0, 0};
    return sid.size() == machineSidSize && memcmp(sid.data(), head, sizeof head) == 0;
}

Machine randomMachine() {
    uint32_t parts[3];
    if (getrandom(parts, sizeof parts, 0) != static_cast<ssize_t>(sizeof parts)) {
        throw Failure{"the system gives no random numbers; name a SID with --machine"};
    }
    Machine machine{u"S-1-5-21"};
    for (const uint32_t part : parts) machine.sid += u"-" + decimal(part);
    return machine;
}

Machine machineFromText(const std::string& text) {
    if (!isMachineSid(offline::sidFromText(text))) {
        throw Failure{"--machine: \"" + text +
                      "\" is no machine SID; give one such as S-1-5-21-1111-2222-3333"};
    }
    return {offline::toUtf16(offline::sidToText(offline::sidFromText(text)))};
}

std::vector<uint8_t> sidBytes(std::u16string_view text) {
    return offline::sidFromText(offline::toUtf8(text));
}

std::string samMachineSid(const offline::Hive& sam, std::string& why) {
    offline::Cell key;
    offline::HiveValue value;
    if (offline::hiveFindPath(sam, u"SAM\\Domains\\Account", key) < 0 ||
        offline::hiveFindValue(sam, key, u"V", value) < 0) {
        why = "has no value \"V\" in SAM\\Domains\\Account";
        return {};
    }
    if (value.type != REG_BINARY || value.dataLength > longestAccountValue) {
        why = "has a value \"V\" in SAM\\Domains\\Account that is no account domain";
        return {};
    }
    std::vector<uint8_t> bytes(value.dataLength);
    offline::hiveValueData(sam, value, bytes);
    const offline::Bytes sid = accountSid(bytes);
    if (isMachineSid(sid)) return offline::sidToText(sid);
    why = "has a value \"V\" in SAM\\Domains\\Account without a machine SID where its header says";
    return {};
}

} /* namespace companion */
