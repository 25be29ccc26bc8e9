/* What a disk is opened for. */
#ifndef QUILLET_OFFLINE_DEVICE_DISK_ACCESS_H
#define QUILLET_OFFLINE_DEVICE_DISK_ACCESS_H

namespace offline {

/* trial: reads only, and refuses whatever readWrite would, of the disk and of the volumes on it. */
enum class DiskAccess { readOnly, readWrite, trial };

} /* namespace offline */

#endif
