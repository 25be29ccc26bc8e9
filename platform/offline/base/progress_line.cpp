/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/base/progress_line.h"

#include <langinfo.h>
#include <locale.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "platform/offline/base/ending_signals.h"
#include "platform/offline/base/session.h"

namespace offline {
namespace {

constexpr int64_t second = 1'000'000'000; /* in nanoseconds */
constexpr int64_t betweenDrawings = second / 10, betweenLines = 5 * second;
constexpr uint64_t kibibyte = 1024, mebibyte = kibibyte * kibibyte;
constexpr char wiping[] = "\r\033[K";

/* ---- The words ---- */

/* A short text; what does not fit is left out. */
struct Text {
    char bytes[200] = {};
    size_t used = 0;

    void add(const char* more) {
        const size_t length = std::min(strlen(more), sizeof bytes - used);
        memcpy(bytes + used, more, length);
        used += length;
    }
    void addNumber(uint64_t number) {
        char digits[32];
        const int count = snprintf(digits, sizeof digits, "%llu", static_cast<unsigned long long>(number));
        for (int i = 0; i < count; i++) {
            const char one[] = {digits[i], 0};
            if (i > 0 && (count - i) % 3 == 0) add(",");
            add(one);
        }
    }
    void addNumber(uint64_t number, const char* unit) {
        addNumber(number);
        add(unit);
    }
};

void addCount(const Progress& progress, Text& text) {
    const bool bytes = progress.phase.unit == ProgressPhase::Unit::bytes;
    const uint64_t total = progress.phase.total;
    const bool large = std::max(total, progress.done) >= 10 * mebibyte;
    const uint64_t one = !bytes ? 1 : large ? mebibyte : kibibyte;
    const uint64_t done = total == 0 ? progress.done : std::min(progress.done, total);
    text.addNumber(done / one);
    if (total != 0) {
        text.add(" of ");
        text.addNumber((total + one - 1) / one);
    }
    if (bytes) text.add(large ? " MiB" : " KiB");
}

/* In a second. */
void addRate(const Progress& progress, double seconds, const char* separator, Text& text) {
    constexpr double soonest = 0.5;
    if (seconds < soonest) return;
    const auto rate = static_cast<uint64_t>(static_cast<double>(progress.done) / seconds);
    const bool bytes = progress.phase.unit == ProgressPhase::Unit::bytes;
    const uint64_t thousand = bytes ? kibibyte : 1000;
    if (rate == 0) return;
    text.add(separator);
    if (bytes && rate >= mebibyte) {
        text.addNumber(rate / mebibyte, " MiB/s");
    } else if (bytes || rate >= 10 * thousand) {
        text.addNumber(rate / thousand, bytes ? " KiB/s" : " k/s");
    } else {
        text.addNumber(rate, "/s");
    }
}

/* When enough is done for it to mean something. */
void addTimeLeft(const Progress& progress, double seconds, const char* separator, Text& text) {
    constexpr double soonest = 3;
    constexpr uint64_t leastPart = 20, minute = 60, hour = 60 * minute;
    const uint64_t total = progress.phase.total;
    if (seconds < soonest || progress.done >= total || progress.done < total / leastPart) return;
    const double left = static_cast<double>(total - progress.done) * seconds /
                        static_cast<double>(std::max<uint64_t>(progress.done, 1));
    constexpr double most = 1e9;
    const uint64_t rounded = static_cast<uint64_t>(std::min(left, most)) + 1;
    text.add(separator);
    if (rounded < 2 * minute) return text.addNumber(rounded, " s left");
    if (rounded >= hour) text.addNumber(rounded / hour, " h ");
    text.addNumber(rounded % hour / minute, " min left");
}

/* "Files of C:  412,000 of 1,050,336 · 310 k/s · 2 s left" */
void describe(const Progress& progress, int64_t now, bool utf8, bool last, Text& text) {
    const ProgressPhase& phase = progress.phase;
    const char letter[] = {' ', phase.letter, ':', 0};
    const char* const separator = utf8 ? " \xC2\xB7 " : ", ";
    const double seconds = static_cast<double>(now - progress.began) / static_cast<double>(second);
    text.add(phase.title);
    if (phase.letter != 0) text.add(letter);
    if (phase.number != 0) text.add(" ");
    if (phase.number != 0) text.addNumber(phase.number);
    if (progress.done == 0 && phase.total == 0) return;
    text.add("  ");
    addCount(progress, text);
    addRate(progress, seconds, separator, text);
    if (!last) addTimeLeft(progress, seconds, separator, text);
}

/* ---- Where it is shown ---- */

/* Columns of the terminal that can be written to without the cursor's going on to the next line. */
size_t columns() {
    constexpr size_t usual = 80;
    winsize size = {};
    const bool known = ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col != 0;
    return (known ? size.ws_col : usual) - 1;
}

/* The bytes of as many characters as fit. */
size_t fitting(const Text& text, size_t width) {
    size_t at = 0;
    for (size_t column = 0; at < text.used; at++) {
        const bool begins = (text.bytes[at] & 0xC0) != 0x80;
        if (begins && column++ == width) break;
    }
    return at;
}

bool localeIsUtf8() {
    const locale_t own = newlocale(LC_CTYPE_MASK, "", nullptr);
    if (own == nullptr) return false;
    const bool is = strcmp(nl_langinfo_l(CODESET, own), "UTF-8") == 0;
    freelocale(own);
    return is;
}

bool canBeDrawnOn() {
    const char* const terminal = getenv("TERM");
    return isatty(STDERR_FILENO) != 0 && terminal != nullptr && *terminal != 0 &&
           strcmp(terminal, "dumb") != 0;
}

bool samePlace() {
    struct stat output = {}, errors = {};
    return fstat(STDOUT_FILENO, &output) == 0 && fstat(STDERR_FILENO, &errors) == 0 &&
           output.st_dev == errors.st_dev && output.st_ino == errors.st_ino;
}

/* Nothing depends on it: a pipe whose reader has gone does not end the process. */
void writeError(const char* bytes, size_t size) {
    constexpr timespec atOnce = {};
    sigset_t noReader, before;
    sigemptyset(&noReader);
    sigaddset(&noReader, SIGPIPE);
    sigprocmask(SIG_BLOCK, &noReader, &before);
    if (write(STDERR_FILENO, bytes, size) < 0 && errno == EPIPE) sigtimedwait(&noReader, nullptr, &atOnce);
    sigprocmask(SIG_SETMASK, &before, nullptr);
}

} /* namespace */

bool progressWishOf(std::string_view word, ProgressWish& wish) {
    if (word != "never" && word != "auto" && word != "always") return false;
    wish = word == "never"  ? ProgressWish::never
           : word == "auto" ? ProgressWish::onTerminal
                            : ProgressWish::always;
    return true;
}

/* ---- The standard streams ---- */

bool ProgressLine::Stream::take(ProgressLine& of, FILE*& stream) {
    cookie_io_functions_t functions = {};
    functions.write = pass;
    above = fopencookie(this, "w", functions);
    if (above == nullptr) return false;
    line = &of;
    standard = &stream;
    below = stream;
    setvbuf(above, nullptr, _IONBF, 0);
    fflush(below);
    stream = above;
    return true;
}

void ProgressLine::Stream::giveBack() {
    if (above == nullptr) return;
    *standard = below;
    fclose(above);
    above = nullptr;
}

/* Whether it could be written is remembered by the stream below. */
ssize_t ProgressLine::pass(void* stream, const char* bytes, size_t size) {
    Stream& self = *static_cast<Stream*>(stream);
    if (size == 0) return 0;
    self.line->wipe();
    fwrite(bytes, 1, size, self.below);
    fflush(self.below);
    self.within = bytes[size - 1] != '\n';
    return static_cast<ssize_t>(size);
}

/* ---- Showing ---- */

ProgressLine::ProgressLine(ProgressWish wish, bool results) {
    if (wish == ProgressWish::never || (results && samePlace())) return;
    if (canBeDrawnOn()) {
        if (output.take(*this, stdout) && errors.take(*this, stderr)) form = Form::drawn;
    } else if (wish == ProgressWish::always) {
        form = Form::plain;
    }
    utf8 = localeIsUtf8();
    if (form == Form::drawn) endingSignalsWipe(nullptr); /* has them taken, before anybody takes them again */
    if (form != Form::nothing) session().progress.display = this;
}

ProgressLine::~ProgressLine() {
    if (form != Form::nothing) {
        progressEnd();
        session().progress.display = nullptr;
    }
    errors.giveBack();
    output.giveBack();
}

void ProgressLine::begin() {
    shown = progressTime();
    if (form == Form::drawn) draw(shown);
}

void ProgressLine::look(bool atOnce) {
    const int64_t now = progressTime();
    const bool soon = now - shown < (form == Form::drawn ? betweenDrawings : betweenLines);
    if (soon && !(atOnce && form == Form::drawn)) return;
    if (form == Form::drawn) {
        draw(now);
    } else {
        say(now, false);
    }
}

void ProgressLine::end() {
    if (form == Form::drawn) {
        wipe();
    } else if (session().progress.done != 0) {
        say(progressTime(), true);
    }
}

/* In one write, which leaves nothing of a longer one before it. */
void ProgressLine::draw(int64_t now) {
    if (output.within || errors.within) return;
    Text text;
    text.add("\r");
    describe(session().progress, now, utf8, false, text);
    text.used = fitting(text, columns() + 1); /* the first takes no column */
    char line[sizeof text.bytes + sizeof wiping];
    const int size = snprintf(line, sizeof line, "%.*s\033[K", static_cast<int>(text.used), text.bytes);
    there = true;
    endingSignalsWipe(wiping);
    writeError(line, static_cast<size_t>(size));
    shown = now;
}

void ProgressLine::wipe() {
    if (!there) return;
    writeError(wiping, strlen(wiping));
    there = false;
    endingSignalsWipe(nullptr);
}

void ProgressLine::say(int64_t now, bool last) {
    Text text;
    text.add("progress: ");
    describe(session().progress, now, utf8, last, text);
    text.used = std::min(text.used, sizeof text.bytes - 1);
    text.bytes[text.used++] = '\n';
    writeError(text.bytes, text.used);
    shown = now;
}

} /* namespace offline */
