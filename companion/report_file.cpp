#include "companion/report_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "companion/ending.h"

namespace companion {

ReportFile::ReportFile(std::string path) : name(std::move(path)) {
    const int made = open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (made >= 0) file = fdopen(made, "w");
    if (file != nullptr) return;
    if (errno == EEXIST) throw Failure{name + ": there is such a file already; name another for the report"};
    throw Failure{name + ": the report can't be made there (" + strerror(errno) +
                  "); name another place for it"};
}

ReportFile::~ReportFile() {
    if (file == nullptr) return;
    fclose(file);
    unlink(name.c_str());
}

void ReportFile::finish() {
    errno = ENOSPC; /* where the stream only remembers that something failed */
    const bool whole = ferror(file) == 0 && fflush(file) == 0 && fsync(fileno(file)) == 0;
    const int error = errno;
    if (!whole) {
        throw Failure{name + ": the report could not be written (" + strerror(error) +
                      "); what it was to tell of is done all the same"};
    }
    fclose(file);
    file = nullptr;
}

} /* namespace companion */
