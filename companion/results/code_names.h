/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The platform's codes by their names, and what they mean here, for those that the offline platform gives. */
#ifndef QUILLET_COMPANION_CODE_NAMES_H
#define QUILLET_COMPANION_CODE_NAMES_H

#include <cstdint>
#include <string>

namespace companion {

/* "ERROR_ACCESS_DENIED"; null where it is not known. */
const char* win32Name(uint32_t code);

/* "STATUS_ACCESS_DENIED"; null where it is not known. */
const char* statusName(uint32_t status);

/* "access was refused"; "the platform says 4711" for one without words of its own. */
std::string win32Words(uint32_t code);

/* The Win32 code of a status. */
uint32_t win32Of(uint32_t status);

} /* namespace companion */

#endif
