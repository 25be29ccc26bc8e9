/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Linked images: qcow2 files that hold only what differs from a golden image, which lies below them as their
 * backing file. No function throws; problems name the file. */
#ifndef QUILLET_OFFLINE_DEVICE_LINKED_IMAGE_H
#define QUILLET_OFFLINE_DEVICE_LINKED_IMAGE_H

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <vector>

#include "platform/offline/base/problem.h"
#include "platform/offline/device/disk_name.h"

namespace offline {

/* An image that others are made over. As long as this lives nobody who keeps locks writes to it or to a file
 * that it builds on; readers share it, other programs' too. */
struct GoldenImage {
    GoldenImage() = default;
    ~GoldenImage();
    GoldenImage(const GoldenImage&) = delete;
    GoldenImage& operator=(const GoldenImage&) = delete;

    /* A file of it, open for its lock alone. */
    struct File {
        std::string path;
        int file;
        struct stat then; /* when it was locked */
    };

    std::string path; /* from the root */
    DiskFormat format = DiskFormat::raw;
    std::vector<File> files = {};
};

/* Refused: an address, what imageChainOf refuses, an image that somebody may write to; and that a program is
 * missing, or the library, without which linked images can be neither made nor changed. */
NTSTATUS goldenImageOpen(const DiskName& disk, GoldenImage& golden, Problem& problem);

/* A linked image that is being made. It has its name only when it is whole: until then it is a file of that
 * name and ".quillet-part", which is removed with this, and so is a journal beside it. */
struct LinkedImage {
    LinkedImage() = default;
    ~LinkedImage();
    LinkedImage(const LinkedImage&) = delete;
    LinkedImage& operator=(const LinkedImage&) = delete;

    /* Makes it, empty. A part that was left there is replaced when it is a file of this user that nobody has
     * open for this or as a disk; else it is refused. */
    NTSTATUS create(const GoldenImage& golden, const std::string& name, Problem& problem);

    /* Brings it to its medium and gives it its name, which must still be free. Refused also when a file of
     * the golden image was changed, or another one took its name, since that was opened. bytes: of the file.
     */
    NTSTATUS publish(const GoldenImage& golden, uint64_t& bytes, Problem& problem);

    const std::string& partPath() const { return part; } /* from the root */

private:
    NTSTATUS takePart(Problem& problem);
    NTSTATUS fill(const GoldenImage& golden, Problem& problem);
    std::string called, wanted, part, journal; /* as the user names it; then paths from the root */
    int file = -1;
    bool ours = false; /* the part */
};

/* Whether it is a name of one that is being made. */
bool isLinkedImagePart(const std::string& name);

/* Whether an image could be made under this name: it is UTF-8, free, and ends in ".qcow2", so that nobody
 * takes the image for a raw one, and its directory can be written. place: the same for two names of one file.
 */
NTSTATUS linkedImagePlace(const std::string& name, std::string& place, Problem& problem);

} /* namespace offline */

#endif
