/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/device/compression.h"

#include <zstd.h>

#include <algorithm>
#include <new>

namespace offline {

constexpr int level = 1; /* before-images of small units gain little from higher ones */

void Packer::Free::operator()(ZSTD_CCtx_s* freed) const {
    ZSTD_freeCCtx(freed);
}

Bytes Packer::packed(Bytes plain) {
    if (context == nullptr) context.reset(ZSTD_createCCtx());
    if (context == nullptr) throw std::bad_alloc();
    room.resize(std::max(room.size(), ZSTD_compressBound(plain.size())));
    const size_t size =
        ZSTD_compressCCtx(context.get(), room.data(), room.size(), plain.data(), plain.size(), level);
    return ZSTD_isError(size) != 0 || size >= plain.size() ? Bytes() : Bytes(room).first(size);
}

void Unpacker::Free::operator()(ZSTD_DCtx_s* freed) const {
    ZSTD_freeDCtx(freed);
}

bool Unpacker::unpack(Bytes packed, std::span<uint8_t> plain) {
    if (context == nullptr) context.reset(ZSTD_createDCtx());
    if (context == nullptr) throw std::bad_alloc();
    return ZSTD_decompressDCtx(context.get(), plain.data(), plain.size(), packed.data(), packed.size()) ==
           plain.size();
}

} /* namespace offline */
