/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The library's headers and the platform's give the same names to different things, so that this file
 * includes nothing that includes platform/nt.h. */
#include "platform/offline/base/upcase.h"

#include <sys/stat.h>

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>

extern "C" {
#include <ntfs-3g/volume.h>
/* volume.h declares what unistr.h needs */
#include <ntfs-3g/unistr.h>
}

namespace offline {
namespace {

UpcaseTable build() {
    UpcaseTable table;
    static_assert(sizeof(ntfschar) == sizeof(char16_t));
    ntfs_upcase_table_build(reinterpret_cast<ntfschar*>(table.data()), sizeof table); /* the size in bytes */
    return table;
}

} /* namespace */

const UpcaseTable& upcaseTable() {
    static const UpcaseTable table = build();
    return table;
}

} /* namespace offline */
