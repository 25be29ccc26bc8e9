/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The platform's upper case of the Basic Multilingual Plane, as libntfs-3g has it: the table of the NTFS
 * volumes that the platform formats, which differs from Unicode's in some letters (the dotless i, the long s
 * and the micro sign stay as they are). Private to this room. */
#ifndef QUILLET_OFFLINE_BASE_UPCASE_H
#define QUILLET_OFFLINE_BASE_UPCASE_H

#include <array>

namespace offline {

using UpcaseTable = std::array<char16_t, 0x10000>; /* by code unit */

/* Built by the first call. */
const UpcaseTable& upcaseTable();

} /* namespace offline */

#endif
