/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/device/child_program.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "platform/offline/base/streams.h"

namespace offline {
namespace {

constexpr off_t mostWords = 64 << 10; /* bytes */
constexpr int socketNumber = 3;       /* where systemd's protocol begins */
constexpr int patience = 30'000;      /* milliseconds, for one that closes a disk */
constexpr int unknownEnd = 255;       /* the status where the system kept none */

std::string onPath(const std::string& name) {
    const char* const set = getenv("PATH");
    const std::string path = set == nullptr ? "/usr/local/bin:/usr/bin:/bin" : set;
    for (size_t from = 0; from <= path.size();) {
        const size_t end = std::min(path.find(':', from), path.size());
        std::string program = path.substr(from, end - from) + "/" + name;
        if (program.front() == '/' && access(program.c_str(), X_OK) == 0) return program;
        from = end + 1;
    }
    return "";
}

std::vector<char*> pointersTo(const std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (const std::string& text : texts) pointers.push_back(const_cast<char*>(text.c_str()));
    pointers.push_back(nullptr);
    return pointers;
}

/* Ours, without what systemd may have told us; a place for the child's number comes last. */
std::vector<std::string> environmentOf(bool withSocket) {
    std::vector<std::string> strings;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        if (strncmp(*entry, "LISTEN_", 7) != 0) strings.emplace_back(*entry);
    }
    if (withSocket) {
        strings.emplace_back("LISTEN_FDS=1");
        strings.emplace_back("LISTEN_PID=0000000000");
    }
    return strings;
}

/* As digits before the end of the text; leading zeros stay. */
void putNumber(char* text, unsigned number) {
    for (char* at = text + strlen(text); number != 0; number /= 10)
        *--at = static_cast<char>('0' + number % 10);
}

int errorsFile() {
    const int file = aboveStandard(memfd_create("errors", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (file >= 0 && (ftruncate(file, mostWords) != 0 || fcntl(file, F_ADD_SEALS, F_SEAL_GROW) != 0)) {
        close(file);
        return -1;
    }
    return file;
}

/* What the child does between fork and exec: nothing that takes memory or a lock. */
struct Beginning {
    const char* program;
    char** arguments;
    char** environment;
    char* number; /* where its own goes; null without a socket */
    int nothing, errors, socket;
    pid_t parent;

    [[noreturn]] void operator()() const {
        setsid();
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(127);
        if (dup2(nothing, 0) < 0 || dup2(nothing, 1) < 0 || dup2(errors, 2) < 0) _exit(127);
        if (socket == socketNumber) {
            fcntl(socket, F_SETFD, 0);
        } else if (socket >= 0 && dup2(socket, socketNumber) < 0) {
            _exit(127);
        }
        if (number != nullptr) putNumber(number, static_cast<unsigned>(getpid()));
        execve(program, arguments, environment);
        const char* const why = strerror(errno);
        static_cast<void>(!write(2, why, strlen(why)));
        _exit(127);
    }
};

} /* namespace */

ChildProgram::~ChildProgram() {
    if (process > 0 && !endsWithin(patience)) {
        kill(process, SIGKILL);
        static_cast<void>(endsWithin(patience));
    }
    if (errors >= 0) close(errors);
}

int ChildProgram::start(const std::string& name, const std::vector<std::string>& arguments, int socket) {
    called = name;
    const std::string program = onPath(name);
    if (program.empty()) return ENOENT;
    std::vector<std::string> words = {name};
    words.insert(words.end(), arguments.begin(), arguments.end());
    const std::vector<std::string> strings = environmentOf(socket >= 0);
    const std::vector<char*> wordPointers = pointersTo(words), stringPointers = pointersTo(strings);
    char* const number = socket >= 0 ? strchr(stringPointers[strings.size() - 1], '=') + 1 : nullptr;
    errors = errorsFile();
    const int nothing = errors < 0 ? -1 : aboveStandard(open("/dev/null", O_RDWR | O_CLOEXEC));
    if (nothing < 0) return errno;
    const Beginning beginning = {program.c_str(),
                                 const_cast<char**>(wordPointers.data()),
                                 const_cast<char**>(stringPointers.data()),
                                 number,
                                 nothing,
                                 errors,
                                 socket,
                                 getpid()};
    process = fork();
    if (process == 0) beginning();
    const int error = process < 0 ? errno : 0;
    close(nothing);
    return error;
}

bool ChildProgram::endsWithin(int milliseconds) {
    constexpr timespec shortly = {0, 1'000'000};
    for (int waited = 0; process > 0; ++waited) {
        int state = unknownEnd << 8;
        const pid_t done = waitpid(process, &state, WNOHANG);
        if (done == process || (done < 0 && errno != EINTR)) {
            ended = WIFSIGNALED(state) ? 128 + WTERMSIG(state) : WEXITSTATUS(state);
            process = -1;
        } else if (waited >= milliseconds) {
            return false;
        } else {
            nanosleep(&shortly, nullptr);
        }
    }
    return true;
}

std::string ChildProgram::words() const {
    std::string text(mostWords, '\0'), line;
    const ssize_t count = errors < 0 ? 0 : pread(errors, text.data(), text.size(), 0);
    text.resize(strnlen(text.data(), static_cast<size_t>(std::max<ssize_t>(count, 0))));
    const std::string ownName = called + ": ";
    for (size_t from = 0; from < text.size();) {
        if (text.compare(from, ownName.size(), ownName) == 0) from += ownName.size();
        const size_t end = std::min(text.find('\n', from), text.size());
        if (!line.empty() && end > from) line += ' ';
        line.append(text, from, end - from);
        from = end + 1;
    }
    return line;
}

bool programThere(const std::string& name) {
    return !onPath(name).empty();
}

int runProgram(const std::string& name, const std::vector<std::string>& arguments, std::string& words) {
    ChildProgram program;
    const int error = program.start(name, arguments);
    if (error != 0) {
        words = strerror(error);
        return -1;
    }
    while (!program.endsWithin(1000)) {
    }
    words = program.words();
    return program.status();
}

} /* namespace offline */
