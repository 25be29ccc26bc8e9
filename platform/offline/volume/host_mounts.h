/* Private to this room. */
#ifndef QUILLET_OFFLINE_VOLUME_HOST_MOUNTS_H
#define QUILLET_OFFLINE_VOLUME_HOST_MOUNTS_H

#include <string>

namespace offline {

/* Whether the system's list of mounts names the file or device. */
bool isMounted(const std::string& path);

} /* namespace offline */

#endif
