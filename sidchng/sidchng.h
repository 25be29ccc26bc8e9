/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The SID engine's entries. SIDs are byte images, sizes in bytes; see sid.h. Results are Win32 codes, 0 on
 * success. */
#ifndef QUILLET_SIDCHNG_SIDCHNG_H
#define QUILLET_SIDCHNG_SIDCHNG_H

#include "platform/nt.h"
#include "sidchng/sidflags.h"

/* Replaces the old SID by the new one in the descriptors of what lies at a path (terminated), with
 * SID_RECURSIVE of the whole tree below it. ERROR_INVALID_PARAMETER for a pair that sidCheckPair refuses.
 * Under SID_RECURSIVE an entry that can't be treated is logged and passed over; what ends the walk is a tree
 * deeper than 256 levels (ERROR_INTERNAL_ERROR) and a lack of memory. */
DWORD sidReplaceInPath(const WCHAR* path, uint32_t flags, const uint8_t* sidOld, uint32_t sidOldSize,
                       const uint8_t* sidNew, uint32_t sidNewSize);

/* Makes the running user's owner SID the owner of a file and gives it a protected null DACL. */
DWORD takeFileOwnership(const WCHAR* path);

/* Replaces the old SID by the new one in an open key and, with SID_RECURSIVE, in every key below it, as the
 * flags say; valueNames (ended by a null) restricts the values looked at, null means all. The key stays the
 * caller's. ERROR_INVALID_PARAMETER for a pair that sidCheckPair refuses. Under SID_RECURSIVE what fails at
 * one key is logged and passed over; the result is that of the scan. */
DWORD sidReplaceInKey(HANDLE key, uint32_t flags, const WCHAR* const* valueNames, const uint8_t* sidOld,
                      uint32_t sidOldSize, const uint8_t* sidNew, uint32_t sidNewSize);

/* One row of a table of registry paths. */
struct sidKeyPath {
    const WCHAR* path;              /* below the root, without a leading backslash */
    uint32_t flags;                 /* bits of the sid flag word that the row adds; 0 ends the table */
    const WCHAR* const* valueNames; /* the only values to look at; null means all */
};

/* Treats the key at a path below the root, which may be a predefined handle. A missing key is success with
 * SID_OPTIONAL. */
DWORD sidReplaceInKeyPath(HKEY root, uint32_t flags, const WCHAR* path, const WCHAR* const* valueNames,
                          const uint8_t* sidOld, uint32_t sidOldSize, const uint8_t* sidNew,
                          uint32_t sidNewSize);

/* Treats the rows of a table in order, up to the first failure, which is the result. */
DWORD sidReplaceInKeyPaths(HKEY root, uint32_t flags, const sidKeyPath* table, const uint8_t* sidOld,
                           uint32_t sidOldSize, const uint8_t* sidNew, uint32_t sidNewSize);

/* Treats the built-in table: the places where names and values are rewritten, and not descriptors alone. */
DWORD sidReplaceInSelectedKeys(HKEY root, uint32_t flags, const uint8_t* sidOld, uint32_t sidOldSize,
                               const uint8_t* sidNew, uint32_t sidNewSize);

/* Gives the file server a new random GUID, in a simulation too. */
DWORD lanmanServerReplaceGuid(HKEY root);

#endif
