/* SPDX-License-Identifier: GPL-2.0-or-later */
/* A fuzz target's one session. */
#include "platform/offline/base/session.h"

namespace {

offline::Session session;

} /* namespace */
