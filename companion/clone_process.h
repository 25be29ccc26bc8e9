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

#include "companion/results/results.h"
#include "platform/offline/device/linked_image.h"

namespace companion {

/* Whatever ends it, nothing of it stays but a clone that is whole. */
struct CloneProcess {
    /* place: of the clone among those of the call. */
    CloneProcess(size_t place, std::string wanted) : index(place), name(std::move(wanted)) {}
    ~CloneProcess();
    CloneProcess(const CloneProcess&) = delete;
    CloneProcess& operator=(const CloneProcess&) = delete;

    /* Makes the image and starts `quillet-offline run` on it, with these options of its own and of quillet's.
     * False, and failure, when that can't be. */
    bool start(const offline::GoldenImage& golden, const std::vector<std::string>& options,
               const std::vector<std::string>& quilletOptions);

    /* Whether the run has ended. */
    bool ended();

    /* After its end: gives a clone its name where the run went well; else failure says why it is not there.
     * Fills what follows. */
    void finish(const offline::GoldenImage& golden);

    const size_t index;
    std::string name;
    std::string failure;            /* a clause, printable; "" when it is made */
    std::vector<std::string> lines; /* what the run said on standard error, printable */
    size_t warnings = 0;            /* of these, ERROR and WARN lines */
    CloneResult result;             /* but for its problems, file and computer name */

private:
    [[noreturn]] void become(pid_t parent, const std::vector<std::string>& options,
                             const std::vector<std::string>& quilletOptions) const;
    void listen();
    void notePassedOver(const std::string& line);
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
