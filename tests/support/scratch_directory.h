/* SPDX-License-Identifier: GPL-2.0-or-later */
/* A directory of its own for a test, removed with everything in it. */
#ifndef QUILLET_TESTS_SUPPORT_SCRATCH_DIRECTORY_H
#define QUILLET_TESTS_SUPPORT_SCRATCH_DIRECTORY_H

#include <cstdlib>
#include <filesystem>
#include <string>

namespace offline {

struct ScratchDirectory {
    std::string path = std::filesystem::canonical(std::filesystem::temp_directory_path()) / "quillet-XXXXXX";

    ScratchDirectory() {
        if (mkdtemp(path.data()) == nullptr) std::abort();
    }
    ~ScratchDirectory() { std::filesystem::remove_all(path); }
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;
    std::string at(const std::string& name) const { return path + "/" + name; }
};

} /* namespace offline */

#endif
