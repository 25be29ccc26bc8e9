/* SPDX-License-Identifier: GPL-2.0-or-later */
/* clone: linked clones of a golden image, each with an identity of its own. */
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
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

constexpr int signalStatus = 128; /* and the signal's number: as shells tell the status of what it ended */

/* From here to its end the signals that ask to end are taken one by one, together with the children's ends.
 */
struct AwaitedSignals {
    AwaitedSignals() {
        sigemptyset(&awaited);
        sigaddset(&awaited, SIGCHLD);
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
        _exit(signalStatus + signal);
    }

private:
    sigset_t awaited = {};
};

/* ---- What is told ---- */

struct Cloning {
    const CloneOptions& options;
    const offline::DiskName& goldenName;
    const offline::GoldenImage& golden;
    Results& results;
    size_t next = 0; /* of the clones */
    std::list<CloneProcess> running = {};
    size_t done = 0, made = 0;

    void work(size_t jobs);

private:
    void startNext();
    void startSome(size_t jobs);
    void takeEnded();
    bool areWaiting() const { return next < options.clones.size(); }
    std::vector<std::string> runOptions(const CloneResult& clone) const;
    void tell(const CloneProcess& clone);
    void note(const CloneProcess& clone);
    void tellMade(const CloneProcess& clone) const;
    void endEarly(int signal);
};

/* What became of it, for JSON. */
void Cloning::note(const CloneProcess& clone) {
    CloneResult& result = results.cloned->clones[clone.index];
    const std::string computerName = result.computerName;
    result = clone.result;
    result.file = clone.name;
    result.computerName = computerName;
    if (clone.failure.empty()) return;
    const std::string name = offline::printable(clone.name),
                      named = clone.failure.starts_with(name) ? "" : name + ": ";
    result.problems.push_back(named + clone.failure + "; this clone was not made");
}

bool hadName(const CloneResult& clone) {
    return !clone.computerName.empty() &&
           std::none_of(clone.identity.begin(), clone.identity.end(), [](const IdentityChange& change) {
               return change.item == IdentityItem::computerName && change.action == IdentityAction::replaced;
           });
}

void Cloning::tellMade(const CloneProcess& clone) const {
    const CloneResult& result = results.cloned->clones[clone.index];
    if (hadName(result))
        say(clone.name + ": its name, " + result.computerName + ", is the golden image's too");
    if (options.json) return;
    printf("%s  %s  %.1f s  %s", offline::printable(clone.name).c_str(), result.newSid.c_str(),
           static_cast<double>(result.milliseconds) / 1000, sizeText(result.bytes).c_str());
    if (!result.computerName.empty()) printf("  %s", result.computerName.c_str());
    printf("\n");
    fflush(stdout);
}

void Cloning::tell(const CloneProcess& clone) {
    ++done;
    note(clone);
    const CloneResult& result = results.cloned->clones[clone.index];
    const std::string name = offline::printable(clone.name);
    if (options.verbose) {
        for (const std::string& line : clone.lines) fprintf(stderr, "%s: %s\n", name.c_str(), line.c_str());
        for (const IdentityChange& change : result.identity)
            fprintf(stderr, "%s: %s\n", name.c_str(), offline::printable(changeLine(change, false)).c_str());
    }
    if (!result.made) {
        for (const std::string& problem : result.problems) /* printable already */
            fprintf(stderr, "quillet-offline: %s\n", problem.c_str());
        results.problems.insert(results.problems.end(), result.problems.begin(), result.problems.end());
    } else {
        ++made;
        tellMade(clone);
        if (clone.warnings != 0 && !options.verbose) {
            say(clone.name + ": " + std::to_string(clone.warnings) +
                " ERROR and WARN lines of its run; --verbose shows them");
        }
    }
    offline::progressAdd();
}

std::vector<std::string> Cloning::runOptions(const CloneResult& clone) const {
    std::vector<std::string> words;
    if (!clone.computerName.empty()) words = {"--computer-name", clone.computerName};
    if (options.identity.renewed) words.insert(words.end(), {"--new", *options.identity.renewed});
    return words;
}

void Cloning::startNext() {
    const CloneResult& wanted = results.cloned->clones[next];
    CloneProcess& clone = running.emplace_back(next++, wanted.file);
    if (clone.start(golden, runOptions(wanted), options.quilletOptions)) return;
    tell(clone);
    running.pop_back();
}

void Cloning::startSome(size_t jobs) {
    while (areWaiting() && running.size() < jobs) startNext();
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

/* Those that are whole stay, and are told in any case: nothing else knows their SIDs together. */
void Cloning::endEarly(int signal) {
    running.clear();
    offline::progressEnd();
    const std::string line = "ended by a signal; " + std::to_string(made) + " of " +
                             std::to_string(options.clones.size()) +
                             " clones were made, nothing is left of the others";
    say(line);
    results.problems.push_back(line);
    if (options.json) printJson(results, signalStatus + signal);
    fflush(stdout);
    AwaitedSignals::endBy(signal);
}

void Cloning::work(size_t jobs) {
    const AwaitedSignals signals;
    startSome(jobs);
    refuseSystem(goldenName); /* beside the first runs, which are thrown away with this */
    offline::progressBegin({"Clones", options.clones.size()});
    offline::progressAdd(done);
    while (areWaiting() || !running.empty()) {
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

/* The clones that are wished, none of them made. Throws Failure for names that can't be had. */
std::vector<CloneResult> wishedClones(const CloneOptions& options) {
    std::vector<CloneResult> clones;
    std::vector<std::string> names(options.clones.size());
    const std::optional<std::string>& pattern = options.identity.computerName;
    if (options.firstNumber && (!pattern || pattern->find('%') == std::string::npos)) {
        throw Failure{"--first-number is for a --computer-name with a number, such as web-%02d; give one"};
    }
    if (pattern) names = computerNames(*pattern, options.firstNumber.value_or(1), options.clones.size());
    identityWish({{}, options.identity.renewed});
    for (size_t i = 0; i < options.clones.size(); i++) clones.push_back({options.clones[i], names[i]});
    return clones;
}

} /* namespace */

int clone(const CloneOptions& options, Results& results) {
    results.json = options.json;
    results.images = {options.golden};
    refuseOptions(options.quilletOptions);
    std::vector<CloneResult> clones = wishedClones(options);
    refusePlaces(options);
    const std::vector<offline::DiskName> named = namedDisks({options.golden}, options.format);
    offline::endingSignalsSay("quillet-offline: ended by a signal; nothing was made\n");
    signal(SIGPIPE, SIG_IGN); /* a reader that has gone must not leave parts behind */
    offline::GoldenImage golden;
    offline::Problem problem;
    if (offline::goldenImageOpen(named.front(), golden, problem) < 0) throw Failure{problem.text};
    const size_t usual = std::max(std::thread::hardware_concurrency(), 1U);
    results.cloned = Cloned{golden.path, offline::formatName(golden.format), std::move(clones)};
    Cloning cloning{options, named.front(), golden, results};
    cloning.work(std::min(options.jobs == 0 ? usual : options.jobs, options.clones.size()));
    results.finished = true;
    return cloning.made == options.clones.size() ? exitDone : exitFailed;
}

} /* namespace companion */
