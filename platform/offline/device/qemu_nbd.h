/* SPDX-License-Identifier: GPL-2.0-or-later */
/* qemu-nbd, which serves what is no raw file to us alone. Private to this room. Every function may throw
 * std::bad_alloc. */
#ifndef QUILLET_OFFLINE_DEVICE_QEMU_NBD_H
#define QUILLET_OFFLINE_DEVICE_QEMU_NBD_H

#include <string>
#include <vector>

#include "platform/offline/base/problem.h"
#include "platform/offline/device/child_program.h"
#include "platform/offline/device/image_chain.h"

namespace offline {

/* A server and the socket to it, which is the only way to it: when that is closed, by whatever ends us too,
 * the server ends. */
struct QemuNbd {
    QemuNbd() = default;
    ~QemuNbd();
    QemuNbd(const QemuNbd&) = delete;
    QemuNbd& operator=(const QemuNbd&) = delete;

    ChildProgram program;
    int socket = -1; /* whoever takes it sets it to -1, and closes it before this ends */

    /* Its own words, shortened and without the name that it was given; "" when it has none. */
    std::string words() const;

    /* Fills the problem for a disk that it does not serve, with its own words. To be called when the socket
     * is closed. error: what speaks for it where it has no words. */
    NTSTATUS refuseDisk(const std::string& disk, const std::string& error, Problem& problem);
};

/* ---- Names, as qemu's programs take them ---- */

const char* qemuFormatName(DiskFormat format);

/* The path of a file from the root; "" where there is no working directory. */
std::string absolutePath(const std::string& path);

bool isUtf8(const std::string& text);

/* What it is to serve: a chain of files that are named to it one by one with their formats, so that it
 * neither looks for others nor guesses, or an address. "" of a name that can't be passed on. */
std::string qemuImage(const ImageChain& chain, bool readOnly);

struct QemuServing {
    std::string image; /* as qemuImage gives it, or an address of kind qemu */
    bool isAddress = false, readOnly = false;
    bool scratch = false; /* see disk_name.h */
    bool ioUring = false; /* it reads and writes through io_uring; not every kernel and qemu-nbd lets it */
};

/* Starts it. */
NTSTATUS qemuNbdStart(const std::string& disk, const QemuServing& serving, QemuNbd& server, Problem& problem);

} /* namespace offline */

#endif
