#include "platform/offline/base/session.h"

#include <cassert>

namespace offline {
namespace {

Session* current = nullptr;

} /* namespace */

Session::Session() : before(current) {
    current = this;
}

Session::~Session() {
    handlesCloseAll();
    for (RoomState& room : rooms) {
        if (room.object != nullptr) room.destroy(room.object);
        room = {};
    }
    current = before;
}

Session& session() {
    assert(current != nullptr);
    return *current;
}

} /* namespace offline */
