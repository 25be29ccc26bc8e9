/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Keys that a walk over a registry must bear: every shape of descriptor, names of every kind, links, depth.
 */
#include "companion/formatting.h"
#include "companion/practice/sample_hive.h"

namespace companion {
namespace {

constexpr uint32_t depth = 40; /* keys below one another */

void addShapes(Keys& keys, const Machine& machine, const std::u16string& path) {
    std::vector<Shape> shapes = oddShapes(machine, keyRights);
    for (const Shape& shape : oddKeyShapes(machine)) shapes.push_back(shape);
    for (size_t i = 0; i < shapes.size(); i++) {
        const std::u16string key = path + u"\\Shapes\\" + paddedDecimal(static_cast<uint32_t>(i), 2);
        keys.push_back({key, {text(u"Account", machine.account(1000))}, layOut(shapes[i])});
        keys.push_back({key + u"\\Below", {}, plainDescriptor(keyRights)});
    }
}

void addNames(Keys& keys, const Machine& machine, const std::u16string& path) {
    const std::u16string alice = machine.account(1000);
    const std::u16string names[] = {
        u"Größe",
        u"Ключ",
        u"\u00FFber", /* a letter whose capital is elsewhere */
        u"smile \U0001F600",
        std::u16string(u"half ") + char16_t(0xD83D) + u" pair",
        u"a/b",
        std::u16string(255, u'n'),
        alice,
        alice + u" and more",
        machine.sid,
        machine.sid + u"x",
        u"x" + machine.sid,
    };
    for (const std::u16string& name : names) {
        std::u16string key = path;
        key.append(u"\\Names\\").append(name);
        keys.push_back({key, {text(name, name)}, {}, u"class of " + name.substr(0, 5)});
        key.append(u"\\").append(machine.account(1001));
        keys.push_back({key, {number(u"One", 1)}});
    }
}

void addDepth(Keys& keys, const Machine& machine, std::u16string path) {
    path += u"\\Deep";
    for (uint32_t i = 0; i < depth; i++) {
        path += i % 10 == 9 ? u"\\" + machine.account(1000 + i) : u"\\level " + decimal(i);
    }
    keys.push_back(
        {path, {binary(u"Sid", sidBytes(machine.sid))}, profileDescriptor(machine, 1001, keyRights)});
}

void addLinks(Keys& keys, const Machine& machine, const std::u16string& path) {
    const std::u16string links = path + u"\\Links\\";
    keys.push_back({links + u"to software", {}, {}, {}, u"\\Registry\\Machine\\SOFTWARE\\Practice\\Links"});
    keys.push_back({links + u"to nowhere", {}, {}, {}, u"\\Registry\\Machine\\SOFTWARE\\Nowhere"});
    keys.push_back({links + machine.account(1001), {}, {}, {}, u"\\Registry\\Machine\\SOFTWARE\\Classes"});
}

} /* namespace */

void addOddKeys(Keys& keys, const Machine& machine, const std::u16string& path) {
    addShapes(keys, machine, path);
    addNames(keys, machine, path);
    addDepth(keys, machine, path);
    addLinks(keys, machine, path);
}

} /* namespace companion */
