/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Compression with zstd, of pieces that fit in memory. May throw std::bad_alloc. */
#ifndef QUILLET_OFFLINE_DEVICE_COMPRESSION_H
#define QUILLET_OFFLINE_DEVICE_COMPRESSION_H

#include <memory>

#include "platform/offline/base/bytes.h"

struct ZSTD_CCtx_s;
struct ZSTD_DCtx_s;

namespace offline {

struct Packer {
    /* What the bytes are packed to, which lives until the next call; empty when it would not be smaller. */
    Bytes packed(Bytes plain);

private:
    struct Free {
        void operator()(ZSTD_CCtx_s* freed) const;
    };
    std::unique_ptr<ZSTD_CCtx_s, Free> context;
    ByteVector room;
};

struct Unpacker {
    /* Whether the bytes unpack to as many as there is room for, exactly. */
    bool unpack(Bytes packed, std::span<uint8_t> plain);

private:
    struct Free {
        void operator()(ZSTD_DCtx_s* freed) const;
    };
    std::unique_ptr<ZSTD_DCtx_s, Free> context;
};

} /* namespace offline */

#endif
