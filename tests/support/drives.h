/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Fixed drives in memory, for the calls by which the engine and the tool reach files. */
#ifndef QUILLET_TESTS_SUPPORT_DRIVES_H
#define QUILLET_TESTS_SUPPORT_DRIVES_H

#include <map>
#include <string>
#include <vector>

#include "tests/support/small_system.h"

namespace offline {

constexpr DWORD plainFile = FILE_ATTRIBUTE_NORMAL, directory = FILE_ATTRIBUTE_DIRECTORY;

/* A file or directory, and its entries' names in the order in which a search gives them. */
struct File {
    DWORD attributes = directory;
    ByteVector descriptor = systemOnly();
    std::vector<std::u16string> below = {};
};

/* Calls that reach a file are noted: "read SIZE PATH", "write PATH", "owner PATH" (made the token's), "list
 * PATH" (none, and protected), "attributes PATH", "volume PATH" and "flush". */
struct Drives {
    std::map<std::u16string, File> files; /* by their long paths */
    bool keepsOld = false;                /* what is written does not take hold */
    DWORD reported = 0;                   /* what reads ask for, instead of the descriptor's size */

    void answerCalls();
    File& add(const std::u16string& path, DWORD attributes = directory); /* after its parent */
    /* A chain of directories below a drive; the path of the last. */
    std::u16string chain(int levels, const std::u16string& name);
};

} /* namespace offline */

#endif
