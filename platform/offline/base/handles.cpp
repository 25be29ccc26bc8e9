/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/base/handles.h"

#include "platform/offline/base/guarded.h"
#include "platform/offline/base/session.h"

namespace offline {
namespace {

/* Handle values are multiples of four above 0, as the platform's are. */
HANDLE toHandle(size_t index) {
    return reinterpret_cast<HANDLE>((index + 1) * 4);
}

HandleSlot* slotOf(HANDLE handle) {
    const auto value = reinterpret_cast<ULONG_PTR>(handle);
    if (value == 0 || value % 4 != 0 || value / 4 > session().handles.slots.size()) return nullptr;
    HandleSlot& slot = session().handles.slots[value / 4 - 1];
    return slot.type == nullptr ? nullptr : &slot;
}

} /* namespace */

HANDLE handleCreate(const HandleType& type, void* object) {
    HandleTable& handles = session().handles;
    size_t index = handles.firstFree;
    if (index == SIZE_MAX) {
        index = handles.slots.size();
        const NTSTATUS status = guarded([&] {
            handles.slots.emplace_back();
            return STATUS_SUCCESS;
        });
        if (status < 0) return nullptr;
    } else {
        handles.firstFree = handles.slots[index].nextFree;
    }
    handles.slots[index].type = &type;
    handles.slots[index].object = object;
    return toHandle(index);
}

void* handleObject(HANDLE handle, const HandleType& type) {
    const HandleSlot* slot = slotOf(handle);
    return slot != nullptr && slot->type == &type ? slot->object : nullptr;
}

bool handleClose(HANDLE handle) {
    HandleSlot* slot = slotOf(handle);
    if (slot == nullptr) return false;
    const HandleType* type = slot->type;
    void* object = slot->object;
    slot->type = nullptr;
    slot->object = nullptr;
    slot->nextFree = session().handles.firstFree;
    session().handles.firstFree = reinterpret_cast<ULONG_PTR>(handle) / 4 - 1;
    type->close(object);
    return true;
}

void handlesCloseAll() {
    for (size_t index = 0; index < session().handles.slots.size(); index++) handleClose(toHandle(index));
}

} /* namespace offline */

NTSTATUS ZwClose(HANDLE handle) {
    return offline::handleClose(handle) ? STATUS_SUCCESS : STATUS_INVALID_HANDLE;
}

BOOL CloseHandle(HANDLE handle) {
    if (offline::handleClose(handle)) return TRUE;
    SetLastError(ERROR_INVALID_HANDLE);
    return FALSE;
}
