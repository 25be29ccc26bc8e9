/* SPDX-License-Identifier: GPL-2.0-or-later */
/* SAM: the accounts of the machine. */
#include <cstring>

#include "companion/formatting.h"
#include "companion/practice/sample_hive.h"

namespace companion {
namespace {

void put32(ByteVector& out, size_t at, size_t number) {
    const auto value = static_cast<uint32_t>(number);
    memcpy(&out[at], &value, sizeof value);
}

/* A value "V": a header of 12 bytes for each part (offset counted from the end of the header, length, one
 * more number), then the parts. */
ByteVector accountValue(const std::vector<ByteVector>& parts) {
    constexpr size_t partHeader = 12;
    const size_t header = partHeader * parts.size();
    ByteVector out(header);
    for (size_t i = 0; i < parts.size(); i++) {
        put32(out, i * partHeader, out.size() - header);
        put32(out, i * partHeader + 4, parts[i].size());
        out.insert(out.end(), parts[i].begin(), parts[i].end());
        out.resize((out.size() + 3) / 4 * 4);
    }
    return out;
}

/* Of a domain: its descriptor, its SID, its name. The SID of the account domain is the machine's. */
ByteVector domainValue(const ByteVector& sid, std::u16string_view name) {
    return accountValue({samDescriptor(), sid, utf16Bytes(name), {}});
}

ByteVector userValue(const Machine& machine, uint32_t rid, std::u16string_view name) {
    const ByteVector descriptor = layOut({u"S-1-5-32-544",
                                          u"S-1-5-32-544",
                                          0,
                                          {{{ACCESS_ALLOWED_ACE_TYPE, 0, 0xF07FF, u"S-1-5-32-544"},
                                            {ACCESS_ALLOWED_ACE_TYPE, 0, 0x20044, machine.account(rid)}}},
                                          {}});
    return accountValue({descriptor, utf16Bytes(name), {}, utf16Bytes(u"Practice account")});
}

/* The unnamed value whose type is a RID, as a name's key has it. */
Value ridValue(uint32_t rid) {
    return {u"", rid, {}};
}

struct Account {
    uint32_t rid;
    const char16_t* name;
};
constexpr Account users[] = {{500, u"Administrator"}, {501, u"Guest"}, {1000, u"alice"}, {1001, u"bob"}};
constexpr Account groups[] = {{513, u"None"}};
constexpr Account aliases[] = {{1002, u"Practice readers"}};
constexpr Account builtinAliases[] = {{544, u"Administrators"}, {545, u"Users"}, {546, u"Guests"}};

const std::u16string account = u"SAM\\Domains\\Account\\";
const std::u16string builtin = u"SAM\\Domains\\Builtin\\";

void addUsers(Keys& keys, const Machine& machine) {
    for (const Account& user : users) {
        keys.push_back({account + u"Users\\" + hexadecimal(user.rid, 8),
                        {binary(u"F", ByteVector(80, static_cast<uint8_t>(user.rid))),
                         binary(u"V", userValue(machine, user.rid, user.name))}});
        keys.push_back({account + u"Users\\Names\\" + user.name, {ridValue(user.rid)}});
    }
}

template <size_t count>
void addAliases(Keys& keys, const std::u16string& below, const Account (&list)[count],
                const ByteVector& members) {
    for (const Account& alias : list) {
        keys.push_back({below + hexadecimal(alias.rid, 8), {binary(u"C", accountValue({members}))}});
        keys.push_back({below + u"Names\\" + alias.name, {ridValue(alias.rid)}});
    }
}

} /* namespace */

HiveSketch samHive(const Machine& machine) {
    const ByteVector alice = sidBytes(machine.account(1000));
    Keys keys = {
        {u"SAM", {{u"C", REG_BINARY, ByteVector(16, 7)}}, samDescriptor()},
        {u"SAM\\RXACT", {{u"", REG_NONE, ByteVector(12)}}},
        {u"SAM\\Domains"},
        {u"SAM\\Domains\\Account",
         {binary(u"F", ByteVector(240)), binary(u"V", domainValue(sidBytes(machine.sid), u"PRACTICE"))}},
        {u"SAM\\Domains\\Builtin",
         {binary(u"F", ByteVector(240)), binary(u"V", domainValue(sidBytes(u"S-1-5-32"), u"Builtin"))}},
    };
    addUsers(keys, machine);
    addAliases(keys, account + u"Groups\\", groups, alice);
    addAliases(keys, account + u"Aliases\\", aliases, alice);
    addAliases(keys, builtin + u"Aliases\\", builtinAliases, alice);
    for (const Account& user : users) { /* who is a member of what, by domain and RID */
        keys.push_back({builtin + u"Aliases\\Members\\" + machine.sid + u"\\" + hexadecimal(user.rid, 8),
                        {binary(u"", {0x20, 2, 0, 0})}});
    }
    keys.push_back({builtin + u"Aliases\\Members\\" + machine.sid, {{u"", std::size(users), {}}}});
    keys.push_back({builtin + u"Aliases\\Members\\S-1-5", {{u"", 2, {}}}});
    return {u"\\SystemRoot\\System32\\Config\\SAM", 3, samDescriptor(), std::move(keys)};
}

} /* namespace companion */
