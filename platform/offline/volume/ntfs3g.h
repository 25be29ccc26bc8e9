/* SPDX-License-Identifier: GPL-2.0-or-later */
/* libntfs-3g's declarations, in a namespace of their own: the library and the platform's header give the same
 * names to different things. As the platform's are macros in part, this header comes before any that includes
 * platform/nt.h. Private to this room. */
#ifndef QUILLET_OFFLINE_VOLUME_NTFS3G_H
#define QUILLET_OFFLINE_VOLUME_NTFS3G_H

#ifdef QUILLET_PLATFORM_NT_H
#error "platform/offline/volume/ntfs3g.h must be included before platform/nt.h"
#endif

/* What the library's headers would include themselves, so that it stays outside the namespace. */
#include <endian.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>

namespace ntfs3g {
extern "C" {
#include <ntfs-3g/types.h>
/* types.h first */
#include <ntfs-3g/layout.h>
/* layout.h second */
#include <ntfs-3g/attrib.h>
#include <ntfs-3g/cache.h>
#include <ntfs-3g/device.h>
#include <ntfs-3g/dir.h>
#include <ntfs-3g/index.h>
#include <ntfs-3g/inode.h>
#include <ntfs-3g/logfile.h>
#include <ntfs-3g/logging.h>
#include <ntfs-3g/mft.h>
#include <ntfs-3g/mst.h>
#include <ntfs-3g/reparse.h>
#include <ntfs-3g/security.h>
#include <ntfs-3g/unistr.h>
#include <ntfs-3g/volume.h>
}
} /* namespace ntfs3g */

#undef min
#undef max

namespace offline {

constexpr ntfs3g::BOOL libraryTrue = ntfs3g::TRUE, libraryFalse = ntfs3g::FALSE;

/* What the library's macros call by its bare name. */
using ntfs3g::MFT_REF;
using ntfs3g::NA_NonResident;
using ntfs3g::ND_Dirty;
using ntfs3g::ND_Open;
using ntfs3g::ND_ReadOnly;
using ntfs3g::NI_Dirty;
using ntfs3g::NI_FileNameDirty;
using ntfs3g::NI_v3_Extensions;
using ntfs3g::NTFS_UPDATE_CTIME;
using ntfs3g::NTFS_UPDATE_MTIME;
using ntfs3g::NV_CaseSensitive;
using ntfs3g::NV_ReadOnly;
using ntfs3g::u16;
using ntfs3g::u64;

} /* namespace offline */

#endif
