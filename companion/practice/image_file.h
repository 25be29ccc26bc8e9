/* SPDX-License-Identifier: GPL-2.0-or-later */
/* A file that appears under its name only when it is whole. */
#ifndef QUILLET_COMPANION_PRACTICE_IMAGE_FILE_H
#define QUILLET_COMPANION_PRACTICE_IMAGE_FILE_H

#include <cstdint>
#include <string>

namespace companion {

/* A temporary file beside the one to be made, which goes away with this unless it was kept; also when the
 * program is ended by a signal. */
struct ImageFile {
    std::string wanted;    /* the name to be */
    std::string temporary; /* the name until then */
    int file = -1;         /* open for reading and writing */

    /* Throws Failure; refuses a name that is taken, or with mayReplace one of anything but an ordinary file.
     */
    ImageFile(std::string name, bool mayReplace);
    ~ImageFile();
    ImageFile(const ImageFile&) = delete;
    ImageFile& operator=(const ImageFile&) = delete;

    void setSize(uint64_t size); /* bytes; what is added reads as zeros */

    /* On the medium, then under its name. */
    void keep();

private:
    bool mayReplace;
};

} /* namespace companion */

#endif
