/* SPDX-License-Identifier: GPL-2.0-or-later */
/* One clone on its way: the image, and the run on it, which is a process of its own because session and tool
 * are the process's. */
#ifndef QUILLET_COMPANION_CLONE_PROCESS_H
#define QUILLET_COMPANION_CLONE_PROCESS_H

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "platform/offline/device/linked_image.h"

namespace companion {

/* Whatever ends it, nothing of it stays but a clone that is whole. */
struct CloneProcess {
    explicit CloneProcess(std::string wanted) : name(std::move(wanted)) {}
    ~CloneProcess();
    CloneProcess(const CloneProcess&) = delete;
    CloneProcess& operator=(const CloneProcess&) = delete;

    /* Makes the image and starts `quillet-offline run` on it. False, and failure, when that can't be. */
    bool start(const offline::GoldenImage& golden, const std::vector<std::string>& quilletOptions);

    /* Whether the run has ended. */
    bool ended();

    /* After its end: gives a clone its name where the run went well; else failure says why it is not there.
     * Fills what follows. */
    void finish(const offline::GoldenImage& golden);

    std::string name;
    std::string failure; /* a clause, printable; "" when it is made */
    std::string newSid;
    std::vector<std::string> lines; /* what the run said on standard error, printable */
    size_t warnings = 0;            /* of these, ERROR and WARN lines */
    double seconds = 0;
    uint64_t bytes = 0; /* of its file */

private:
    [[noreturn]] void become(pid_t parent, const std::vector<std::string>& quilletOptions) const;
    void listen();
    std::string cause() const;

    offline::LinkedImage image;
    FILE* output = nullptr;
    FILE* errors = nullptr;
    pid_t process = -1;
    int status = 0; /* as waitpid gives it */
    std::chrono::steady_clock::time_point begin = {};
};

} /* namespace companion */

#endif
