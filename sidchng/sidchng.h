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

#endif
