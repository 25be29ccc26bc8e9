/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The token, the access check, and descriptors as they are asked for, set and inherited. The platform's calls
 * on tokens and descriptors (platform/nt.h) are answered in this room as well. No function throws. */
#ifndef QUILLET_OFFLINE_SECURITY_SECURITY_H
#define QUILLET_OFFLINE_SECURITY_SECURITY_H

#include <cstdint>
#include <vector>

#include "platform/nt.h"
#include "platform/offline/base/bytes.h"

namespace offline {

/* ---- The token ---- */

/* unrefused: the token is Local System, and descriptors refuse nothing. checked: it is an administrator's,
 * and they are enforced. In both all privileges are held, and at start only the one to traverse every path
 * (23) is enabled. Unrefused is what holds until it is set. */
enum class AccessMode { unrefused, checked };
void setAccessMode(AccessMode mode); /* also puts the token back to its start */
AccessMode accessMode();

/* Whether a privilege is enabled, by its LUID. */
constexpr uint32_t takeOwnershipPrivilege = 9;
constexpr uint32_t securityPrivilege = 8;
constexpr uint32_t backupPrivilege = 17;
constexpr uint32_t restorePrivilege = 18;
constexpr uint32_t shutdownPrivilege = 19;
bool privilegeEnabled(uint32_t luid);

/* Takes a privilege out of the token, as for an account that lacks it. For tests; setAccessMode puts it back.
 */
void removePrivilege(uint32_t luid);

/* ---- The access check ---- */

struct GenericMapping {
    ACCESS_MASK read, write, execute, all;
};
extern const GenericMapping keyMapping;
extern const GenericMapping fileMapping;

/* The mask with its generic rights replaced by what they stand for. */
ACCESS_MASK mapGeneric(ACCESS_MASK mask, const GenericMapping& mapping);

/* Opens an object with this self-relative descriptor: the rights granted, generic bits mapped,
 * MAXIMUM_ALLOWED resolved. STATUS_ACCESS_DENIED, or STATUS_PRIVILEGE_NOT_HELD when ACCESS_SYSTEM_SECURITY is
 * asked for without the security privilege enabled (in both modes). An owner has READ_CONTROL and WRITE_DAC
 * unless the list speaks of owner rights (S-1-3-4); the take-ownership privilege gives WRITE_OWNER when that
 * is asked for. Entries for one type of object and entries with a condition allow nothing, but deny. When
 * checked, asking for nothing is refused, and a descriptor that is not valid gives
 * STATUS_INVALID_SECURITY_DESCR. */
NTSTATUS accessCheck(Bytes descriptor, ACCESS_MASK desired, const GenericMapping& mapping,
                     ACCESS_MASK& granted);

/* The rights that reading or setting these parts of a descriptor takes. */
ACCESS_MASK accessToQuery(SECURITY_INFORMATION information);
ACCESS_MASK accessToSet(SECURITY_INFORMATION information);

/* ---- Descriptors ---- */

/* The parts of a stored descriptor that the mask names, as a self-relative image. With all four parts asked
 * for this is the stored image, byte for byte. */
NTSTATUS descriptorQuery(Bytes stored, SECURITY_INFORMATION information, std::vector<uint8_t>& image);

/* What is stored when a caller sets a descriptor, absolute or self-relative, over a stored one: the parts
 * that the mask names from the new, the others from the old. A self-relative one of which all four parts are
 * set is taken byte for byte, but for the offset of a list that is not present. Control bits that say how a
 * list came about (protected, auto-inherited) travel with it; request bits are never stored;
 * PROTECTED_DACL_SECURITY_INFORMATION and the three bits below it protect or unprotect the list that is set.
 * The new owner must be one that the token may name (STATUS_INVALID_OWNER; any with the restore privilege
 * enabled, and any or none in unrefused mode). The image may be the vector that holds the stored one. On
 * failure it is left as it was. */
NTSTATUS descriptorSet(Bytes stored, SECURITY_INFORMATION information, PSECURITY_DESCRIPTOR given,
                       std::vector<uint8_t>& image);

/* The descriptor of a new container below one with this descriptor: inheritable entries inherited, owner and
 * group of the token. */
NTSTATUS descriptorForChild(Bytes parent, const GenericMapping& mapping, std::vector<uint8_t>& image);

} /* namespace offline */

#endif
