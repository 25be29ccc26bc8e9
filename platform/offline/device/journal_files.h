/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The files of a transaction that lie beside the disks: journal, pointers, undo files. Every call of the
 * file system for them passes through this table, and one file answers it (system_journal_files.cpp).
 * All calls give 0 or an errno. */
#ifndef QUILLET_OFFLINE_DEVICE_JOURNAL_FILES_H
#define QUILLET_OFFLINE_DEVICE_JOURNAL_FILES_H

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "platform/offline/base/bytes.h"
#include "platform/offline/device/block_device.h"

namespace offline {

struct JournalFiles {
    JournalFiles() = default;
    virtual ~JournalFiles() = default;
    JournalFiles(const JournalFiles&) = delete;
    JournalFiles& operator=(const JournalFiles&) = delete;

    /* A new file for its owner only (mode 0600), open for reading and writing; EEXIST when the name is taken,
     * by whatever. EPERM when open would refuse it afterwards. */
    virtual int create(const std::string& path, int& file) = 0;

    /* For reading. EPERM for what is no regular file, and for one that others may have written. */
    virtual int open(const std::string& path, int& file, uint64_t& size) = 0;

    /* May do less than they are asked for; read does 0 at the end of the file. */
    virtual int write(int file, uint64_t offset, Bytes bytes, size_t& done) = 0;
    virtual int read(int file, uint64_t offset, std::span<uint8_t> bytes, size_t& done) = 0;

    /* The file's contents and size are on the medium; its name is when its directory was flushed. */
    virtual int flush(int file) = 0;
    virtual void close(int file) = 0;

    virtual int flushDirectory(const std::string& directory) = 0;
    virtual int rename(const std::string& from, const std::string& to) = 0; /* EEXIST when there is a `to` */
    virtual int remove(const std::string& path) = 0;
    virtual int names(const std::string& directory, std::vector<std::string>& found) = 0;

    /* Bytes that can still be written, and a number that is the same for one file system. */
    virtual int room(const std::string& directory, uint64_t& bytes, uint64_t& fileSystem) = 0;
};

/* Those of the system. Its functions throw nothing but std::bad_alloc. */
JournalFiles& systemJournalFiles();

/* An open file; closes it. */
struct JournalFile {
    JournalFile() = default;
    ~JournalFile() { close(); }
    JournalFile(const JournalFile&) = delete;
    JournalFile& operator=(const JournalFile&) = delete;

    int create(JournalFiles& in, const std::string& path);
    int open(JournalFiles& in, const std::string& path);
    void close();

    /* All of the bytes, or an error; deviceShrank when the file ends before. */
    int write(uint64_t offset, Bytes bytes);
    int read(uint64_t offset, std::span<uint8_t> bytes);
    int flush() { return files->flush(number); }

    uint64_t size = 0; /* bytes, when it was opened */

private:
    JournalFiles* files = nullptr;
    int number = -1;
};

/* "/a/b" for "/a/b/c" */
std::string directoryOf(const std::string& path);

/* A flushed copy under a new name whose directory is flushed too. The copy is removed when that fails; one
 * of this name that an earlier copying left is replaced. */
int copyFile(JournalFiles& files, const std::string& from, const std::string& to);

} /* namespace offline */

#endif
