/* The start of the offline program: UTF-8 arguments to wmain, the installation's end, and the exit status. */
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "platform/nt.h"
#include "platform/offline/base/guarded.h"
#include "platform/offline/base/session.h"
#include "platform/offline/base/streams.h"
#include "platform/offline/base/unicode.h"
#include "platform/offline/system/system.h"

namespace {

void say(const std::string& line) {
    fprintf(stderr, "quillet: %s\n", offline::printable(line).c_str());
}

/* Says why the installation could not be opened, what of it could not be read, and why it could not be closed
 * well; the latter two make a failure of the run. */
int endSystem(int status) {
    const std::string restart = offline::restartAsked();
    offline::Problem closing;
    const NTSTATUS closed = offline::systemClose(closing);
    const offline::Problem& opening = offline::systemProblem();
    if (opening.status < 0) say(opening.text);
    const offline::Problem& unread = offline::systemUnread();
    if (unread.status < 0) say(unread.text);
    if (closed < 0) say(closing.text);
    const NTSTATUS failure = closed < 0 ? closed : unread.status;
    if (failure >= 0 && !restart.empty()) say(restart);
    return status != 0 || failure >= 0 ? status : static_cast<int>(RtlNtStatusToDosError(failure));
}

/* Lines that were lost are reported when everything else is done: no run stops half-way for them. */
int endStreams(int status) {
    if (offline::standardStreamsWritten()) return status;
    say("not every line could be written; check where standard output and standard error lead to");
    return status != 0 ? status : ERROR_WRITE_FAULT;
}

/* A process has 8 bits for its status. What does not fit is printed in full, and is never 0; that -1 is 255
 * everyone knows. */
int exitStatus(int status) {
    if (status >= 0 && status <= 255) return status;
    if (status == -1) return 255;
    fprintf(stderr, "quillet: the run's full exit status is %d (0x%08X)\n", status,
            static_cast<unsigned>(status));
    const int low = status & 0xFF;
    return low == 0 ? 255 : low;
}

int run(int argc, char** argv) {
    const size_t count = static_cast<size_t>(argc);
    std::vector<std::u16string> texts(count);
    std::transform(argv, argv + count, texts.begin(),
                   [](const char* text) { return offline::toUtf16(text); });
    std::vector<WCHAR*> arguments;
    arguments.reserve(count + 1);
    for (std::u16string& text : texts) arguments.push_back(text.data());
    arguments.push_back(nullptr);
    signal(SIGPIPE, SIG_IGN); /* a reader that has gone must not end a run half-way */
    signal(SIGXFSZ, SIG_IGN); /* nor a limit on files' sizes: the write fails, and that is reported */
    offline::Session session;
    offline::systemStart();
    const int status = wmain(argc, arguments.data(), nullptr);
    return exitStatus(endStreams(endSystem(status)));
}

} /* namespace */

int main(int argc, char** argv) {
    int status = ERROR_NOT_ENOUGH_MEMORY;
    const NTSTATUS ended = offline::guarded([&] {
        if (offline::standardStreamsOpen()) {
            status = run(argc, argv);
        } else {
            say(std::string("/dev/null can't be opened (") + strerror(errno) +
                ") for the standard streams that are closed; open them");
            status = ERROR_OPEN_FAILED;
        }
        return STATUS_SUCCESS;
    });
    if (ended < 0) fputs("quillet: out of memory; close other programs and try again\n", stderr);
    return status;
}
