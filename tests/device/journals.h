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
        sample->soundMedia();
        if (!sample->isOld()) return sample;
    }
}

inline const char* const journalOfDisk = "/a/disk0.quillet-journal";

/* The half-changed system with other bytes in its journal. */
struct TamperedJournal {
    const std::unique_ptr<Sample> sample = cutHalfway(23, 1);
    MachineDisk& disk = sample->disks.front();
    const ByteVector half = disk.medium.now, whole = sample->files.now.at(journalOfDisk)->now;
    const size_t body = journal::head::size + numberAt<uint32_t>(whole, journal::head::bodyLength);
    int played = 0;

    /* The input says how long the file is (two bytes; 0: as it was), how it is used (one), and which bytes
     * are others: where (three) and how (one). Played back is what was written, and nothing else: a damaged
     * journal leaves the disk as it is, and is refused unless it has neither a whole head nor an end, as
     * before a commit writes to the disk; the resealed one of a forger may be played, but only inside the
     * disk. What of that does not hold; empty: all does. */
    std::string harm(Bytes input) {
        ByteVector file = whole;
        const auto length = numberAt<uint16_t>(input, 0);
        if (length != 0) file.resize(length % file.size() + 1);
        for (size_t at = 3; at + 4 <= input.size(); at += 4) {
            const uint32_t where = numberAt<uint32_t>(input, at) & 0xFFFFFF;
            file[where % file.size()] ^= input[at + 3];
        }
        const bool asUndo = input[2] % 2 != 0, sealed = input[2] % 4 > 1;
        if (sealed) reseal(file);
        disk.medium.now = half;
        disk.medium.flush();
        sample->files.now = {{asUndo ? "/a/disk0.quillet-undo" : journalOfDisk,
                              std::make_shared<Medium>(Medium{file, file, {}})}};
        sample->files.opened.clear();
        sample->files.pending.clear();
        const bool done = asUndo ? sample->takeBack() == UndoOutcome::done : sample->recover() >= 0;
        played += done ? 1 : 0;
        if (!done && disk.medium.now != half) return "refused, and the disk is changed";
        if (!done && !asUndo && sample->problem.text.empty()) return "refused without a word";
        if (!done || sealed || file == whole || sample->holds(sample->before)) return "";
        const size_t end = std::min(journal::closing::size, file.size());
        const bool headWhole =
            file.size() >= body && sameBytes(Bytes(file).first(body), Bytes(whole).first(body));
        const bool endWhole = sameBytes(Bytes(file).last(end), Bytes(whole).last(end));
        if (!headWhole && !endWhole && disk.medium.now == half) return "";
        return "played back though it is damaged";
    }
};

} /* namespace offline::test */

#endif
