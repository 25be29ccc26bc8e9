/* SPDX-License-Identifier: GPL-2.0-or-later */
#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "platform/offline/base/streams.h"
#include "platform/offline/device/journal_files.h"

namespace offline {
namespace {

/* A journal decides what is written to a disk. One that another user put beside a disk, in a directory where
 * everybody may create files, must not. */
int refuseUntrusted(int file, const std::string& path, struct stat& info) {
    struct stat directory = {};
    if (fstat(file, &info) != 0 || stat(directoryOf(path).c_str(), &directory) != 0) return errno;
    const bool ours = info.st_uid == geteuid() || info.st_uid == 0 || info.st_uid == directory.st_uid;
    return ours && S_ISREG(info.st_mode) && (info.st_mode & (S_IWGRP | S_IWOTH)) == 0 ? 0 : EPERM;
}

/* A file descriptor that is closed when it goes. */
struct Opened {
    int file;
    ~Opened() {
        if (file >= 0) close(file);
    }
};

struct SystemJournalFiles final : JournalFiles {
    int create(const std::string& path, int& file) override {
        file = aboveStandard(
            ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
        if (file < 0) return errno;
        struct stat info = {};
        const int error = refuseUntrusted(file, path, info);
        if (error == 0) return 0;
        unlink(path.c_str());
        ::close(file);
        return error;
    }

    int open(const std::string& path, int& file, uint64_t& size) override {
        file = aboveStandard(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        if (file < 0) return errno == ELOOP ? EPERM : errno;
        struct stat info = {};
        const int error = refuseUntrusted(file, path, info);
        if (error != 0) ::close(file);
        size = static_cast<uint64_t>(info.st_size);
        return error;
    }

    int write(int file, uint64_t offset, Bytes bytes, size_t& done) override {
        return transferred(
            done, [&] { return pwrite(file, bytes.data(), bytes.size(), static_cast<off_t>(offset)); });
    }

    int read(int file, uint64_t offset, std::span<uint8_t> bytes, size_t& done) override {
        return transferred(
            done, [&] { return pread(file, bytes.data(), bytes.size(), static_cast<off_t>(offset)); });
    }

    int flush(int file) override { return fsync(file) == 0 ? 0 : errno; }
    void close(int file) override { ::close(file); }

    /* Some network file systems have no such call for directories; their servers keep names at once. */
    int flushDirectory(const std::string& directory) override {
        const Opened opened{aboveStandard(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC))};
        if (opened.file < 0) return errno;
        return fsync(opened.file) == 0 || errno == EINVAL || errno == EOPNOTSUPP ? 0 : errno;
    }

    int rename(const std::string& from, const std::string& to) override {
        if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return 0;
        if (errno != EINVAL && errno != ENOSYS) return errno;
        struct stat info = {}; /* a file system without the flag */
        if (lstat(to.c_str(), &info) == 0) return EEXIST;
        return ::rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
    }

    int remove(const std::string& path) override { return unlink(path.c_str()) == 0 ? 0 : errno; }

    int names(const std::string& directory, std::vector<std::string>& found) override {
        const std::unique_ptr<DIR, int (*)(DIR*)> listing(opendir(directory.c_str()), closedir);
        if (listing == nullptr) return errno;
        errno = 0;
        while (const dirent* const entry = readdir(listing.get())) found.emplace_back(entry->d_name);
        return errno;
    }

    int room(const std::string& directory, uint64_t& bytes, uint64_t& fileSystem) override {
        struct statvfs volume = {};
        struct stat info = {};
        if (statvfs(directory.c_str(), &volume) != 0 || stat(directory.c_str(), &info) != 0) return errno;
        bytes = uint64_t{volume.f_bavail} * volume.f_frsize;
        fileSystem = info.st_dev;
        return 0;
    }

private:
    template <class Call>
    static int transferred(size_t& done, Call call) {
        ssize_t result = call();
        while (result < 0 && errno == EINTR) result = call();
        done = result < 0 ? 0 : static_cast<size_t>(result);
        return result < 0 ? errno : 0;
    }
};

} /* namespace */

JournalFiles& systemJournalFiles() {
    static SystemJournalFiles files;
    return files;
}

} /* namespace offline */
