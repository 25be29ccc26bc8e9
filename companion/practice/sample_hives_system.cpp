/* SPDX-License-Identifier: GPL-2.0-or-later */
/* SYSTEM: control sets, services, environment strings, and what disk has which drive letter. */
#include "companion/formatting.h"
#include "companion/practice/sample_hive.h"

namespace companion {
namespace {

struct Service {
    const char16_t* name;
    const char16_t* program;
    uint32_t type, start;
};
constexpr Service services[] = {
    {u"Disk", u"System32\\drivers\\disk.sys", 1, 0},
    {u"Eventlog", u"%SystemRoot%\\System32\\svchost.exe -k LocalService", 0x20, 2},
    {u"lanmanserver", u"%SystemRoot%\\System32\\svchost.exe -k netsvcs", 0x20, 2},
    {u"Practice", u"C:\\Program Files\\Practice\\service.exe", 0x10, 3},
    {u"Spooler", u"%SystemRoot%\\System32\\spoolsv.exe", 0x110, 2},
};

void addServices(Keys& keys, const Machine& machine, const std::u16string& set) {
    for (const Service& service : services) {
        const std::u16string path = set + u"\\Services\\" + service.name;
        keys.push_back({path,
                        {expandText(u"ImagePath", service.program), number(u"Type", service.type),
                         number(u"Start", service.start), text(u"ObjectName", u"LocalSystem")}});
        keys.push_back({path + u"\\Security",
                        {binary(u"Security", profileDescriptor(machine, 1000, {0xF01FF, 0x2018D}))}});
    }
    ByteVector guid(16);
    for (uint8_t i = 0; i < 16; i++) guid[i] = static_cast<uint8_t>(0xA0 + i);
    keys.push_back({set + u"\\Services\\lanmanserver\\Parameters",
                    {binary(u"Guid", guid), number(u"EnableAuthenticateUserSharing", 0)}});
    keys.push_back({set + u"\\Services\\Practice\\Users\\" + machine.account(1000),
                    {binary(u"Sid", sidBytes(machine.account(1000))), text(u"Name", machine.account(1000))}});
}

void addControlSet(Keys& keys, const Machine& machine, const std::u16string& set) {
    keys.push_back({set + u"\\Control\\ComputerName\\ComputerName", {text(u"ComputerName", u"PRACTICE")}});
    keys.push_back(
        {set + u"\\Services\\Tcpip\\Parameters",
         {text(u"NV Hostname", u"practice"), text(u"Domain", u""), text(u"Hostname", u"practice")}});
    keys.push_back(
        {set + u"\\Services\\TCPIP6\\Parameters",
         {binary(u"Dhcpv6DUID", {0, 1, 0, 1, 0x2A, 0x1B, 0x5C, 0x11, 0x52, 0x54, 0, 0x12, 0x34, 0x56})}});
    keys.push_back({set + u"\\Control\\Lsa\\JD", {}, {}, u"0a1b2c3d"}); /* the class holds a part of a key */
    keys.push_back({set + u"\\Control\\Session Manager\\Environment",
                    {expandText(u"ComSpec", u"%SystemRoot%\\system32\\cmd.exe"), text(u"OS", u"Windows_NT"),
                     expandText(u"Path", u"%SystemRoot%\\system32;%SystemRoot%"),
                     expandText(u"TEMP", u"%SystemRoot%\\TEMP"), expandText(u"windir", u"%SystemRoot%")}});
    keys.push_back({set + u"\\Hardware Profiles\\0001", {number(u"PreferenceOrder", 0)}});
    keys.push_back({set + u"\\Hardware Profiles\\Current",
                    {},
                    {},
                    {},
                    u"\\Registry\\Machine\\System\\CurrentControlSet\\Hardware Profiles\\0001"});
    addServices(keys, machine, set);
}

/* The drives that the machine has had, this one among them when its disk can be known again. */
Key mountedDevices(const DiskIdentity& disk) {
    const ByteVector elsewhere = {0xEF, 0xBE, 0xAD, 0xDE, 0, 0,
                                  0x10, 0,    0,    0,    0, 0}; /* another disk, at 1 MiB */
    const ByteVector cdRom =
        utf16Bytes(u"\\??\\IDE#CdRomPractice#4&1&0&0.0.0#{53f5630d-b6bf-11d0-94f2-00a0c91efb8b}");
    Key key{u"MountedDevices", {binary(u"\\DosDevices\\D:", cdRom), binary(u"\\DosDevices\\E:", elsewhere)}};
    if (!disk.mountedName.empty()) {
        key.values.push_back(binary(u"\\DosDevices\\C:", disk.mountedName));
        key.values.push_back(binary(u"\\??\\Volume{6b1f8c1e-0000-0000-0000-100000000000}", disk.mountedName));
    }
    return key;
}

} /* namespace */

HiveSketch systemHive(const Machine& machine, const DiskIdentity& disk) {
    Keys keys = {
        {u"Select",
         {number(u"Current", 1), number(u"Default", 1), number(u"Failed", 0), number(u"LastKnownGood", 2)}},
        {u"Setup", {number(u"SystemSetupInProgress", 0)}},
        mountedDevices(disk),
    };
    addControlSet(keys, machine, u"ControlSet001");
    addControlSet(keys, machine, u"ControlSet002");
    addOddKeys(keys, machine, u"ControlSet001\\Services\\Practice\\Odd");
    return {u"SYSTEM", 5, plainDescriptor(keyRights), std::move(keys)};
}

} /* namespace companion */
