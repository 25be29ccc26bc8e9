/* SPDX-License-Identifier: GPL-2.0-or-later */
/* SIDs as values, and as things to find and to replace: in binary data, in text, in descriptors, in files.
 *
 * A SID travels as its byte image in the platform's published layout: Revision, SubAuthorityCount, six bytes
 * of authority (big-endian), then SubAuthorityCount 32-bit numbers (little-endian); 8 + 4 × SubAuthorityCount
 * bytes. A machine SID has 24: revision 1, four sub-authorities, authority 5, the first sub-authority 21.
 *
 * Old and new SID have the same number of sub-authorities (sidCheckPair), so that a binary replacement
 * changes no size; size is that of each of them in bytes. In prefix mode the old SID and every SID that
 * begins with it match, and what follows the old SID's last sub-authority stays; in exact mode (exact
 * non-zero) the old SID alone matches. */
#ifndef QUILLET_SIDCHNG_SID_H
#define QUILLET_SIDCHNG_SID_H

#include "common/memory.h"
#include "platform/nt.h"

constexpr DWORD SID_MACHINE_SIZE = 24; /* bytes of a machine SID */

/* ---- SID values ---- */

/* Reads the machine SID from the SAM account data below samKey ("SAM\SAM"). *size is the capacity of sid in
 * bytes and holds 24 afterwards, whatever happens. A Win32 code: 0, ERROR_BUFFER_OVERFLOW when the capacity
 * is too small, ERROR_INVALID_DATA when there is no valid machine SID in the data, or that of the failed
 * call. Failures are logged. */
DWORD sidGetMachineSID(HANDLE samKey, uint8_t* sid, DWORD* size);

/* Makes a random machine SID. *size as for sidGetMachineSID. On failure sid stays as it was. */
DWORD sidCreateRandom(uint8_t* sid, DWORD* size);

/* 1 when both are SIDs of accounts (authority 5, first sub-authority 21), of the sizes given in bytes, with
 * the same number of sub-authorities; else 0 with the reason logged. A null SID is refused without a word. */
int sidCheckPair(const uint8_t* sidOld, uint32_t sidOldSize, const uint8_t* sidNew, uint32_t sidNewSize);

/* ---- Matching and patching ---- */

/* Patches one whole SID in place. 1 when it matched, else 0. place names where it stands, for the message. */
int sidReplace(uint8_t* target, const uint8_t* sidOld, const uint8_t* sidNew, uint32_t size, int exact,
               const char* place);

/* Finds and patches SIDs anywhere in length bytes, at any alignment. 1 when at least one was patched, else 0.
 */
int sidReplaceInData(uint8_t* data, uint32_t length, const uint8_t* sidOld, const uint8_t* sidNew,
                     uint32_t size, int exact);

/* 1 when text of this many bytes is the text form of the old SID, or, in prefix mode, goes on after it with
 * a hyphen; else 0. */
int sidMatchesText(const void* text, uint32_t length, const UNICODE_STRING* oldText, int exact);

/* Rewrites the text form of the SID at the head of a name. On a match *changed becomes 1 (it is never
 * cleared) and result points into buffer, good until that is used again; name must not lie in buffer. 0, or
 * ERROR_NOT_ENOUGH_MEMORY. A result that would be longer than a counted string can be (65,535 bytes) is no
 * match: the name is left as it is, with a WARN line. */
DWORD sidReplaceInName(const UNICODE_STRING* name, UNICODE_STRING* result, const UNICODE_STRING* oldText,
                       const UNICODE_STRING* newText, int exact, int* changed, memBuf* buffer);

/* ---- Descriptors ---- */

/* Patches the SIDs of one self-relative descriptor image in place: those of its lists' plain entries (types 0
 * to 3), its owner, or, where the owner does not match, its group; a group beside a matching owner takes a
 * second pass. *touched becomes 1 when something was patched (it is never cleared). name is the object's, for
 * the messages. A Win32 code; after a failure the image must not be written back. */
DWORD sidReplaceInSDInternal(void* descriptor, const uint8_t* sidOld, const uint8_t* sidNew, uint32_t size,
                             const UNICODE_STRING* name, int exact, int* touched);

/* Patches the descriptor of the file or directory at a path (terminated, "\\?\" form), seizing the object
 * when access is refused; in a simulation nothing is written or seized and a match is logged at INFO. buffer
 * is lent, grows and may be reused from call to call. A Win32 code: 0 when no old SID is left (simulation:
 * when the descriptor was looked at). */
DWORD sidReplaceInFileSD(const WCHAR* path, const uint8_t* sidOld, const uint8_t* sidNew, uint32_t size,
                         int exact, int simulate, memBuf* buffer);

/* Reads the whole descriptor of an open key (owner, group, DACL, SACL) to the start of buffer, which grows. A
 * Win32 code. */
DWORD sidQueryKeySD(HANDLE key, const UNICODE_STRING* name, memBuf* buffer);

/* The same for an open key as sidReplaceInFileSD for a file, but for the seizing: the key carries
 * ACCESS_SYSTEM_SECURITY, READ_CONTROL, WRITE_DAC and WRITE_OWNER, or the operation fails. */
DWORD sidReplaceInKeySD(HANDLE key, const UNICODE_STRING* name, const uint8_t* sidOld, const uint8_t* sidNew,
                        uint32_t size, int exact, int simulate, memBuf* buffer);

#endif
