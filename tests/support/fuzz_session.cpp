/* A fuzz target's one session. */
#include "platform/offline/base/session.h"

namespace {

offline::Session session;

} /* namespace */
