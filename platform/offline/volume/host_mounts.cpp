#include "platform/offline/volume/ntfs3g.h"
/* before everything else */
#include "platform/offline/volume/host_mounts.h"

namespace offline {

bool isMounted(const std::string& path) {
    unsigned long flags = 0;
    return ntfs3g::ntfs_check_if_mounted(path.c_str(), &flags) == 0 && (flags & ntfs3g::NTFS_MF_MOUNTED) != 0;
}

} /* namespace offline */
