#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <random>

#include "tests/volume/images.h"

using namespace offline;
using images::ByteVector;

namespace {

struct DiskTest : images::ImageTest {
    Problem problem;

    NTSTATUS open(const std::string& image, DiskPtr& disk, DiskAccess access = DiskAccess::readWrite) {
        return diskOpen(image, access, disk, problem);
    }
    DiskPtr opened(const std::string& image) {
        DiskPtr disk;
        EXPECT_EQ(open(image, disk), STATUS_SUCCESS) << problem.text;
        return disk;
    }
    void expectRefused(const std::string& image, NTSTATUS status, const std::string& words) {
        DiskPtr disk;
        EXPECT_EQ(open(image, disk), status);
        EXPECT_EQ(disk, nullptr);
        EXPECT_EQ(problem.status, status);
        EXPECT_TRUE(problem.text.starts_with(image + ": ")) << problem.text;
        EXPECT_NE(problem.text.find(words), std::string::npos) << problem.text;
        EXPECT_EQ(problem.text.find('\n'), std::string::npos);
    }
};

TEST_F(DiskTest, SaysWhatIsWrongWithWhatIsNoDisk) {
    images::writeFile(path("empty"), {});
    images::writeFile(path("file"), ByteVector(512));
    ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
    expectRefused(path("missing"), STATUS_NO_SUCH_FILE, "no such file");
    expectRefused(path("file/below"), STATUS_NO_SUCH_FILE, "no such file");
    expectRefused("", STATUS_NO_SUCH_FILE, "no such file");
    expectRefused(directory, STATUS_INVALID_PARAMETER, "directory");
    expectRefused(path("empty"), STATUS_UNRECOGNIZED_VOLUME, "empty");
    expectRefused(path("pipe"), STATUS_INVALID_PARAMETER, "neither a file nor a block device");
}

TEST_F(DiskTest, WriteProtectedFilesAreOnlyRead) {
    ByteVector content(5000, 7);
    images::writeFile(path("disk"), content);
    DiskPtr disk;
    ASSERT_EQ(open(path("disk"), disk, DiskAccess::trial), STATUS_SUCCESS) << problem.text;
    EXPECT_EQ(diskWrite(*disk, 0, ByteVector(10)), STATUS_MEDIA_WRITE_PROTECTED);
    disk.reset();
    ASSERT_EQ(chmod(path("disk").c_str(), 0444), 0);
    for (const DiskAccess access : {DiskAccess::readWrite, DiskAccess::trial}) {
        EXPECT_EQ(open(path("disk"), disk, access), STATUS_MEDIA_WRITE_PROTECTED);
        EXPECT_TRUE(problem.text.starts_with(path("disk") + ": it can only be read")) << problem.text;
    }
    ASSERT_EQ(open(path("disk"), disk, DiskAccess::readOnly), STATUS_SUCCESS);
    EXPECT_EQ(diskWrite(*disk, 0, ByteVector(10)), STATUS_MEDIA_WRITE_PROTECTED);
    EXPECT_EQ(open(path("disk"), disk, DiskAccess::readOnly), STATUS_SUCCESS);
    disk.reset();
    EXPECT_EQ(images::readFile(path("disk")), content);

    /* One that the system keeps from writes for another reason than its permissions: a program that runs. */
    std::filesystem::copy_file("/bin/sleep", path("program"));
    const pid_t child = fork();
    if (child == 0) {
        execl(path("program").c_str(), "program", "60", nullptr);
        _exit(127);
    }
    bool busy = false;
    for (int turn = 0; turn < 500 && !busy; turn++, usleep(10'000)) {
        const int file = ::open(path("program").c_str(), O_RDWR);
        busy = file < 0 && errno == ETXTBSY;
        if (file >= 0) close(file);
    }
    for (const DiskAccess access : {DiskAccess::readWrite, DiskAccess::trial}) {
        if (!busy) continue;
        EXPECT_EQ(open(path("program"), disk, access), STATUS_MEDIA_WRITE_PROTECTED);
    }
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}

/* Names for the same bytes, and for their neighbours; with loop devices where the system lends them. */
TEST_F(DiskTest, OneDiskIsKnownByAllItsNames) {
    images::writeFile(path("disk"), ByteVector(4 << 20));
    images::writeFile(path("other"), ByteVector(4096));
    std::filesystem::create_symlink(path("disk"), path("symbolic"));
    std::filesystem::create_hard_link(path("disk"), path("hard"));
    EXPECT_EQ(disksApart({path("disk"), path("other"), path("missing")}, problem), STATUS_SUCCESS);
    for (const std::string name : {"symbolic", "hard"}) {
        EXPECT_EQ(disksApart({path("other"), path("disk"), path(name)}, problem), STATUS_INVALID_PARAMETER);
        EXPECT_TRUE(problem.text.starts_with(path(name) + ": it is the same disk as " + path("disk")));
    }
    const images::LoopDevice whole(path("disk"), 0, 0), first(path("disk"), 0, 1 << 20),
        second(path("disk"), 1 << 20, 1 << 20);
    if (whole.name.empty() || first.name.empty() || second.name.empty()) GTEST_SKIP() << "no loop devices";
    EXPECT_EQ(disksApart({first.name, second.name}, problem), STATUS_SUCCESS);
    for (const std::vector<std::string>& two :
         std::vector<std::vector<std::string>>{{path("disk"), second.name}, {whole.name, second.name}}) {
        EXPECT_EQ(disksApart(two, problem), STATUS_INVALID_PARAMETER) << two[0];
        EXPECT_EQ(disksApart({two[1], two[0]}, problem), STATUS_INVALID_PARAMETER) << two[0];
        /* as two programs: whoever comes second is refused */
        for (const size_t held : {size_t{0}, size_t{1}}) {
            const DiskPtr disk = opened(two[held]);
            expectRefused(two[1 - held], STATUS_SHARING_VIOLATION, "us");
            EXPECT_NE(opened(path("other")), nullptr);
        }
    }
    const DiskPtr one = opened(first.name), neighbour = opened(second.name);
    EXPECT_TRUE(one && neighbour);
}

TEST_F(DiskTest, KeepsOthersAwayAndStaysAwayFromOthers) {
    images::writeFile(path("disk"), ByteVector(4096));
    {
        DiskPtr first = opened(path("disk"));
        expectRefused(path("disk"), STATUS_SHARING_VIOLATION, "another program is using it");
        DiskPtr reader;
        EXPECT_EQ(open(path("disk"), reader, DiskAccess::readOnly), STATUS_SHARING_VIOLATION);
    }
    DiskPtr one, two;
    EXPECT_EQ(open(path("disk"), one, DiskAccess::readOnly), STATUS_SUCCESS);
    EXPECT_EQ(open(path("disk"), two, DiskAccess::readOnly), STATUS_SUCCESS);
    expectRefused(path("disk"), STATUS_SHARING_VIOLATION, "another program is using it");
    one.reset();
    two.reset();
    /* As a virtual machine does it: a few bytes only. */
    int other = ::open(path("disk").c_str(), O_RDWR | O_CLOEXEC);
    struct flock lock = {};
    lock.l_type = F_RDLCK;
    lock.l_start = 100;
    lock.l_len = 3;
    ASSERT_EQ(fcntl(other, F_OFD_SETLK, &lock), 0);
    expectRefused(path("disk"), STATUS_SHARING_VIOLATION, "another program is using it");
    close(other);
    EXPECT_NE(opened(path("disk")), nullptr);
}

TEST_F(DiskTest, RefusesRangesBeyondTheEnd) {
    images::writeFile(path("disk"), ByteVector(1000));
    DiskPtr disk = opened(path("disk"));
    ByteVector ten(10);
    for (uint64_t offset : {uint64_t{991}, uint64_t{1000}, uint64_t{1001}, UINT64_MAX, UINT64_MAX - 5}) {
        EXPECT_EQ(diskRead(*disk, offset, ten), STATUS_INVALID_PARAMETER) << offset;
        EXPECT_EQ(diskWrite(*disk, offset, ten), STATUS_INVALID_PARAMETER) << offset;
    }
    EXPECT_EQ(diskWrite(*disk, 990, ten), STATUS_SUCCESS);
    disk.reset();
    EXPECT_EQ(std::filesystem::file_size(path("disk")), 1000u);
}

/* More than the cache holds, in pieces of every size and offset, against the same bytes kept in memory. */
TEST_F(DiskTest, CacheReadsWhatWasWritten) {
    constexpr size_t size = 40 * images::mebibyte + 777;
    ByteVector model(size);
    images::writeFile(path("disk"), {});
    std::filesystem::resize_file(path("disk"), size);
    DiskPtr disk = opened(path("disk"));
    std::mt19937 random(1);
    ByteVector piece;
    for (int i = 0; i < 6000; ++i) {
        size_t start = random() % size;
        size_t count = std::min<size_t>(size - start, i % 50 == 0 ? random() % 100'000 : random() % 3000);
        piece.resize(count);
        if (random() % 2 == 0) {
            for (uint8_t& byte : piece) byte = static_cast<uint8_t>(random());
            std::copy(piece.begin(), piece.end(), model.begin() + static_cast<std::ptrdiff_t>(start));
            ASSERT_EQ(diskWrite(*disk, start, piece), STATUS_SUCCESS);
        } else {
            ASSERT_EQ(diskRead(*disk, start, piece), STATUS_SUCCESS);
            ASSERT_EQ(std::memcmp(piece.data(), model.data() + start, count), 0) << i;
        }
        NTSTATUS synced = i % 1000 == 0 ? diskSync(*disk) : STATUS_SUCCESS;
        ASSERT_EQ(synced, STATUS_SUCCESS);
    }
    disk.reset();
    EXPECT_EQ(images::readFile(path("disk")), model);
}

TEST_F(DiskTest, HolesStayHoles) {
    images::writeFile(path("disk"), {});
    std::filesystem::resize_file(path("disk"), 64 * images::mebibyte);
    DiskPtr disk = opened(path("disk"));
    ByteVector piece(1024, 1);
    for (uint64_t index = 0; index < 64; ++index) {
        ASSERT_EQ(diskRead(*disk, index * images::mebibyte, piece), STATUS_SUCCESS);
    }
    piece.assign(1024, 1);
    ASSERT_EQ(diskWrite(*disk, 5 * images::mebibyte, piece), STATUS_SUCCESS);
    disk.reset();
    struct stat info = {};
    ASSERT_EQ(stat(path("disk").c_str(), &info), 0);
    EXPECT_LE(info.st_blocks * 512, 64 * 1024);
}

TEST_F(DiskTest, AFailedWriteBackIsToldOnceAndTriedAgain) {
    images::writeFile(path("disk"), ByteVector(1 << 16));
    DiskPtr disk = opened(path("disk"));
    ByteVector piece(1024, 9), back(1024);
    ASSERT_EQ(diskWrite(*disk, 4096, piece), STATUS_SUCCESS);
    images::failures.pwritesLeft = 0;
    images::failures.pwriteError = ENOSPC;
    EXPECT_EQ(diskSync(*disk), STATUS_DISK_FULL);
    EXPECT_EQ(diskRead(*disk, 4096, back), STATUS_SUCCESS);
    EXPECT_EQ(back, piece);
    images::failures = {};
    EXPECT_EQ(diskSync(*disk), STATUS_SUCCESS);
    disk.reset();
    EXPECT_EQ(images::readFile(path("disk"))[4096], 9);
}

TEST_F(DiskTest, NothingIsLostWhenTheDiskIsFullBelowTheCache) {
    images::writeFile(path("disk"), {});
    std::filesystem::resize_file(path("disk"), 24 * images::mebibyte);
    DiskPtr disk = opened(path("disk"));
    images::failures.pwritesLeft = 3;
    ByteVector piece(1024, 3);
    NTSTATUS status = STATUS_SUCCESS;
    uint64_t written = 0;
    for (; status >= 0 && written < 24 * images::mebibyte; written += piece.size()) {
        status = diskWrite(*disk, written, piece);
    }
    EXPECT_EQ(status, STATUS_IO_DEVICE_ERROR);
    EXPECT_GE(written, 16 * images::mebibyte);
    images::failures = {};
    EXPECT_EQ(diskSync(*disk), STATUS_SUCCESS); /* what was refused on the way waited, and is written now */
    disk.reset();
    ByteVector result = images::readFile(path("disk"));
    for (uint64_t at = 0; at + 1024 < written; at += 1024) ASSERT_EQ(result[at], 3) << at;
}

TEST_F(DiskTest, AFailedSyncStaysAnError) {
    images::writeFile(path("disk"), ByteVector(4096));
    DiskPtr disk = opened(path("disk"));
    images::failures.fdatasyncsLeft = 0;
    EXPECT_EQ(diskSync(*disk), STATUS_IO_DEVICE_ERROR);
    images::failures = {};
    EXPECT_EQ(diskSync(*disk), STATUS_IO_DEVICE_ERROR);
}

} /* namespace */
