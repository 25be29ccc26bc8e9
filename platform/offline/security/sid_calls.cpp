/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The platform's calls that make the text of SIDs. */
#include <cstdlib>

#include "platform/offline/base/status.h"
#include "platform/offline/descriptor/sid_format.h"

namespace offline {
namespace {

/* The text in a block of its own for the caller, who gives it to LocalFree. */
template <typename Character>
NTSTATUS allocateText(PSID sid, Character** result) {
    if (sid == nullptr || result == nullptr) return STATUS_INVALID_PARAMETER;
    SidText text = {};
    const size_t length = formatSid({static_cast<const uint8_t*>(sid), longestSid}, text);
    if (length == 0) return STATUS_INVALID_SID;
    auto* block = static_cast<Character*>(malloc((length + 1) * sizeof(Character)));
    if (block == nullptr) return STATUS_NO_MEMORY;
    for (size_t i = 0; i <= length; i++) block[i] = static_cast<Character>(text.characters[i]);
    *result = block;
    return STATUS_SUCCESS;
}

} /* namespace */
} /* namespace offline */

BOOL ConvertSidToStringSidA(PSID sid, LPSTR* text) {
    return offline::booleanResult(offline::allocateText(sid, text));
}

BOOL ConvertSidToStringSidW(PSID sid, LPWSTR* text) {
    return offline::booleanResult(offline::allocateText(sid, text));
}

HLOCAL LocalFree(HLOCAL block) {
    free(block);
    return nullptr;
}
