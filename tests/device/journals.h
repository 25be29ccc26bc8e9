/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Journals that were tampered with. */
#ifndef QUILLET_TESTS_DEVICE_JOURNALS_H
#define QUILLET_TESTS_DEVICE_JOURNALS_H

#include <memory>

#include "tests/device/sample.h"

namespace offline::test {

/* Makes the checksums fit again, as far as the lengths in it lead. */
inline void reseal(ByteVector& file) {
    using namespace journal;
    const auto seal = [&](uint64_t start, uint64_t length, uint64_t at) {
        put(file, start + at, uint64_t{0});
        put(file, start + at, checksum(Bytes(file).subspan(start, length)));
    };
    if (file.size() < head::size + closing::size) return;
    const uint64_t last = file.size() - closing::size;
    uint64_t at = head::size + uint64_t{numberAt<uint32_t>(file, head::bodyLength)};
    if (at > last) return;
    seal(0, at, head::sum);
    while (at + piece::size <= last && numberAt<uint32_t>(file, at) == pieceMagic) {
        const uint64_t length = piece::size + uint64_t{numberAt<uint32_t>(file, at + piece::table)} +
                                numberAt<uint32_t>(file, at + piece::stored);
        if (length > last - at) break;
        seal(at, length, piece::sum);
        at += length;
    }
    put(file, last + closing::sumOfAll, checksum(Bytes(file).first(std::min(at, last))));
    seal(last, closing::used, closing::sum);
}

/* A system whose commit was cut off half-way: it bears its marks, and the journal is whole. */
inline std::unique_ptr<Sample> cutHalfway(uint64_t seed, size_t disks) {
    Sample uncut(seed, disks);
    uncut.machine.calls = 0;
    static_cast<void>(uncut.commit());
    for (uint64_t cutAt = uncut.machine.calls / 2;; ++cutAt) {
        auto sample = std::make_unique<Sample>(seed, disks);
        sample->machine.calls = 0;
        sample->machine.cutAt = cutAt;
        static_cast<void>(sample->commit());
        sample->machine.heal();
        for (MachineDisk& disk : sample->disks) disk.flushRefused = false;
        if (!sample->isOld()) return sample;
    }
}

inline const char* const journalOfDisk = "/a/disk0.quillet-journal";

} /* namespace offline::test */

#endif
