/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Any edits of a whole journal, resealed: recovery and undo must neither crash nor leave the disk, and change
 * nothing when they refuse. */
#include <cstdlib>

#include "tests/device/journals.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace offline;
    using namespace offline::test;
    static const std::unique_ptr<Sample> sample = cutHalfway(23, 1);
    static const ByteVector half = sample->disks.front().medium.now;
    static const ByteVector whole = sample->files.now.at(journalOfDisk)->now;
    if (size < 4) return 0;
    ByteVector file = whole;
    const auto length = numberAt<uint16_t>(Bytes(data, size), 0);
    if (length != 0) file.resize(length % file.size() + 1);
    for (size_t at = 3; at + 3 <= size; at += 3) {
        file[numberAt<uint16_t>(Bytes(data, size), at) % file.size()] = data[at + 2];
    }
    if (data[2] % 4 != 0) reseal(file);
    MachineDisk& disk = sample->disks.front();
    disk.medium.now = half;
    sample->files.now = {{data[2] % 2 == 0 ? journalOfDisk : "/a/disk0.quillet-undo",
                          std::make_shared<Medium>(Medium{file, file, {}})}};
    sample->files.opened.clear();
    sample->files.pending.clear();
    disk.medium.flush();
    const bool played = data[2] % 2 == 0 ? sample->recover() >= 0 : sample->takeBack() == UndoOutcome::done;
    if (!played && disk.medium.now != half) std::abort();
    if (disk.medium.now.size() != half.size()) std::abort();
    return 0;
}
