/* Compression with zstd, of pieces that fit in memory. */
#ifndef QUILLET_OFFLINE_DEVICE_COMPRESSION_H
#define QUILLET_OFFLINE_DEVICE_COMPRESSION_H

#include "platform/offline/base/bytes.h"

namespace offline {

/* False when it would not be smaller. May throw std::bad_alloc. */
bool compressed(Bytes plain, ByteVector& packed);

/* Whether the bytes unpack to as many as there is room for, exactly. */
bool uncompressed(Bytes packed, std::span<uint8_t> plain);

} /* namespace offline */

#endif
