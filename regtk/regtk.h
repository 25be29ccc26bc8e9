/* SPDX-License-Identifier: GPL-2.0-or-later */
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

/* The statuses by which a query reports that its buffer is too small. The scan, the copy and the queries for
 * links take a mismatch of lengths for one as well; where values are rewritten, it is a failure. */
inline bool regIsTooSmall(NTSTATUS status) {
    return status == STATUS_BUFFER_OVERFLOW || status == STATUS_BUFFER_TOO_SMALL;
}
inline bool regIsTooSmallOrMismatch(NTSTATUS status) {
    return regIsTooSmall(status) || status == STATUS_INFO_LENGTH_MISMATCH;
}

/* Whether the handle is in the predefined range: such a key stands for a handle of its own and is no real
 * key.
 */
inline bool regIsPredefined(HANDLE handle) {
    constexpr ULONG_PTR range = 0xFFFFFFFF80000000;
    return (reinterpret_cast<ULONG_PTR>(handle) & range) == range;
}

/* ---- regtk_open ---- */

/* A counted string over text of this many bytes, which must outlive it. */
inline UNICODE_STRING regCounted(const WCHAR* text, ULONG bytes) {
    UNICODE_STRING counted;
    counted.Length = static_cast<USHORT>(bytes);
    counted.MaximumLength = counted.Length;
    counted.Buffer = const_cast<WCHAR*>(text);
    return counted;
}

/* The class in a key's record, which must outlive it; empty when the key has none, whatever the offset says.
 */
inline UNICODE_STRING regClassOf(const KEY_NODE_INFORMATION* record) {
    if (record->ClassLength == 0) return regCounted(nullptr, 0);
    const uint8_t* const text = reinterpret_cast<const uint8_t*>(record) + record->ClassOffset;
    return regCounted(reinterpret_cast<const WCHAR*>(text), record->ClassLength);
}

/* What a key of this name below a root is opened with: as itself, a link too. name must outlive the record.
 */
inline OBJECT_ATTRIBUTES regAttributesBelow(HANDLE root, UNICODE_STRING* name) {
    OBJECT_ATTRIBUTES attributes = {};
    attributes.Length = sizeof attributes;
    attributes.RootDirectory = root;
    attributes.ObjectName = name;
    attributes.Attributes = OBJ_CASE_INSENSITIVE | OBJ_OPENLINK;
    return attributes;
}

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

/* ---- regtk_native: the scan engine ---- */

/* What a scan callback answers. */
enum regScanResult : uint32_t {
    SCAN_NEXT = 0,    /* go on with the next child */
    SCAN_DESCEND = 1, /* pre-call only: scan this child */
    SCAN_RESTART = 2, /* enumerate the parent's children again, from the first */
    SCAN_FAIL = 3     /* end the scan with STATUS_UNSUCCESSFUL */
};

/* Called for each child. parent: the key whose children are enumerated. path: the child's, relative to the
 * scanned key; good during the call. record: the child's, good during the pre-call; null in the post-call,
 * which is made exactly when the pre-call answered SCAN_DESCEND and subscope[0] is not 0 after the descent.
 * scope: the parent level's subscope[0], or that of regScan. subscope: two words for this child, 0 before the
 * pre-call, to be 0 again after the last call. depth: 1 for a child of the scanned key. The callback may
 * delete or rename the child. */
typedef uint32_t (*regScanCallback)(HANDLE parent, const UNICODE_STRING* path,
                                    const KEY_NODE_INFORMATION* record, uint64_t scope, uint64_t* subscope,
                                    void* data, int32_t depth, uint32_t flags);

/* Walks everything below an open key (KEY_ENUMERATE_SUB_KEYS), depth first, at most 256 levels; links are
 * keys of their own, never followed. A Win32 code, 0 on success. Descriptors that taking ownership displaced
 * are written back when the callback and the descent have finished with their key. */
DWORD regScan(HANDLE key, regScanCallback callback, uint64_t scope, void* data, uint32_t flags);

/* Deletes the key of this name below the root; with REG_RECURSIVE everything below it first. Under
 * REG_IGNORE_MISSING a missing key is success. A link is deleted as itself. A Win32 code; nothing is undone
 * after a failure. */
DWORD regDeleteKeyU(HANDLE root, const UNICODE_STRING* name, uint32_t flags);

/* Tells whether an open key (KEY_QUERY_VALUE) is a symbolic link: 1 or 0. The key's flag says so, and not a
 * value, which an ordinary key may have as well; a link need not have a target. */
NTSTATUS regQueryIsLink(HANDLE key, int* isLink);

/* What a link mapping answers for a symbolic link that a copy meets. */
enum regLinkMapResult : uint32_t {
    LINK_MAP_SKIP = 0, /* leave it out */
    LINK_MAP_SAME = 1, /* a link to the same target */
    LINK_MAP_NEW = 2,  /* a link to the terminated text that the callback has put at the start of newTarget */
    LINK_MAP_DELETE =
        3,            /* delete the destination's key of this name; asked again, another answer is needed */
    LINK_MAP_FAIL = 4 /* end the copy */
};

typedef uint32_t (*regLinkMapCallback)(const WCHAR* target, memBuf* newTarget, void* data);

/* Copies everything below one key to below another: keys with title index, class, values and owner, group and
 * DACL (REG_NO_VALUES, REG_NO_SECURITY leave those out), and the source's own values. Without linkMap
 * symbolic links are left out; one without a target asks linkMap with an empty text, and stays so. The source
 * must allow enumerating and querying, the target setting values. A Win32 code; what was copied before a
 * failure stays. */
DWORD regCopyKey(HANDLE source, HANDLE target, regLinkMapCallback linkMap, void* linkMapData, uint32_t flags);

#endif
