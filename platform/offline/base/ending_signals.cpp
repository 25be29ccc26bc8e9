/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/base/ending_signals.h"

#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstring>

namespace offline {
namespace {

constexpr int endingSignals[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM};

/* A handler has no other way to them. */
const char* lastLine = nullptr;
std::atomic<const char*> wipe = nullptr;

sigset_t endingSet() {
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : endingSignals) sigaddset(&set, signal);
    return set;
}

/* The handler is gone when it runs (SA_RESETHAND), so that the signal, raised again, does what it always does
 * as soon as this returns. Only what is safe in a handler is called. */
void sayAndEnd(int signal) {
    endingSignalsWipeNow();
    const ssize_t written = write(STDERR_FILENO, lastLine, strlen(lastLine));
    static_cast<void>(written); /* the process ends in any case */
    raise(signal);
}

} /* namespace */

void endingSignalsSay(const char* line) {
    lastLine = line;
    struct sigaction say = {};
    say.sa_handler = sayAndEnd;
    say.sa_mask = endingSet();
    say.sa_flags = static_cast<int>(SA_RESETHAND);
    for (const int signal : endingSignals) {
        struct sigaction before = {};
        if (sigaction(signal, nullptr, &before) == 0 && before.sa_handler != SIG_IGN) {
            sigaction(signal, &say, nullptr);
        }
    }
}

void endingSignalsWipe(const char* bytes) {
    wipe = bytes;
    if (lastLine == nullptr) endingSignalsSay("");
}

void endingSignalsWipeNow() {
    const char* const bytes = wipe;
    if (bytes == nullptr) return;
    const ssize_t written = write(STDERR_FILENO, bytes, strlen(bytes));
    static_cast<void>(written);
}

void endingSignalsHold() {
    const sigset_t set = endingSet();
    sigprocmask(SIG_BLOCK, &set, nullptr);
}

void endingSignalsRelease() {
    const sigset_t set = endingSet();
    sigprocmask(SIG_UNBLOCK, &set, nullptr);
}

} /* namespace offline */
