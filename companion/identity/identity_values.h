/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Where names and ids stand in the registry, and what becomes of each. */
#ifndef QUILLET_COMPANION_IDENTITY_VALUES_H
#define QUILLET_COMPANION_IDENTITY_VALUES_H

#include "companion/identity/identity.h"

namespace companion {

/* netbiosName: the computer name in capitals; hostName: as it was given; newGuid: a random GUID in the form
 * of the old one; removed: the system makes a new one at its next start. */
enum class Treatment { netbiosName, hostName, newGuid, removed };

/* Whether a value that is not there is told of. */
enum class Presence { usual, rare };

/* everySet: below each control set of SYSTEM, for a start can choose another one than the last. */
enum class KeyPlace { everySet, software };

struct IdentityValue {
    IdentityItem item;
    KeyPlace place;
    const char16_t* key; /* the rest of its path */
    const char16_t* value;
    Treatment treatment;
    Presence presence = Presence::usual;
};

constexpr IdentityValue identityValues[] = {
    {IdentityItem::computerName, KeyPlace::everySet, u"Control\\ComputerName\\ComputerName", u"ComputerName",
     Treatment::netbiosName},
    /* Volatile on a running system; some tools store it. */
    {IdentityItem::computerName, KeyPlace::everySet, u"Control\\ComputerName\\ActiveComputerName",
     u"ComputerName", Treatment::netbiosName, Presence::rare},
    {IdentityItem::computerName, KeyPlace::everySet, u"Services\\Tcpip\\Parameters", u"Hostname",
     Treatment::hostName},
    {IdentityItem::computerName, KeyPlace::everySet, u"Services\\Tcpip\\Parameters", u"NV Hostname",
     Treatment::hostName},
    {IdentityItem::machineGuid, KeyPlace::software, u"Microsoft\\Cryptography", u"MachineGuid",
     Treatment::newGuid},
    {IdentityItem::wsusId, KeyPlace::software, u"Microsoft\\Windows\\CurrentVersion\\WindowsUpdate",
     u"SusClientId", Treatment::removed},
    {IdentityItem::wsusId, KeyPlace::software, u"Microsoft\\Windows\\CurrentVersion\\WindowsUpdate",
     u"SusClientIdValidation", Treatment::removed},
    {IdentityItem::wsusId, KeyPlace::software, u"Microsoft\\Windows\\CurrentVersion\\WindowsUpdate",
     u"AccountDomainSid", Treatment::removed, Presence::rare},
    {IdentityItem::wsusId, KeyPlace::software, u"Microsoft\\Windows\\CurrentVersion\\WindowsUpdate",
     u"PingID", Treatment::removed, Presence::rare},
    {IdentityItem::duid, KeyPlace::everySet, u"Services\\TCPIP6\\Parameters", u"Dhcpv6DUID",
     Treatment::removed},
    {IdentityItem::telemetryId, KeyPlace::software, u"Microsoft\\SQMClient", u"MachineId",
     Treatment::newGuid},
    {IdentityItem::telemetryId, KeyPlace::software, u"Wow6432Node\\Microsoft\\SQMClient", u"MachineId",
     Treatment::newGuid, Presence::rare},
};

} /* namespace companion */

#endif
