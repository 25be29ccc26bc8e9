/* SPDX-License-Identifier: GPL-2.0-or-later */
/* SECURITY: the machine's policy, which names its SID and what its accounts may do. */
#include <cstdint>

#include "companion/practice/sample_hive.h"

namespace companion {
namespace {

/* The policy keeps nearly everything in unnamed values of no type. */
Value plainValue(ByteVector data) {
    return {u"", REG_NONE, std::move(data)};
}

/* A counted name: length and room in bytes, the offset of the text, the text. */
ByteVector countedName(std::u16string_view name) {
    const auto size = static_cast<uint8_t>(name.size() * sizeof(char16_t));
    ByteVector out = {size, 0, static_cast<uint8_t>(size + 2), 0, 8, 0, 0, 0};
    const ByteVector text = utf16Bytes(name);
    out.insert(out.end(), text.begin(), text.end());
    out.resize(out.size() + sizeof(char16_t));
    return out;
}

/* Privileges by number, each with its attributes: a count and a control word before them. */
ByteVector privileges(std::initializer_list<uint8_t> numbers) {
    ByteVector out = {static_cast<uint8_t>(numbers.size()), 0, 0, 0, 0, 0, 0, 0};
    for (const uint8_t number : numbers) {
        const uint8_t one[12] = {number, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
        out.insert(out.end(), one, one + sizeof one);
    }
    return out;
}

void addAccount(Keys& keys, const std::u16string& sid, const Machine& machine) {
    const std::u16string path = u"Policy\\Accounts\\" + sid;
    keys.push_back({path});
    keys.push_back({path + u"\\ActSysAc", {plainValue({1, 0, 0, 0})}});
    keys.push_back({path + u"\\Privilgs", {plainValue(privileges({17, 18, 19, 23}))}});
    keys.push_back({path + u"\\SecDesc", {plainValue(profileDescriptor(machine, 500, keyRights))}});
    keys.push_back({path + u"\\Sid", {plainValue(sidBytes(sid))}});
}

} /* namespace */

HiveSketch securityHive(const Machine& machine) {
    Keys keys = {
        {u"Policy", {}, samDescriptor()},
        {u"Policy\\PolRevision", {plainValue({0, 0, 2, 0})}},
        {u"Policy\\PolAcDmN", {plainValue(countedName(u"PRACTICE"))}},
        {u"Policy\\PolAcDmS", {plainValue(sidBytes(machine.sid))}},
        {u"Policy\\PolPrDmN", {plainValue(countedName(u"WORKGROUP"))}},
        {u"Policy\\PolPrDmS", {plainValue({})}},
        {u"Policy\\PolAdtEv", {plainValue(ByteVector(24))}},
        {u"Policy\\SecDesc", {plainValue(profileDescriptor(machine, 500, keyRights))}},
        {u"Policy\\Secrets\\DefaultPassword\\CurrVal", {plainValue(ByteVector(64, 0x5A))}},
        {u"Policy\\Secrets\\L$" + machine.sid,
         {plainValue(ByteVector(16, 1))}}, /* the SID is not at the start */
        {u"Cache", {binary(u"NL$1", ByteVector(168)), binary(u"NL$Control", {4, 0, 1, 0, 10, 0, 0, 0})}},
        {u"RXACT", {plainValue(ByteVector(12))}},
    };
    for (const char16_t* sid : {u"S-1-5-32-544", u"S-1-5-32-545", u"S-1-5-19", u"S-1-5-20"}) {
        addAccount(keys, sid, machine);
    }
    addAccount(keys, machine.account(1000), machine);
    addAccount(keys, machine.account(1001), machine);
    return {u"\\SystemRoot\\System32\\Config\\SECURITY", 3, samDescriptor(), std::move(keys)};
}

} /* namespace companion */
