/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The open searches: FindFirstFileW, FindNextFileW, FindClose. */
#ifndef QUILLET_OFFLINE_FILES_SEARCHES_H
#define QUILLET_OFFLINE_FILES_SEARCHES_H

#include <string_view>

#include "platform/offline/volume/volume.h"

namespace offline {

/* The file at a path from the volume's root, when it is what an open search delivered last: the search's
 * directory and the name, exactly as they were given and delivered. The latest search is asked first. */
bool searchesKnow(const Volume& volume, std::u16string_view relative, FileRef& file);

/* Every open search ends; the handles can still be closed. Frees the listings. */
void searchesEnd();

} /* namespace offline */

#endif
