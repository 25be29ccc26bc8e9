/* The registry toolkit.
 *
 * Native operations give an NTSTATUS, negative on failure; Win32-style ones 1 or 0 with a Win32 code on the
 * side. Key handles are the platform's; whoever gets one closes it, with ZwClose or RegCloseKey. A root
 * handle may be HKEY_LOCAL_MACHINE or HKEY_USERS. Failures are logged where they are met. */
#ifndef QUILLET_REGTK_REGTK_H
#define QUILLET_REGTK_REGTK_H

#include "common/memory.h"
#include "platform/nt.h"

/* The toolkit's flag word. */
enum : uint32_t {
    REG_IGNORE_MISSING = 0x100,  /* a missing key is logged at DEBUG; regOpenKey leaves the error untouched */
    REG_QUIET = 0x200,           /* failures are logged at DEBUG */
    REG_TAKE_OWNERSHIP = 0x1000, /* a refused open is tried again after taking ownership of the key */
    REG_RECURSIVE = 0x8000,
    REG_NO_VALUES = 0x10000,
    REG_NO_SECURITY = 0x20000,
    REG_SCAN_LIGHT = 0x80000,
    REG_CREATE = 0x1000000,   /* create where the key is missing */
    REG_NO_OPENIF = 0x2000000 /* OBJ_OPENIF goes out cleared */
};

/* ---- regtk_open ---- */

/* Opens a key (never creates). */
NTSTATUS regNtOpenKey(HANDLE* key, ACCESS_MASK access, const OBJECT_ATTRIBUTES* attributes, uint32_t flags);

/* The same; a descriptor that taking ownership displaced is not put back but handed over: *savedSec points to
 * the old image inside secBuf, good until that is resized or freed, or is null. */
NTSTATUS regNtOpenKeySaveSec(HANDLE* key, ACCESS_MASK access, const OBJECT_ATTRIBUTES* attributes,
                             uint32_t flags, memBuf* secBuf, void** savedSec);

/* Creates or opens a key; className may be null. */
NTSTATUS regNtCreateKey(HANDLE* key, ACCESS_MASK access, const OBJECT_ATTRIBUTES* attributes,
                        ULONG titleIndex, const UNICODE_STRING* className, ULONG createOptions,
                        uint32_t flags);

/* Opens the key of this name below the root (with REG_CREATE: creates it), a link key as itself. 1 and *error
 * 0, or 0 and the Win32 code in *error; error may be null. Under REG_IGNORE_MISSING a missing key gives 0 and
 * leaves *error as it was. */
int regOpenKeyU(HANDLE root, const UNICODE_STRING* name, ACCESS_MASK access, uint32_t flags, HANDLE* key,
                DWORD* error);

/* The same with a terminated name. */
int regOpenKey(HANDLE root, const WCHAR* name, ACCESS_MASK access, uint32_t flags, HANDLE* key, DWORD* error);

/* ---- regtk_sec: descriptors of open keys, self-relative images; results are Win32 codes, 0 on success ----
 */

/* Owner, group and DACL: what the toolkit reads and writes as a whole. The SACL is left alone. */
constexpr SECURITY_INFORMATION REG_SEC_ALL =
    OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION;

/* Reads these parts of the key's descriptor to the start of secBuf, which grows to exactly what is needed. */
DWORD regGetKeySec(HANDLE key, SECURITY_INFORMATION information, memBuf* secBuf);

/* Writes these parts. Where the image carries an auto-inherited mark, the matching request bit is set in it.
 */
DWORD regSetKeySec(HANDLE key, SECURITY_INFORMATION information, void* descriptor);

/* Gives target the owner, group and DACL of source. */
DWORD regCopyKeySec(HANDLE target, HANDLE source, memBuf* secBuf);

/* Makes the running user the owner of the key of this name below a real root handle, and gives it a null
 * DACL. */
DWORD regTakesOwnershipU(HANDLE root, const UNICODE_STRING* name);

#endif
