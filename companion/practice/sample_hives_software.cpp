/* SPDX-License-Identifier: GPL-2.0-or-later */
/* SOFTWARE: the installation's version, its profiles, and much else that names accounts. */
#include "companion/formatting.h"
#include "companion/practice/sample_hive.h"

namespace companion {
namespace {

const std::u16string version = u"Microsoft\\Windows\\CurrentVersion\\";
const std::u16string ntVersion = u"Microsoft\\Windows NT\\CurrentVersion\\";
constexpr uint32_t manyComponents = 1500; /* more than one list of subkeys holds */

void addProfile(Keys& keys, const std::u16string& sid, std::u16string_view directory) {
    keys.push_back({ntVersion + u"ProfileList\\" + sid,
                    {expandText(u"ProfileImagePath", directory), binary(u"Sid", sidBytes(sid)),
                     number(u"Flags", 0), number(u"State", 0)}});
}

void addProfiles(Keys& keys, const Machine& machine) {
    keys.push_back({ntVersion + u"ProfileList",
                    {expandText(u"ProfilesDirectory", u"%SystemDrive%\\Users"),
                     expandText(u"ProgramData", u"%SystemDrive%\\ProgramData"),
                     expandText(u"Public", u"%SystemDrive%\\Users\\Public")}});
    addProfile(keys, u"S-1-5-18", u"%systemroot%\\system32\\config\\systemprofile");
    addProfile(keys, u"S-1-5-19", u"%systemroot%\\ServiceProfiles\\LocalService");
    addProfile(keys, u"S-1-5-20", u"%systemroot%\\ServiceProfiles\\NetworkService");
    addProfile(keys, machine.account(1000), u"%SystemDrive%\\Users\\alice");
    addProfile(keys, machine.account(1001), u"C:\\Users\\bob");
    addProfile(keys, machine.account(500), u"C:\\Users\\gone"); /* of which nothing is left but this */
}

void addInstaller(Keys& keys, const Machine& machine) {
    const std::u16string data = version + u"Installer\\UserData\\";
    for (uint32_t i = 0; i < manyComponents; i++) {
        keys.push_back(
            {data + u"S-1-5-18\\Components\\" + hexadecimal(i * 2654435761u, 8) + u"AB3948D4D90D5F6A7B8C9D0E",
             {text(u"Product", u"C:\\Program Files\\Practice")}});
    }
    const std::u16string alice = data + machine.account(1000);
    keys.push_back({alice, {}, profileDescriptor(machine, 1000, keyRights)});
    keys.push_back({alice + u"\\Components\\0123456789ABCDEF",
                    {binary(u"Owner", sidBytes(machine.account(1000))), text(u"Text", machine.account(1000))},
                    {},
                    u"a class"});
    keys.push_back({alice + u"\\Products", {}, {}, {}, u"\\Registry\\Machine\\SOFTWARE\\Classes"});
}

/* A value of more than one segment, with a SID across the border of the segments and more of them beside it.
 */
ByteVector largeData(const Machine& machine) {
    constexpr size_t segment = 16344; /* bytes */
    ByteVector data(3 * segment, 0x15);
    const ByteVector sid = sidBytes(machine.account(1000));
    for (const size_t at : {size_t{0}, segment - 10, 2 * segment, data.size() - sid.size()}) {
        std::copy(sid.begin(), sid.end(), data.begin() + static_cast<ptrdiff_t>(at));
    }
    return data;
}

/* What looks like the machine's SID and is not, and what is and has an odd form. */
std::vector<Value> explorerValues(const Machine& machine) {
    const std::u16string alice = machine.account(1000);
    return {
        text(u"Account", alice),
        text(u"Machine", machine.sid),
        text(u"Path", u"C:\\$Recycle.Bin\\" + alice),
        text(u"Longer number", machine.sid + u"7-1000"),
        {u"Not terminated", REG_SZ, utf16Bytes(alice)},
        {u"Odd length", REG_SZ, {'S', 0, '-'}},
        {u"Empty", REG_SZ, {}},
        expandText(u"Expanded", alice),
        textList(u"Accounts", {alice, u"S-1-5-18", machine.account(1001), u"none", machine.account(500)}),
        {u"Accounts, not terminated", REG_MULTI_SZ, utf16Bytes(alice)},
        {u"Untyped", REG_NONE, sidBytes(alice)},
        {u"Another type", 0x12345, sidBytes(alice)},
        binary(u"Large", largeData(machine)),
        binary(u"", sidBytes(machine.sid)),
    };
}

Keys identityKeys(const Machine& machine) {
    const ByteVector descriptor = profileDescriptor(machine, 1000, {1, 1});
    return {
        {u"Microsoft\\Windows NT\\CurrentVersion",
         {text(u"ProductName", u"Windows practice system"), text(u"CurrentVersion", u"6.3"),
          text(u"CurrentBuild", u"19045"), text(u"SystemRoot", u"C:\\Windows"),
          text(u"RegisteredOwner", u"practice")}},
        {ntVersion + u"Practice service",
         {binary(u"Security", descriptor), binary(u"Insecurity", descriptor), text(u"Sid", machine.sid)}},
        {u"Microsoft\\Windows\\CurrentVersion",
         {text(u"ProgramFilesDir", u"C:\\Program Files"),
          text(u"ProgramFilesDir (x86)", u"C:\\Program Files (x86)"),
          text(u"CommonFilesDir", u"C:\\Program Files\\Common Files")}},
        {version + u"Explorer", explorerValues(machine)},
        {version + u"Group Policy\\State\\" + machine.account(1001),
         {textList(u"Many", {machine.account(1001), u"none", machine.account(500)})}},
        {version + u"Group Policy\\State\\" + machine.account(1001) + u"\\Extension-List\\" + machine.sid,
         {number(u"Status", 0)}},
        {u"Microsoft\\Cryptography", {text(u"MachineGuid", u"1c7d1e52-43a9-4f0b-9d3e-8a5b60c2f714")}},
        {version + u"WindowsUpdate",
         {text(u"SusClientId", u"9e3b7a40-5d21-4c86-b0f7-2d418c6a95e3"),
          binary(u"SusClientIdValidation", {6, 2, 0x28, 1, 0x0A, 0, 0, 0})}},
        {u"Microsoft\\SQMClient", {text(u"MachineId", u"{5A2F8C31-7B64-4E0D-A1C9-36F0D27E841B}")}},
        {u"Wow6432Node\\Microsoft\\SQMClient",
         {text(u"MachineId", u"{5A2F8C31-7B64-4E0D-A1C9-36F0D27E841B}")}},
        {u"Classes\\AppID\\{01234567-89AB-CDEF-0123-456789ABCDEF}",
         {text(u"", u"Practice server"), binary(u"AccessPermission", descriptor),
          binary(u"LaunchPermission", descriptor), binary(u"Other", sidBytes(machine.account(1000)))}},
    };
}

} /* namespace */

HiveSketch softwareHive(const Machine& machine) {
    Keys keys = identityKeys(machine);
    addProfiles(keys, machine);
    addInstaller(keys, machine);
    addOddKeys(keys, machine, version + u"Practice");
    addOddKeys(keys, machine, u"Practice"); /* where no value is looked at */
    return {u"\\SystemRoot\\System32\\Config\\SOFTWARE", 5, plainDescriptor(keyRights), std::move(keys)};
}

} /* namespace companion */
