/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "companion/practice/mkntfs.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "companion/ending.h"

namespace companion {
namespace {

/* On many systems it lies where only an administrator's PATH leads. */
std::string findMkntfs() {
    const char* path = getenv("PATH");
    std::string directories = path == nullptr ? "/usr/bin:/bin" : path;
    directories += ":/usr/local/sbin:/usr/sbin:/sbin";
    for (size_t at = 0; at < directories.size();) {
        const size_t end = std::min(directories.find(':', at), directories.size());
        std::string program = directories.substr(at, end - at) + "/mkntfs";
        if (program.front() == '/' && access(program.c_str(), X_OK) == 0) return program;
        at = end + 1;
    }
    throw Failure{"mkntfs: the program is not there; install the package ntfs-3g"};
}

struct SpawnActions {
    posix_spawn_file_actions_t actions;
    SpawnActions() { posix_spawn_file_actions_init(&actions); }
    ~SpawnActions() { posix_spawn_file_actions_destroy(&actions); }
    SpawnActions(const SpawnActions&) = delete;
    SpawnActions& operator=(const SpawnActions&) = delete;
};

struct Pipe {
    int ends[2] = {-1, -1}; /* to read from, to write to */

    Pipe() = default;
    ~Pipe() {
        close(0);
        close(1);
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    void close(size_t end) {
        if (ends[end] >= 0) ::close(ends[end]);
        ends[end] = -1;
    }
};

/* Starts the program with its two outputs on the pipe's writing end. */
pid_t start(const std::string& program, const std::vector<const char*>& arguments, const int (&pipe)[2]) {
    SpawnActions spawn;
    posix_spawn_file_actions_addopen(&spawn.actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&spawn.actions, pipe[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&spawn.actions, pipe[1], STDERR_FILENO);
    pid_t child = -1;
    const int error = posix_spawn(&child, program.c_str(), &spawn.actions, nullptr,
                                  const_cast<char* const*>(arguments.data()), environ);
    if (error == 0) return child;
    throw Failure{program + ": can't be started: " + strerror(error) + "; check the package ntfs-3g"};
}

/* All that comes out of the pipe, of which the first words are kept, on one line. */
std::string drain(int pipe) {
    constexpr size_t longest = 300;
    std::string all;
    char buffer[512];
    for (;;) {
        const ssize_t got = read(pipe, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        all.append(buffer, static_cast<size_t>(got));
        if (all.size() > longest) all.resize(longest);
    }
    for (char& letter : all) {
        if (letter == '\n') letter = ' ';
    }
    while (!all.empty() && (all.back() == ' ' || all.back() == '.')) all.pop_back();
    return all;
}

int statusOf(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    return status;
}

} /* namespace */

void makeNtfs(const std::string& file, uint64_t startSector, const std::string& image) {
    const std::string program = findMkntfs();
    const std::string sector = std::to_string(startSector);
    const std::string target = file.front() == '-' ? "./" + file : file;
    /* -F: a file will do; -Q: quickly; then the geometry that it can't ask a file for */
    const std::vector<const char*> arguments = {"mkntfs", "-F",           "-Q",           "-q",   "-s", "512",
                                                "-p",     sector.c_str(), "-H",           "255",  "-S", "63",
                                                "-L",     "Practice",     target.c_str(), nullptr};
    Pipe pipe;
    if (pipe2(pipe.ends, O_CLOEXEC) != 0)
        throw Failure{image + ": " + strerror(errno) + "; close other programs"};
    const pid_t child = start(program, arguments, pipe.ends);
    pipe.close(1);
    const std::string words = drain(pipe.ends[0]);
    const int status = statusOf(child);
    if (status == 0) return;
    throw Failure{image + ": mkntfs could not make a volume (" + words +
                  "); check the room on the disk and --size"};
}

} /* namespace companion */
