/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "companion/clone_process.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "companion/clone_lines.h"
#include "companion/ending.h"
#include "platform/offline/base/unicode.h"

namespace companion {
namespace {

constexpr int cantStart = 127;      /* what a shell would end with */
constexpr size_t mostNamed = 10000; /* objects of one clone that were passed over; the others are counted */

std::vector<std::string> linesOf(FILE* text) {
    std::vector<std::string> lines;
    std::string line;
    rewind(text);
    for (int byte = getc(text); byte != EOF; byte = getc(text)) {
        if (byte != '\n') {
            line.push_back(static_cast<char>(byte));
        } else {
            lines.push_back(std::move(line));
            line.clear();
        }
    }
    if (!line.empty()) lines.push_back(std::move(line));
    return lines;
}

void replaceAll(std::string& text, const std::string& from, const std::string& to) {
    for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
        text.replace(at, from.size(), to);
    }
}

/* The text behind the prefix; "" where that is not there. */
std::string behind(const std::string& line, const std::string& prefix) {
    return line.starts_with(prefix) ? line.substr(prefix.size()) : "";
}

} /* namespace */

CloneProcess::~CloneProcess() {
    if (process > 0) {
        kill(process, SIGKILL);
        waitpid(process, nullptr, 0);
    }
    if (output != nullptr) fclose(output);
    if (errors != nullptr) fclose(errors);
}

/* The child: signals as they were, in a group of its own, so that the terminal's keys reach only us; it ends
 * with us, and reads nothing. */
void CloneProcess::become(pid_t parent, const std::vector<std::string>& options,
                          const std::vector<std::string>& quilletOptions) const {
    std::vector<std::string> words = {"quillet-offline", "run",      "--format", "qcow2",      "--no-undo",
                                      "--scratch",       "--commit", "success",  "--progress", "never"};
    words.insert(words.end(), options.begin(), options.end());
    words.insert(words.end(), {image.partPath(), "--"});
    words.insert(words.end(), quilletOptions.begin(), quilletOptions.end());
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    const bool alone = getppid() != parent;
    const bool set = setpgid(0, 0) == 0 && freopen("/dev/null", "r", stdin) != nullptr &&
                     dup2(fileno(output), STDOUT_FILENO) >= 0 && dup2(fileno(errors), STDERR_FILENO) >= 0;
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    if (set && !alone) execv("/proc/self/exe", arguments.data());
    _exit(cantStart);
}

bool CloneProcess::start(const offline::GoldenImage& golden, const std::vector<std::string>& options,
                         const std::vector<std::string>& quilletOptions) {
    begin = std::chrono::steady_clock::now();
    offline::Problem problem;
    if (image.create(golden, name, problem) < 0) {
        failure = offline::printable(problem.text);
        return false;
    }
    output = tmpfile();
    errors = tmpfile();
    fflush(nullptr); /* the child must not print it once more */
    const pid_t parent = getpid();
    process = output == nullptr || errors == nullptr ? -1 : fork();
    if (process == 0) become(parent, options, quilletOptions);
    if (process > 0) return true;
    failure = std::string("its run can't be started (") + strerror(errno) + ")";
    return false;
}

bool CloneProcess::ended() {
    const pid_t done = waitpid(process, &status, WNOHANG);
    if (done == 0 || (done < 0 && errno == EINTR)) return false;
    if (done < 0) status = cantStart << 8;
    process = -1;
    return true;
}

void CloneProcess::notePassedOver(const std::string& line) {
    std::optional<PassedOver> one = readToolLine(line).passedOver;
    if (!one || isToldAgain(result.passedOver, *one)) return;
    if (result.passedOver.size() < mostNamed) {
        result.passedOver.push_back(std::move(*one));
    } else {
        result.passedOverMore++;
    }
}

void CloneProcess::listen() {
    for (const std::string& line : linesOf(output)) hearCloneLine(line, result);
    lines = linesOf(errors);
    for (std::string& line : lines) {
        replaceAll(line, offline::printable(image.partPath()), offline::printable(name));
        if (line.starts_with("ERROR ") || line.starts_with("WARN ")) ++warnings;
        if (!line.starts_with("quillet")) notePassedOver(line); /* those are the program's own */
    }
}

/* What the run ended with, else what the program said, which may be about the run's lines alone, else the
 * last ERROR line. */
std::string CloneProcess::cause() const {
    if (WIFSIGNALED(status)) return std::string("its run was ended by ") + strsignal(WTERMSIG(status));
    std::string remark, lastError;
    for (const std::string& line : lines) {
        std::string said = behind(line, "quillet: ");
        if (const std::string rest = behind(said, offline::printable(name) + ": "); !rest.empty())
            said = rest;
        const bool ofOutcome =
            said.starts_with("the run did not succeed") || said.starts_with("the run's full exit status");
        if (!said.empty() && !ofOutcome) return said;
        if (remark.empty()) remark = behind(line, "quillet-offline: ");
        if (line.starts_with("ERROR ")) lastError = line;
    }
    if (!remark.empty()) return remark;
    const std::string ending = "its run ended with status " + std::to_string(WEXITSTATUS(status));
    return lastError.empty() ? ending : ending + ": " + lastError;
}

void CloneProcess::finish(const offline::GoldenImage& golden) {
    listen();
    offline::Problem problem;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        failure = cause();
    } else if (result.newSid.empty()) {
        failure = "its run named no new SID";
    } else if (image.publish(golden, result.bytes, problem) < 0) {
        failure = offline::printable(problem.text);
    }
    result.made = failure.empty();
    if (!result.made) {
        result.bytes = 0;
        result.newSid.clear(); /* nobody has it */
        keepIdentity(result.identity);
    }
    const auto took = std::chrono::steady_clock::now() - begin;
    result.milliseconds =
        static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(took).count());
}

} /* namespace companion */
