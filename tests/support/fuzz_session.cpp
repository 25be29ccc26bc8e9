/* A fuzz target's one session. */
#include "platform/offline/base/session.h"

namespace {

const offline::Session session;

} /* namespace */
