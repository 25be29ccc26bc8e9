/* The start of the offline program: UTF-8 arguments to wmain, the installation's end, and the exit status. */
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "platform/nt.h"
#include "platform/offline/base/text.h"
#include "platform/offline/system/system.h"

namespace {

/* Says why the installation could not be opened, what of it could not be read, and why it could not be closed
 * well; the latter two make a failure of the run. */
int endSystem(int status) {
    const std::string restart = offline::restartAsked();
    offline::Problem closing;
    const NTSTATUS closed = offline::systemClose(closing);
    const offline::Problem& opening = offline::systemProblem();
    if (opening.status < 0) fprintf(stderr, "quillet: %s\n", opening.text.c_str());
    const offline::Problem& unread = offline::systemUnread();
    if (unread.status < 0) fprintf(stderr, "quillet: %s\n", unread.text.c_str());
    if (closed < 0) fprintf(stderr, "quillet: %s\n", closing.text.c_str());
    const NTSTATUS failure = closed < 0 ? closed : unread.status;
    if (failure >= 0 && !restart.empty()) fprintf(stderr, "quillet: %s\n", restart.c_str());
    return status != 0 || failure >= 0 ? status : static_cast<int>(RtlNtStatusToDosError(failure));
}

/* A process has 8 bits for its status. What does not fit is told in full, and is never 0; that -1 is 255
 * everyone knows. */
int exitStatus(int status) {
    if (status >= 0 && status <= 255) return status;
    if (status == -1) return 255;
    fprintf(stderr, "quillet: the run's full exit status is %d (0x%08X)\n", status,
            static_cast<unsigned>(status));
    const int low = status & 0xFF;
    return low == 0 ? 255 : low;
}

} /* namespace */

int main(int argc, char** argv) try {
    const size_t count = static_cast<size_t>(argc);
    std::vector<std::u16string> texts(count);
    std::transform(argv, argv + count, texts.begin(),
                   [](const char* text) { return offline::toUtf16(text); });
    std::vector<WCHAR*> arguments;
    arguments.reserve(count + 1);
    for (std::u16string& text : texts) arguments.push_back(text.data());
    arguments.push_back(nullptr);
    signal(SIGPIPE, SIG_IGN); /* a reader that has gone must not end a run half-way */
    signal(SIGXFSZ, SIG_IGN); /* nor a limit on files' sizes: the write fails, and that is told */
    offline::systemStart();
    const int status = wmain(argc, arguments.data(), nullptr);
    return exitStatus(endSystem(status));
} catch (const std::exception& failure) {
    fprintf(stderr, "quillet: %s\n", failure.what());
    return 255;
}
