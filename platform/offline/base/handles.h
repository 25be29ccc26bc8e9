/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The session's handles: keys, tokens, searches and volumes in one table, as on the platform. */
#ifndef QUILLET_OFFLINE_BASE_HANDLES_H
#define QUILLET_OFFLINE_BASE_HANDLES_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/nt.h"

namespace offline {

/* One of these stands for each kind of object; its address is the kind. */
struct HandleType {
    void (*close)(void* object); /* called once, when the handle is closed */
};

struct HandleSlot {
    const HandleType* type = nullptr; /* null: free */
    void* object = nullptr;
    size_t nextFree = 0;
};

struct HandleTable {
    std::vector<HandleSlot> slots;
    size_t firstFree = SIZE_MAX;
};

/* A new handle on the object, which the handle owns from then on; null when there is no memory for it, and
 * then the object stays the caller's. */
HANDLE handleCreate(const HandleType& type, void* object);

/* The object of a handle of this type, or null. */
void* handleObject(HANDLE handle, const HandleType& type);

/* Closes a handle of any type. False when it is not open. */
bool handleClose(HANDLE handle);

/* Closes every handle that is open. */
void handlesCloseAll();

} /* namespace offline */

#endif
