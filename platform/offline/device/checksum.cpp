/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/device/checksum.h"

#include <xxhash.h>

#include <new>

namespace offline {

uint64_t checksum(Bytes bytes) {
    return XXH3_64bits(bytes.data(), bytes.size());
}

Digest digest(Bytes bytes) {
    XXH128_canonical_t canonical;
    XXH128_canonicalFromHash(&canonical, XXH3_128bits(bytes.data(), bytes.size()));
    Digest result;
    static_assert(sizeof canonical.digest == sizeof result);
    std::memcpy(result.data(), canonical.digest, result.size());
    return result;
}

void RunningChecksum::Free::operator()(XXH3_state_s* freed) const {
    XXH3_freeState(freed);
}

RunningChecksum::RunningChecksum() : state(XXH3_createState()) {
    if (state == nullptr) throw std::bad_alloc();
    XXH3_64bits_reset(state.get());
}

void RunningChecksum::add(Bytes bytes) {
    XXH3_64bits_update(state.get(), bytes.data(), bytes.size());
}

uint64_t RunningChecksum::value() const {
    return XXH3_64bits_digest(state.get());
}

} /* namespace offline */
