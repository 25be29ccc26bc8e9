/* SPDX-License-Identifier: GPL-2.0-or-later */
#define OMBRA_UNIT "sidchng/sidctx"
#include "sidchng/sidctx.h"

#include "common/last_error.h"
#include "common/log.h"
#include "common/wide.h"

static constexpr uint32_t _queryRoom = 512;  // first size of queryBuf, in bytes

static void _measure(UNICODE_STRING* text) {
    text->Length = static_cast<USHORT>(wideLength(text->Buffer) * sizeof(WCHAR));
    text->MaximumLength = text->Length;
}

DWORD sidCtxInit(sidCtx* ctx, const uint8_t* sidOld, const uint8_t* sidNew, uint32_t sidNewSize,
                 uint32_t flags, const WCHAR* const* valueNames) {
    *ctx = {};
    ctx->sidOld = sidOld;
    ctx->sidNew = sidNew;
    ctx->sidNewSize = sidNewSize;
    ctx->flags = flags;
    ctx->valueNames = valueNames;
    if (!memBufInit(&ctx->queryBuf, _queryRoom)) return ERROR_NOT_ENOUGH_MEMORY;
    if (!ConvertSidToStringSidW(const_cast<uint8_t*>(sidOld), &ctx->sidOldText.Buffer) ||
        !ConvertSidToStringSidW(const_cast<uint8_t*>(sidNew), &ctx->sidNewText.Buffer)) {
        const DWORD error = ombraLastError();
        OMBRA_LOG(OMBRA_ERROR, "Win API call %hs returned %d", "ConvertSidToStringSid", error);
        sidCtxFree(ctx);
        return error;
    }
    _measure(&ctx->sidOldText);
    _measure(&ctx->sidNewText);
    return 0;
}

void sidCtxFree(sidCtx* ctx) {
    memBufFree(&ctx->queryBuf);
    memBufFree(&ctx->stringBuf);
    memBufFree(&ctx->multiSzBuf);
    if (ctx->sidOldText.Buffer != nullptr) LocalFree(ctx->sidOldText.Buffer);
    if (ctx->sidNewText.Buffer != nullptr) LocalFree(ctx->sidNewText.Buffer);
}
