/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Registry keys as places to patch: one key's descriptor, its values by their types, its name, and the walk
 * over a tree of keys. */
#ifndef QUILLET_SIDCHNG_REG_H
#define QUILLET_SIDCHNG_REG_H

#include "platform/nt.h"
#include "sidchng/sidctx.h"

/* Data of a value, of any type: like a counted string, but of any size. */
struct regData {
    uint32_t Length; /* bytes */
    uint8_t* Buffer;
};

/* Rewrites data by its type: binary data and data of no type by sidReplaceInData in place, strings and the
 * strings of multi-strings by sidReplaceInName; other types are left alone. On a change *changed becomes 1
 * (it is never cleared) and output is the new data, good until the context is used again. 0 or
 * ERROR_NOT_ENOUGH_MEMORY. */
DWORD regReplaceSIDInData(uint32_t type, const regData* input, regData* output, sidCtx* ctx, int* changed);

/* Treats one open key as the context's flags say: its descriptor, then its values. name serves the messages.
 * A Win32 code; a failure of the values wins over one of the descriptor. The key needs the rights of the
 * parts treated: ACCESS_SYSTEM_SECURITY, READ_CONTROL, WRITE_DAC and WRITE_OWNER; KEY_QUERY_VALUE and
 * KEY_SET_VALUE. */
DWORD regReplaceSIDInKey(HANDLE key, const UNICODE_STRING* name, sidCtx* ctx);

/* Gives a key below parent another name, by copy and delete: title index, class, values, everything below it,
 * owner, group and DACL come along (not the SACL); symbolic links below it, or the key itself where it is
 * one, keep their target. record is the key's. secBuf is lent. A Win32 code; nothing is undone after a
 * failure, and the old key goes last, when the new one stands complete. */
DWORD regRenameKey(HANDLE parent, const KEY_NODE_INFORMATION* record, const UNICODE_STRING* name,
                   const UNICODE_STRING* newName, memBuf* secBuf);

/* A callback of regScan whose data is a context: renames and treats one key below the start key as the
 * context's flags say. What fails is noted in the context and passed over. */
uint32_t regReplaceSIDCallback(HANDLE parent, const UNICODE_STRING* path, const KEY_NODE_INFORMATION* record,
                               uint64_t scope, uint64_t* subscope, void* data, int32_t depth, uint32_t flags);

#endif
