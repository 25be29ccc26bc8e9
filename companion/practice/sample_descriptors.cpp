/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "companion/practice/sample_descriptors.h"

#include <algorithm>

#include "companion/formatting.h"
#include "platform/nt.h"

namespace companion {
namespace {

const std::u16string systemSid = u"S-1-5-18";
const std::u16string administratorsSid = u"S-1-5-32-544";
const std::u16string usersSid = u"S-1-5-32-545";
const std::u16string everyoneSid = u"S-1-1-0";
const std::u16string creatorOwnerSid = u"S-1-3-0";
const std::u16string ownerRightsSid = u"S-1-3-4";
const std::u16string mediumLabelSid = u"S-1-16-8192";
const std::u16string trustedInstallerSid = u"S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478464";

/* Types of entries, beside those that platform/nt.h has. */
constexpr uint8_t allow = ACCESS_ALLOWED_ACE_TYPE;
constexpr uint8_t deny = ACCESS_DENIED_ACE_TYPE;
constexpr uint8_t audit = SYSTEM_AUDIT_ACE_TYPE;
constexpr uint8_t alarm = SYSTEM_ALARM_ACE_TYPE;
constexpr uint8_t allowObject = 5;
constexpr uint8_t denyObject = 6;
constexpr uint8_t auditObject = 7;
constexpr uint8_t allowCallback = 9;
constexpr uint8_t denyCallback = 10;
constexpr uint8_t label = 0x11;

/* Flags of entries. */
constexpr uint8_t here = 0;
constexpr uint8_t below = 0x03;     /* objects and containers inherit */
constexpr uint8_t onlyBelow = 0x0B; /* and it does not hold here */
constexpr uint8_t inherited = 0x13;
constexpr uint8_t whenItFails = 0x80;
constexpr uint8_t always = 0xC0;

void put(ByteVector& out, uint64_t number, size_t size) {
    for (size_t i = 0; i < size; i++) out.push_back(static_cast<uint8_t>(number >> 8 * i));
}

void set32(ByteVector& out, size_t at, size_t number) {
    for (size_t i = 0; i < 4; i++) out[at + i] = static_cast<uint8_t>(number >> 8 * i);
}

void append(ByteVector& out, const ByteVector& more) {
    out.insert(out.end(), more.begin(), more.end());
}

bool isObject(const Entry& entry) {
    return entry.type >= allowObject && entry.type <= 8;
}

/* What lies before the SID beside the mask, and what after it. */
ByteVector objectTypes() {
    ByteVector types;
    put(types, 1, 4); /* one type follows: the object's */
    for (uint8_t i = 0; i < 16; i++) types.push_back(static_cast<uint8_t>(0x11 * i));
    return types;
}

ByteVector applicationData(const Entry& entry) {
    if (entry.type != allowCallback && entry.type != denyCallback) return {};
    return {'a', 'r', 't', 'x', 0, 0, 0, 0};
}

ByteVector layOutEntry(const Entry& entry) {
    ByteVector body;
    put(body, entry.mask, 4);
    if (isObject(entry)) append(body, objectTypes());
    append(body, sidBytes(entry.who));
    append(body, applicationData(entry));
    ByteVector out = {entry.type, entry.flags};
    put(out, body.size() + 4, 2);
    append(out, body);
    return out;
}

ByteVector layOutList(const std::vector<Entry>& entries, size_t freeRoom) {
    ByteVector body;
    for (const Entry& entry : entries) append(body, layOutEntry(entry));
    body.resize(body.size() + freeRoom);
    const bool objects = std::any_of(entries.begin(), entries.end(), isObject);
    ByteVector out = {static_cast<uint8_t>(objects ? 4 : 2), 0}; /* the list's revision */
    put(out, body.size() + sizeof(ACL), 2);
    put(out, entries.size(), 2);
    put(out, 0, 2);
    append(out, body);
    return out;
}

/* Appends a part and puts its offset into the header. */
void putPart(ByteVector& out, size_t field, const ByteVector& part) {
    set32(out, field, out.size());
    append(out, part);
}

} /* namespace */

ByteVector layOut(const Shape& shape) {
    uint16_t control = shape.control | SE_SELF_RELATIVE;
    if (shape.dacl) control |= SE_DACL_PRESENT;
    if (shape.sacl) control |= SE_SACL_PRESENT;
    ByteVector out = {SECURITY_DESCRIPTOR_REVISION, 0};
    put(out, control, 2);
    out.resize(sizeof(SECURITY_DESCRIPTOR_RELATIVE));
    constexpr size_t ownerField = 4, groupField = 8, saclField = 12, daclField = 16;
    if (shape.sacl) putPart(out, saclField, layOutList(*shape.sacl, 0));
    if (shape.dacl) putPart(out, daclField, layOutList(*shape.dacl, shape.freeRoom));
    const size_t owner = out.size();
    if (!shape.owner.empty()) putPart(out, ownerField, sidBytes(shape.owner));
    if (shape.ownerIsGroup) {
        set32(out, groupField, owner);
    } else if (!shape.group.empty()) {
        putPart(out, groupField, sidBytes(shape.group));
    }
    return out;
}

ByteVector plainDescriptor(const Rights& rights) {
    return layOut({trustedInstallerSid,
                   systemSid,
                   SE_DACL_AUTO_INHERITED,
                   {{{allow, below, rights.full, systemSid},
                     {allow, below, rights.full, administratorsSid},
                     {allow, below, rights.read, usersSid}}},
                   {}});
}

ByteVector samDescriptor() {
    return layOut({administratorsSid,
                   systemSid,
                   SE_DACL_AUTO_INHERITED | SE_DACL_PROTECTED,
                   {{{allow, below, keyRights.full, systemSid},
                     {allow, below, READ_CONTROL | WRITE_DAC, administratorsSid}}},
                   {}});
}

ByteVector profileDescriptor(const Machine& machine, uint32_t rid, const Rights& rights) {
    const std::u16string owner = machine.account(rid);
    return layOut({owner,
                   machine.account(513),
                   SE_DACL_AUTO_INHERITED | SE_DACL_PROTECTED,
                   {{{allow, below, rights.full, systemSid},
                     {allow, below, rights.full, administratorsSid},
                     {allow, below, rights.full, owner}}},
                   {}});
}

ByteVector rootDescriptor(const Machine& machine) {
    return layOut({trustedInstallerSid,
                   trustedInstallerSid,
                   SE_DACL_PROTECTED,
                   {{{allow, below, fileRights.full, systemSid},
                     {allow, below, fileRights.full, administratorsSid},
                     {allow, below, fileRights.read, usersSid},
                     {allow, below, fileRights.read, machine.account(1000)},
                     {allow, onlyBelow, fileRights.full, creatorOwnerSid}}},
                   {}});
}

std::vector<Shape> oddShapes(const Machine& machine, const Rights& rights) {
    const std::u16string me = machine.sid, alice = machine.account(1000), bob = machine.account(1001);
    const std::u16string none = machine.account(513), administrator = machine.account(500);
    const uint32_t full = rights.full, read = rights.read;
    const std::u16string other = u"S-1-5-21-1-2-3-1000"; /* an account of another machine */
    using List = std::vector<Entry>;
    const List some = {{allow, below, full, systemSid}, {allow, below, full, administratorsSid}};
    const List named = {{allow, below, full, systemSid}, {allow, here, read, alice}, {deny, here, 2, bob}};
    const List audited = {{audit, always, full, administrator}, {label, here, 1, mediumLabelSid}};
    constexpr uint16_t protectedDacl = SE_DACL_PROTECTED;
    constexpr uint16_t inheritedDacl = SE_DACL_AUTO_INHERITED;

    return {
        /* who owns it */
        {alice, none, 0, some, {}},
        {administratorsSid, none, inheritedDacl, some, {}},
        {bob, systemSid, inheritedDacl, some, {}},
        {me, me, 0, some, {}},
        {me, me, 0, some, {}, 0, true},
        {other, machine.account(0xFFFFFFFF), 0, some, {}},
        {alice, none, SE_OWNER_DEFAULTED | SE_GROUP_DEFAULTED, some, {}},
        /* lists that are empty, null or missing */
        {alice, none, protectedDacl, List{}, {}},
        {alice, none, SE_DACL_PRESENT, {}, {}},
        {bob, none, 0, {}, {}},
        {bob, none, 0, some, List{}},
        {bob, none, 0, {}, audited},
        /* how lists came about */
        {administratorsSid, systemSid, protectedDacl, named, {}},
        {administratorsSid, systemSid, inheritedDacl | protectedDacl, named, {}},
        {administratorsSid, systemSid, inheritedDacl, {{{allow, inherited, read, alice}}}, {}},
        {administratorsSid, systemSid, SE_DACL_DEFAULTED, named, {}},
        {administratorsSid, systemSid, SE_SACL_AUTO_INHERITED | SE_SACL_PROTECTED, named, audited},
        /* what they say */
        {alice, none, 0, {{{allow, here, read, me}, {allow, here, read, other}}}, {}},
        {bob, none, 0, {{{deny, here, full, everyoneSid}, {allow, here, full, bob}}}, {}},
        {bob, none, 0, {{{allow, here, full, bob}}}, {}},
        {alice, none, 0, {{{allow, onlyBelow, GENERIC_ALL, creatorOwnerSid}, {allow, here, read, bob}}}, {}},
        {alice, none, 0, {{{allow, here, READ_CONTROL, ownerRightsSid}, {allow, here, read, alice}}}, {}},
        {bob, none, 0, {{{allowCallback, here, read, alice}, {denyCallback, here, 2, alice}}}, {}},
        {alice, none, 0, named, {{{audit, whenItFails, full, alice}, {audit, always, full, everyoneSid}}}},
        {alice, none, 0, named, {{{label, here, 1, mediumLabelSid}}}},
        {alice, none, 0, {{{allow, here, read, alice}, {allow, here, read, alice}}}, {}},
    };
}

std::vector<Shape> oddKeyShapes(const Machine& machine) {
    const std::u16string alice = machine.account(1000), bob = machine.account(1001);
    const std::u16string none = machine.account(513);
    const uint32_t full = keyRights.full, read = keyRights.read;
    using List = std::vector<Entry>;
    const List named = {{allow, below, full, systemSid}, {allow, here, read, alice}};

    return {
        {u"", u"", 0, named, {}},
        {alice, u"", 0, named, {}},
        {u"", none, 0, named, {}},
        {bob, none, 0, named, {}, 32},
        {bob, none, 0, named, {{{alarm, always, full, alice}}}},
        {bob, none, 0, {{{allowObject, here, read, alice}, {denyObject, here, 2, bob}}}, {}},
        {bob, none, 0, named, {{{auditObject, always, full, alice}}}},
    };
}

namespace {

/* The k-th of many different ones, as an installation that was used for long has them. */
Shape varied(const Machine& machine, const Rights& rights, uint32_t k) {
    const uint8_t flags = k % 2 == 0 ? inherited : below;
    std::vector<Entry> dacl = {{allow, flags, rights.full, administratorsSid},
                               {allow, flags, rights.full, systemSid}};
    for (uint32_t i = 0; i <= k % 4; i++) {
        dacl.push_back({i == 2 ? deny : allow, here, rights.read, machine.account(1000 + k + i)});
    }
    dacl.push_back({allow, below, rights.read, usersSid});
    Shape shape{k % 7 == 0 ? administratorsSid : machine.account(1000 + k % 50), machine.account(513), 0,
                std::move(dacl), std::nullopt};
    if (k % 2 == 0) shape.control |= SE_DACL_AUTO_INHERITED;
    if (k % 3 == 0) shape.control |= SE_DACL_PROTECTED;
    if (k % 5 == 0) {
        shape.sacl = {{audit, always, rights.full, machine.account(500)}, {label, here, 1, mediumLabelSid}};
    }
    return shape;
}

} /* namespace */

std::vector<ByteVector> descriptorVariety(const Machine& machine, const Rights& rights, size_t count) {
    std::vector<ByteVector> all;
    for (const Shape& shape : oddShapes(machine, rights)) all.push_back(layOut(shape));
    for (uint32_t k = 0; all.size() < count; k++) all.push_back(layOut(varied(machine, rights, k)));
    all.resize(count);
    return all;
}

} /* namespace companion */
