/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Any bytes as a descriptor that a disk holds, and what the engine does with one that passes the check: it
 * has to stay inside and to leave the descriptor valid, whatever SIDs it replaces. In front of the bytes
 * stand the choice of the token and of the match, the number of sub-authorities, where in the bytes the old
 * SID is taken from, and the new SID. */
#include <algorithm>
#include <cstdlib>

#include "sidchng/sid.h"
#include "tests/support/descriptors.h"

namespace {

struct Choice {
    bool exact = false;
    Image oldSid, newSid;
};

constexpr size_t choiceSize = 4 + 68;

/* Both SIDs have the same revision, authority and count, as those have that the engine accepts; all else is
 * the input's. */
Choice choose(const uint8_t* data, const Image& image) {
    Choice choice;
    choice.exact = (data[0] & 2) != 0;
    const size_t size = 8 + 4 * (1 + size_t{data[1]} % 15);
    const size_t from = (size_t{data[2]} | size_t{data[3]} << 8) % (image.size() + 1);
    choice.newSid.assign(data + 4, data + 4 + size);
    choice.oldSid.assign(image.begin() + static_cast<ptrdiff_t>(from),
                         image.begin() + static_cast<ptrdiff_t>(std::min(image.size(), from + size)));
    choice.oldSid.resize(size);
    choice.oldSid[0] = choice.newSid[0] = 1;
    choice.oldSid[1] = choice.newSid[1] = static_cast<uint8_t>((size - 8) / 4);
    return choice;
}

void replaceIn(const Image& bytes, const Choice& choice) {
    const Exact image(bytes);
    const Exact oldSid(choice.oldSid), newSid(choice.newSid);
    const UNICODE_STRING name = {};
    for (int pass = 0; pass < 3; pass++) {
        int touched = 0;
        if (sidReplaceInSDInternal(image.bytes.get(), oldSid.bytes.get(), newSid.bytes.get(),
                                   static_cast<uint32_t>(oldSid.size), &name, choice.exact, &touched) != 0 ||
            !offline::descriptorValid(image.span())) {
            abort();
        }
    }
}

} /* namespace */

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < choiceSize) return 0;
    offline::setAccessMode((data[0] & 1) != 0 ? offline::AccessMode::checked
                                              : offline::AccessMode::unrefused);
    offline::removePrivilege(offline::restorePrivilege);
    const Image image(data + choiceSize, data + size);
    // A checked token may be refused the owner that it sets; what remains of the promises holds for both.
    if (!exercise(image) && offline::accessMode() == offline::AccessMode::unrefused) abort();
    if (offline::descriptorValid(image)) replaceIn(image, choose(data, image));
    return 0;
}
