/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The state of the offline platform: all that outlives one of its calls. The platform's calls carry no
 * context, so one session is the current one, and that pointer is the only variable of the process;
 * everything else is a member of the session, made when a room first needs it and destroyed with the session,
 * in one order. */
#ifndef QUILLET_OFFLINE_BASE_SESSION_H
#define QUILLET_OFFLINE_BASE_SESSION_H

#include <array>
#include <cassert>
#include <cstddef>

#include "platform/nt.h"
#include "platform/offline/base/handles.h"
#include "platform/offline/base/progress.h"

namespace offline {

/* The rooms that keep a state between calls, in the order in which a session's end destroys their states:
 * what refers to another one's goes first. Handles go before all of them. */
enum class StatefulRoom { registry, files, system, security };
constexpr size_t statefulRooms = 4;

/* One room's state, and how it is destroyed. */
struct RoomState {
    void* object = nullptr;
    void (*destroy)(void* object) = nullptr;
};

struct Session {
    HandleTable handles;
    DWORD lastError = 0;

    /* Opens the installation for the first call that needs it (system_needed.h). */
    NTSTATUS (*systemOpener)() = nullptr;
    bool systemAsked = false;
    NTSTATUS systemStatus = STATUS_SUCCESS;

    std::array<RoomState, statefulRooms> rooms;

    Progress progress;

    bool memoryRanOut = false; /* at some time, in a call that failed for it (guarded.h) */

    /* Makes itself the current session; its end gives that back to the one before. */
    Session();
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

private:
    Session* const before;
};

/* The current session, which Session itself sets; there must be one. */
extern Session* currentSession;
inline Session& session() {
    assert(currentSession != nullptr);
    return *currentSession;
}

/* Apart from roomState, so that finding what is there stays small enough to be done in place. */
template <typename State>
[[gnu::noinline]] void makeRoomState(RoomState& state) {
    state = {new State, [](void* object) { delete static_cast<State*>(object); }};
}

/* The current session's state of a room, made at the first call: may throw bad_alloc then. State is the same
 * type for a room at every call. */
template <typename State>
State& roomState(StatefulRoom room) {
    RoomState& state = session().rooms[static_cast<size_t>(room)];
    if (state.object == nullptr) [[unlikely]]
        makeRoomState<State>(state);
    return *static_cast<State*>(state.object);
}

/* Whether the room has a state yet: to forget what is not there, none is made, for that takes memory. */
inline bool hasRoomState(StatefulRoom room) {
    return session().rooms[static_cast<size_t>(room)].object != nullptr;
}

} /* namespace offline */

#endif
