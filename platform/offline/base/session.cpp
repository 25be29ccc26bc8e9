/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/base/session.h"

namespace offline {

Session* currentSession = nullptr;

Session::Session() : before(currentSession) {
    currentSession = this;
}

Session::~Session() {
    handlesCloseAll();
    for (RoomState& room : rooms) {
        if (room.object != nullptr) room.destroy(room.object);
        room = {};
    }
    currentSession = before;
}

} /* namespace offline */
