/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Any edits of a whole journal. */
#include <cstdlib>

#include "tests/device/journals.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static offline::test::TamperedJournal journal;
    if (size >= 4 && !journal.harm({data, size}).empty()) std::abort();
    return 0;
}
