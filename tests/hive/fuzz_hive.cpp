/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Any bytes as a hive: opened, read whole, changed, and opened again. */
#include <cstdlib>

#include "platform/offline/hive/base_block.h"
#include "platform/offline/hive/format.h"
#include "tests/hive/model.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace offline;
    ByteVector file(data, data + size);
    if (file.size() >= regf::base::size) sealBaseBlock(std::span(file).first(regf::base::size), 1, 1);
    if (!test::exercise(file, 30)) abort();
    return 0;
}
