/* Any bytes as a descriptor that a disk holds. The first byte chooses the token. */
#include <cstdlib>

#include "tests/security/shapes.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    offline::setAccessMode((data[0] & 1) != 0 ? offline::AccessMode::checked
                                              : offline::AccessMode::unrefused);
    offline::removePrivilege(offline::restorePrivilege);
    const Image image(data + 1, data + size);
    // A checked token may be refused the owner that it sets; what remains of the promises holds for both.
    if (!exercise(image) && offline::accessMode() == offline::AccessMode::unrefused) abort();
    return 0;
}
