/* SPDX-License-Identifier: GPL-2.0-or-later */
/* What the registry side of the engine carries from key to key during one walk. */
#ifndef QUILLET_SIDCHNG_SIDCTX_H
#define QUILLET_SIDCHNG_SIDCTX_H

#include "common/memory.h"
#include "platform/nt.h"
#include "sidchng/sidflags.h"

constexpr uint32_t SID_WARNED = 32; /* values that the context remembers to have warned of */

struct sidCtx {
    const uint8_t* sidOld; /* the SIDs and the list are the caller's and must outlive the context */
    const uint8_t* sidNew;
    uint32_t sidNewSize;       /* bytes of each of the two SIDs */
    UNICODE_STRING sidOldText; /* not terminated */
    UNICODE_STRING sidNewText;
    uint32_t flags;                 /* the sid flag word */
    const WCHAR* const* valueNames; /* terminated names, ended by a null; or null for all values */
    memBuf queryBuf;                /* what is read from the registry */
    memBuf stringBuf;               /* a rewritten string */
    memBuf multiSzBuf;              /* a multi-string that is being assembled */
    DWORD lastError;                /* the last failure noted during the walk, 0 while there is none */
    uint64_t warned[SID_WARNED];    /* marks of the last values that were left alone with a warning */
    uint32_t warnedNext;            /* how many there were in all */
};

/* Fills the context. A Win32 code; after a failure nothing is left to release. */
DWORD sidCtxInit(sidCtx* ctx, const uint8_t* sidOld, const uint8_t* sidNew, uint32_t sidNewSize,
                 uint32_t flags, const WCHAR* const* valueNames);

void sidCtxFree(sidCtx* ctx);

#endif
