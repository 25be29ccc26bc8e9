/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Handles on whole volumes, for CreateFileW and FlushFileBuffers. */
#ifndef QUILLET_OFFLINE_FILES_VOLUME_HANDLE_H
#define QUILLET_OFFLINE_FILES_VOLUME_HANDLE_H

namespace offline {

/* From now on the handles that are open lead to no volume. They can still be closed. */
void volumeHandlesEnd();

} /* namespace offline */

#endif
