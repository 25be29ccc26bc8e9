#include "platform/offline/base/handles.h"

#include <cstddef>
#include <new>
#include <vector>

namespace offline {
namespace {

struct Slot {
    const HandleType* type = nullptr; /* null: free */
    void* object = nullptr;
    size_t nextFree = 0;
};

struct Table {
    std::vector<Slot> slots;
    size_t firstFree = SIZE_MAX;
};

Table& table() {
    static Table handles;
    return handles;
}

/* Handle values are multiples of four above 0, as the platform's are. */
HANDLE toHandle(size_t index) {
    return reinterpret_cast<HANDLE>((index + 1) * 4);
}

Slot* slotOf(HANDLE handle) {
    const auto value = reinterpret_cast<ULONG_PTR>(handle);
    if (value == 0 || value % 4 != 0 || value / 4 > table().slots.size()) return nullptr;
    Slot& slot = table().slots[value / 4 - 1];
    return slot.type == nullptr ? nullptr : &slot;
}

} /* namespace */

HANDLE handleMake(const HandleType& type, void* object) {
    Table& handles = table();
    size_t index = handles.firstFree;
    if (index == SIZE_MAX) {
        index = handles.slots.size();
        try {
            handles.slots.emplace_back();
        } catch (const std::bad_alloc&) {
            return nullptr;
        }
    } else {
        handles.firstFree = handles.slots[index].nextFree;
    }
    handles.slots[index].type = &type;
    handles.slots[index].object = object;
    return toHandle(index);
}

void* handleObject(HANDLE handle, const HandleType& type) {
    const Slot* slot = slotOf(handle);
    return slot != nullptr && slot->type == &type ? slot->object : nullptr;
}

bool handleClose(HANDLE handle) {
    Slot* slot = slotOf(handle);
    if (slot == nullptr) return false;
    const HandleType* type = slot->type;
    void* object = slot->object;
    slot->type = nullptr;
    slot->object = nullptr;
    slot->nextFree = table().firstFree;
    table().firstFree = reinterpret_cast<ULONG_PTR>(handle) / 4 - 1;
    type->close(object);
    return true;
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
