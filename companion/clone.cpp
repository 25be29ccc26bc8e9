/* SPDX-License-Identifier: GPL-2.0-or-later */
/* clone: linked clones of a golden image, each with an identity of its own. */
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <deque>
#include <list>
#include <set>
#include <thread>

#include "companion/clone_process.h"
#include "companion/commands.h"
#include "companion/ending.h"
#include "companion/formatting.h"
#include "companion/opened.h"
#include "platform/offline/base/ending_signals.h"
#include "platform/offline/base/progress.h"
#include "platform/offline/base/unicode.h"
#include "platform/offline/system/system.h"

namespace companion {
namespace {

/* ---- What is refused before anything is made ---- */

/* A dry run makes no identity, a quiet one does not tell it, and a clone at rest can't be restarted. */
void refuseOptions(const std::vector<std::string>& quilletOptions) {
    for (const std::string& option : quilletOptions) {
        if (option.starts_with('-') && option.size() > 1 &&
            option.find_first_not_of("fv", 1) == std::string::npos)
            continue;
        throw Failure{"\"" + option + "\": after \"--\" clone takes -f and -v alone; leave it out"};
    }
}

void refusePlaces(const CloneOptions& options) {
    std::set<std::string> places;
    offline::Problem problem;
    for (const std::string& name : options.clones) {
        std::string place;
        if (offline::linkedImagePlace(name, place, problem) < 0) throw Failure{problem.text};
        if (!places.insert(place).second)
            throw Failure{name + ": it is named twice; give each clone a name of its own"};
    }
}

/* What a run would refuse of the golden image, each clone would inherit. */
void refuseSystem(const offline::DiskName& golden) {
    offline::Problem problem;
    Opened seen;
    if (offline::systemOpen({golden}, offline::DiskAccess::planned, problem) < 0) throw Failure{problem.text};
    static_cast<void>(offline::systemHandOver(seen.installation, problem)); /* nothing is kept */
}

/* ---- Signals ---- */

/* From here to its end the signals that ask to end are taken one by one, together with the children's ends.
 */
struct AwaitedSignals {
    AwaitedSignals() {
        sigemptyset(&awaited);
        sigaddset(&awaited, SIGCHLD);
        signal(SIGCHLD, SIG_DFL); /* a parent may have had it ignored, and then no child's status is kept */
        for (const int ending : {SIGHUP, SIGINT, SIGQUIT, SIGTERM}) {
            struct sigaction now = {};
            if (sigaction(ending, nullptr, &now) == 0 && now.sa_handler != SIG_IGN)
                sigaddset(&awaited, ending);
        }
        sigprocmask(SIG_BLOCK, &awaited, nullptr);
    }

    /* SIGCHLD, or the signal that asks to end; 0 when none came for a second. */
    int next() const {
        constexpr timespec second = {1, 0};
        for (;;) {
            const int signal = sigtimedwait(&awaited, nullptr, &second);
            if (signal > 0) return signal;
            if (errno == EAGAIN) return 0;
        }
    }

    [[noreturn]] static void endBy(int signal) {
        ::signal(signal, SIG_DFL);
        sigset_t one;
        sigemptyset(&one);
        sigaddset(&one, signal);
        raise(signal);
        sigprocmask(SIG_UNBLOCK, &one, nullptr);
        _exit(128 + signal);
    }

private:
    sigset_t awaited = {};
};

/* ---- What is told ---- */

struct Cloning {
    const CloneOptions& options;
    const offline::DiskName& goldenName;
    const offline::GoldenImage& golden;
    std::deque<std::string> waiting = {options.clones.begin(), options.clones.end()};
    std::list<CloneProcess> running = {};
    size_t done = 0, made = 0;

    void work(size_t jobs);

private:
    void startNext();
    void startSome(size_t jobs);
    void takeEnded();
    void tell(const CloneProcess& clone);
    void endEarly(int signal);
};

void Cloning::tell(const CloneProcess& clone) {
    ++done;
    const std::string name = offline::printable(clone.name);
    if (options.verbose) {
        for (const std::string& line : clone.lines) fprintf(stderr, "%s: %s\n", name.c_str(), line.c_str());
    }
    if (!clone.failure.empty()) {
        const std::string named = clone.failure.starts_with(name) ? "" : name + ": ";
        fprintf(stderr, "quillet-offline: %s%s; this clone was not made\n", named.c_str(),
                clone.failure.c_str());
    } else {
        ++made;
        printf("%s  %s  %.1f s  %s\n", name.c_str(), clone.newSid.c_str(), clone.seconds,
               sizeText(clone.bytes).c_str());
        fflush(stdout);
        if (clone.warnings != 0 && !options.verbose) {
            say(clone.name + ": " + std::to_string(clone.warnings) +
                " ERROR and WARN lines of its run; --verbose shows them");
        }
    }
    offline::progressAdd();
}

void Cloning::startNext() {
    running.emplace_back(waiting.front());
    waiting.pop_front();
    if (running.back().start(golden, options.quilletOptions)) return;
    tell(running.back());
    running.pop_back();
}

void Cloning::startSome(size_t jobs) {
    while (!waiting.empty() && running.size() < jobs) startNext();
}

void Cloning::takeEnded() {
    for (auto clone = running.begin(); clone != running.end();) {
        if (!clone->ended()) {
            ++clone;
            continue;
        }
        clone->finish(golden);
        tell(*clone);
        clone = running.erase(clone);
    }
}

/* Those that are whole stay. */
void Cloning::endEarly(int signal) {
    running.clear();
    offline::progressEnd();
    say("ended by a signal; " + std::to_string(made) + " of " + std::to_string(options.clones.size()) +
        " clones were made, nothing is left of the others");
    AwaitedSignals::endBy(signal);
}

void Cloning::work(size_t jobs) {
    const AwaitedSignals signals;
    startSome(jobs);
    refuseSystem(goldenName); /* beside the first runs, which are thrown away with this */
    offline::progressBegin({"Clones", options.clones.size()});
    offline::progressAdd(done);
    while (!waiting.empty() || !running.empty()) {
        startSome(jobs);
        if (running.empty()) break;
        const int signal = signals.next();
        if (signal == 0) offline::progressShow();
        if (signal == 0) continue;
        if (signal != SIGCHLD) endEarly(signal);
        takeEnded();
        offline::progressShow();
    }
    offline::progressEnd();
}

} /* namespace */

int clone(const CloneOptions& options) {
    refuseOptions(options.quilletOptions);
    refusePlaces(options);
    const std::vector<offline::DiskName> named = namedDisks({options.golden}, options.format);
    offline::endingSignalsSay("quillet-offline: ended by a signal; nothing was made\n");
    signal(SIGPIPE, SIG_IGN); /* a reader that has gone must not leave parts behind */
    offline::GoldenImage golden;
    offline::Problem problem;
    if (offline::goldenImageOpen(named.front(), golden, problem) < 0) throw Failure{problem.text};
    const size_t usual = std::max(std::thread::hardware_concurrency(), 1U);
    Cloning cloning{options, named.front(), golden};
    cloning.work(std::min(options.jobs == 0 ? usual : options.jobs, options.clones.size()));
    return cloning.made == options.clones.size() ? exitDone : exitFailed;
}

} /* namespace companion */
