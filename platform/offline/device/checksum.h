/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Checksums: whether bytes are those that were written, not who wrote them. */
#ifndef QUILLET_OFFLINE_DEVICE_CHECKSUM_H
#define QUILLET_OFFLINE_DEVICE_CHECKSUM_H

#include <array>
#include <memory>

#include "platform/offline/base/bytes.h"

struct XXH3_state_s;

namespace offline {

uint64_t checksum(Bytes bytes); /* XXH3, 64 bits */

using Digest = std::array<uint8_t, 16>;
Digest digest(Bytes bytes); /* XXH3, 128 bits in their canonical order */

/* The checksum of bytes that come piece by piece. Throws std::bad_alloc when it is made. */
struct RunningChecksum {
    RunningChecksum();
    void add(Bytes bytes);
    uint64_t value() const;

private:
    struct Free {
        void operator()(XXH3_state_s* freed) const;
    };
    std::unique_ptr<XXH3_state_s, Free> state;
};

} /* namespace offline */

#endif
