/* The file of a report: made before the work, so that a place that can't be had is refused then, and gone
 * again when nothing came of it. */
#ifndef QUILLET_COMPANION_REPORT_FILE_H
#define QUILLET_COMPANION_REPORT_FILE_H

#include <cstdio>
#include <string>

namespace companion {

class ReportFile {
public:
    /* Throws Failure when there is such a file, or when it can't be made. */
    explicit ReportFile(std::string path);
    ~ReportFile(); /* removes one that was not finished */
    ReportFile(const ReportFile&) = delete;
    ReportFile& operator=(const ReportFile&) = delete;

    FILE* stream() const { return file; }

    /* Closes it. Throws Failure, and the file is gone, when something of it could not be written. */
    void finish();

private:
    const std::string name;
    FILE* file = nullptr;
};

} /* namespace companion */

#endif
