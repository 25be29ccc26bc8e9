/* SPDX-License-Identifier: GPL-2.0-or-later */
/* What the line of progress says, and when it keeps quiet. */
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "platform/offline/base/progress_line.h"
#include "platform/offline/base/session.h"

namespace {

using namespace offline;

/* Standard error is a terminal of 80 columns while it lives. */
struct Terminal {
    int master = -1;
    int before = dup(STDERR_FILENO);

    Terminal() {
        int slave = -1;
        const winsize size = {24, 80, 0, 0};
        EXPECT_EQ(openpty(&master, &slave, nullptr, nullptr, &size), 0);
        dup2(slave, STDERR_FILENO);
        close(slave);
    }
    ~Terminal() {
        dup2(before, STDERR_FILENO);
        close(before);
        close(master);
    }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    /* What came until these bytes did. */
    std::string text(const std::string& ending) const {
        std::string all;
        pollfd there = {master, POLLIN, 0};
        constexpr int patience = 10'000; /* milliseconds; for a test that fails */
        while (!all.ends_with(ending) && poll(&there, 1, patience) == 1) {
            char bytes[4096];
            const ssize_t count = read(master, bytes, sizeof bytes);
            if (count <= 0) break;
            all.append(bytes, static_cast<size_t>(count));
        }
        return all;
    }
};

struct Row {
    const char* says;
    ProgressPhase phase;
    uint64_t done;
    int64_t seconds; /* so far; a second more changes nothing of what is told */
    const char* locale = "C.UTF-8";
};

TEST(ProgressLine, SaysWhatMeansSomething) {
    using enum ProgressPhase::Unit;
    constexpr uint64_t mebibyte = 1 << 20;
    const Row rows[] = {
        {"Files of C:  412,000 of 1,050,336", {"Files of", 1050336, entries, 'C'}, 412000, -1000},
        {"Files of C:  50,050,000 of 60,000,000 \xC2\xB7 5,005/s \xC2\xB7 33 min left",
         {"Files of", 60000000, entries, 'C'},
         50050000,
         9999},
        {"Files  900,000,000 of 910,000,000, 90 k/s, 112 s left", {"Files", 910000000}, 900000000, 9990, "C"},
        {"Files  900 of 900,000,000", {"Files", 900000000}, 900, 9990, "C"},
        {"Clones  3 of 3", {"Clones", 3}, 5, 9990, "C"},
        {"User's hive 7  1,000", {"User's hive", 0, entries, 0, 7}, 1000, -1000},
        {"Committing  2,048 of 4,096 MiB, 2 MiB/s, 16 min left",
         {"Committing", 4096 * mebibyte, bytes},
         2048 * mebibyte,
         990,
         "C"},
        {"Opening", {"Opening"}, 0, 0},
    };
    setenv("TERM", "xterm", 1);
    for (const Row& row : rows) {
        setenv("LC_ALL", row.locale, 1);
        const Terminal terminal;
        const ProgressLine line(ProgressWish::onTerminal, false);
        progressBegin(row.phase);
        terminal.text("\033[K");
        session().progress.done = row.done;
        session().progress.began -= row.seconds * 1'000'000'000;
        progressShow();
        EXPECT_EQ(terminal.text("\033[K"), "\r" + std::string(row.says) + "\033[K");
    }
}

/* A phase within another one leaves that as it was, and its time is not that one's. */
TEST(ProgressLine, PartsComeBetween) {
    setenv("TERM", "xterm", 1);
    const Terminal terminal;
    const ProgressLine line(ProgressWish::onTerminal, false);
    progressBegin({"Whole", 10});
    progressAdd(4);
    const int64_t began = session().progress.began;
    {
        const ProgressPart part({"Part", 1000});
        EXPECT_TRUE(progressIs(session().progress.phase.title));
        progressAdd(1000);
    }
    EXPECT_EQ(session().progress.phase.total, 10);
    EXPECT_EQ(session().progress.done, 4);
    EXPECT_GT(session().progress.began, began);
    fputs("a line\n", stderr);
    EXPECT_TRUE(terminal.text("a line\r\n").ends_with("\033[K\r\033[Ka line\r\n"));
}

} /* namespace */
