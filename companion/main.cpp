/* SPDX-License-Identifier: GPL-2.0-or-later */
/* quillet-offline: what goes with quillet where Windows installations are at rest. */
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <functional>

#include "companion/command_line.h"
#include "companion/ending.h"
#include "companion/results/report.h"
#include "companion/results/results.h"
#include "platform/offline/base/session.h"
#include "platform/offline/base/streams.h"
#include "platform/offline/base/unicode.h"
#include "platform/offline/main/call_tool.h"
#include "platform/offline/main/run_end.h"

namespace companion {

void say(const std::string& line) {
    fprintf(stderr, "quillet-offline: %s\n", offline::printable(line).c_str());
}

void sayAll(const std::vector<std::string>& lines) {
    for (const std::string& line : lines) say(line);
}

} /* namespace companion */

namespace {

using companion::Results;

/* The body's status. What it throws is told by one line. */
int told(Results& results, const std::function<int()>& body) {
    std::string line;
    int status = companion::exitFailed;
    try {
        return body();
    } catch (const companion::Failure& failure) {
        line = failure.text;
        status = failure.status;
    } catch (const std::bad_alloc&) {
        /* In no string of its own: that would take memory. */
        fputs("quillet-offline: out of memory; close other programs and try again\n", stderr);
    } catch (const std::exception& failure) {
        line = failure.what();
    }
    if (!line.empty()) companion::say(line);
    if (!line.empty()) results.problems.push_back(line);
    results.asTool = false;
    return status;
}

int exitStatusOf(const Results& results, int status) {
    return results.asTool ? offline::exitStatusOf(status) : status;
}

/* A run that is done stays done where its report can't be written, and ends like one whose lines were lost.
 */
int writeReport(Results& results, int status) {
    const bool asTool = results.asTool;
    const int written = told(results, [&] {
        companion::writeReport(results, exitStatusOf(results, status), results.report->stream());
        results.report->finish();
        return status;
    });
    if (!asTool || results.asTool) return written;
    results.asTool = true;
    return status != 0 ? status : ERROR_WRITE_FAULT;
}

/* Lines that were lost are told last. */
int end(const Results& results, int status) {
    if (results.asTool) return offline::exitStatusOf(offline::endStreams(status));
    if (offline::standardStreamsWritten()) return status;
    companion::say("not every line could be written; check where standard output and error lead to");
    return companion::exitFailed;
}

int run(int argc, char** argv) {
    offline::Session session;
    Results results;
    const std::vector<std::string> arguments(argv + std::min(argc, 1), argv + argc);
    int status = told(results, [&] { return companion::runCommandLine(arguments, results); });
    if (results.report && results.finished && results.counts) status = writeReport(results, status);
    if (results.json) {
        status = told(results, [&] {
            printJson(results, exitStatusOf(results, status));
            return status;
        });
    }
    return end(results, status);
}

} /* namespace */

int main(int argc, char** argv) {
    if (!offline::standardStreamsOpen()) {
        companion::say(std::string("/dev/null can't be opened (") + strerror(errno) +
                       ") for the standard streams that are closed; open them");
        return companion::exitFailed;
    }
    signal(SIGXFSZ, SIG_IGN); /* a limit on files' sizes: the write fails, and that is told */
    signal(SIGCHLD, SIG_DFL); /* of children whose end a parent had ignored no status is kept */
    return run(argc, argv);
}
