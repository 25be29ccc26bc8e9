#include "platform/offline/device/compression.h"

#include <zstd.h>

namespace offline {

constexpr int level = 1; /* before-images of small units gain little from higher ones */

bool compressed(Bytes plain, ByteVector& packed) {
    packed.resize(ZSTD_compressBound(plain.size()));
    const size_t size = ZSTD_compress(packed.data(), packed.size(), plain.data(), plain.size(), level);
    if (ZSTD_isError(size) != 0 || size >= plain.size()) return false;
    packed.resize(size);
    return true;
}

bool uncompressed(Bytes packed, std::span<uint8_t> plain) {
    return ZSTD_decompress(plain.data(), plain.size(), packed.data(), packed.size()) == plain.size();
}

} /* namespace offline */
