/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The hives of users: the default one, those of accounts, those of services. */
#include "companion/practice/sample_hive.h"

namespace companion {
namespace {

Keys commonKeys() {
    return {
        {u"Control Panel\\Desktop", {text(u"Wallpaper", u""), text(u"ScreenSaveActive", u"1")}},
        {u"Environment",
         {expandText(u"TEMP", u"%USERPROFILE%\\AppData\\Local\\Temp"),
          expandText(u"TMP", u"%USERPROFILE%\\AppData\\Local\\Temp")}},
        {u"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\User Shell Folders",
         {expandText(u"Desktop", u"%USERPROFILE%\\Desktop"),
          expandText(u"Personal", u"%USERPROFILE%\\Documents")}},
        {u"Volatile Environment"},
    };
}

} /* namespace */

HiveSketch defaultHive() {
    return {u"\\SystemRoot\\System32\\Config\\DEFAULT", 5, plainDescriptor(keyRights), commonKeys()};
}

HiveSketch userHive(const Machine& machine, uint32_t rid, uint32_t minorVersion) {
    Keys keys = commonKeys();
    keys.push_back({u"Software\\Practice\\" + machine.account(rid),
                    {binary(u"Sid", sidBytes(machine.account(rid))), text(u"Text", machine.account(rid))}});
    addOddKeys(keys, machine, u"Software\\Practice\\Odd");
    return {u"\\??\\C:\\Users\\practice\\NTUSER.DAT", minorVersion,
            profileDescriptor(machine, rid, keyRights), std::move(keys)};
}

HiveSketch serviceHive(const Machine& machine, uint32_t minorVersion) {
    Keys keys = commonKeys();
    keys.push_back({u"Software\\Practice", {}, profileDescriptor(machine, 1000, keyRights)});
    return {u"\\SystemRoot\\ServiceProfiles\\ntuser.dat", minorVersion, plainDescriptor(keyRights),
            std::move(keys)};
}

} /* namespace companion */
