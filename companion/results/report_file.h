/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The file of a report: made before the work, so that a place that can't be had is refused then. It gets its
 * name when it is whole, so that nothing is left where nothing came of it. */
#ifndef QUILLET_COMPANION_REPORT_FILE_H
#define QUILLET_COMPANION_REPORT_FILE_H

#include <cstdio>
#include <string>

namespace companion {

class ReportFile {
public:
    /* Throws Failure when there is such a file, when the name is like one that lies beside disks, or when it
     * can't be made. */
    explicit ReportFile(std::string path);
    ~ReportFile(); /* one that was not finished is gone */
    ReportFile(const ReportFile&) = delete;
    ReportFile& operator=(const ReportFile&) = delete;

    FILE* stream() const { return file; }

    /* Closes it. Throws Failure, and the file is gone, when something of it could not be written. */
    void finish();

private:
    const std::string name;
    bool named = false; /* from the beginning, where the file system knows no files without a name */
    FILE* file = nullptr;
};

} /* namespace companion */

#endif
