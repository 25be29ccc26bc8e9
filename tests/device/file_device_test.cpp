/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/device/file_device.h"

#include "platform/offline/device/device_open.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "tests/device/model.h"
#include "tests/support/scratch_directory.h"

namespace offline::test {
namespace {

/* A loop device over a part of a file, until the end; without a name where the system lends none. */
struct LoopDevice {
    std::string name;
    LoopDevice(const std::string& file, uint64_t offset, uint64_t size) {
        const std::string command = "losetup -f --show -o " + std::to_string(offset) +
                                    (size == 0 ? "" : " --sizelimit " + std::to_string(size)) + " '" + file +
                                    "' 2>/dev/null";
        FILE* const said = popen(("PATH=$PATH:/usr/sbin:/sbin " + command).c_str(), "r");
        std::array<char, 64> line = {};
        if (fgets(line.data(), line.size(), said) != nullptr)
            name.assign(line.data(), strcspn(line.data(), "\n"));
        pclose(said);
    }
    ~LoopDevice() {
        if (name.empty() || system(("PATH=$PATH:/usr/sbin:/sbin losetup -d " + name).c_str()) == 0) return;
        ADD_FAILURE() << name << " can't be given back";
    }
    LoopDevice(const LoopDevice&) = delete;
    LoopDevice& operator=(const LoopDevice&) = delete;
};

struct FileDeviceTest : testing::Test {
    ScratchDirectory directory;
    Problem problem;

    std::string path(const std::string& name) const { return directory.at(name); }
    std::string make(const std::string& name, const ByteVector& bytes) const {
        std::ofstream(path(name), std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        return path(name);
    }

    NTSTATUS open(const std::string& image, BlockDevicePtr& device,
                  DiskAccess access = DiskAccess::readWrite) {
        return fileDeviceOpen(image, access, device, problem);
    }
    BlockDevicePtr opened(const std::string& image) {
        BlockDevicePtr device;
        EXPECT_EQ(open(image, device), STATUS_SUCCESS) << problem.text;
        return device;
    }
    void expectRefused(const std::string& image, NTSTATUS status, const std::string& words) {
        BlockDevicePtr device;
        EXPECT_EQ(open(image, device), status);
        EXPECT_EQ(device, nullptr);
        EXPECT_EQ(problem.status, status);
        EXPECT_TRUE(problem.text.starts_with(image + ": ")) << problem.text;
        EXPECT_NE(problem.text.find(words), std::string::npos) << problem.text;
        EXPECT_EQ(problem.text.find('\n'), std::string::npos);
    }
};

TEST_F(FileDeviceTest, SaysWhatIsWrongWithWhatIsNoDisk) {
    make("empty", {});
    make("file", ByteVector(512));
    ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
    expectRefused(path("missing"), STATUS_NO_SUCH_FILE, "no such file");
    expectRefused(path("file/below"), STATUS_NO_SUCH_FILE, "no such file");
    expectRefused("", STATUS_NO_SUCH_FILE, "no such file");
    expectRefused(directory.path, STATUS_INVALID_PARAMETER, "directory");
    expectRefused(path("empty"), STATUS_UNRECOGNIZED_VOLUME, "empty");
    expectRefused(path("pipe"), STATUS_INVALID_PARAMETER, "neither a file nor a block device");
}

TEST_F(FileDeviceTest, WriteProtectedFilesAreOnlyRead) {
    ByteVector content(5000, 7);
    make("disk", content);
    BlockDevicePtr disk;
    ASSERT_EQ(open(path("disk"), disk, DiskAccess::trial), STATUS_SUCCESS) << problem.text;
    EXPECT_EQ(disk->write(0, ByteVector(10)), EROFS);
    EXPECT_TRUE(disk->writable());
    disk.reset();
    ASSERT_EQ(chmod(path("disk").c_str(), 0444), 0);
    for (const DiskAccess access : {DiskAccess::readWrite, DiskAccess::trial}) {
        EXPECT_EQ(open(path("disk"), disk, access), STATUS_MEDIA_WRITE_PROTECTED);
        EXPECT_TRUE(problem.text.starts_with(path("disk") + ": it can only be read")) << problem.text;
    }
    ASSERT_EQ(open(path("disk"), disk, DiskAccess::readOnly), STATUS_SUCCESS);
    EXPECT_FALSE(disk->writable());
    EXPECT_EQ(disk->write(0, ByteVector(10)), EROFS);
    EXPECT_EQ(open(path("disk"), disk, DiskAccess::readOnly), STATUS_SUCCESS);
    EXPECT_EQ(disk->zero(0, 10), EROFS);
    EXPECT_EQ(contentsOf(*disk), content);

    /* One that most kernels keep from writes for another reason than its permissions: a program that runs. */
    const int program = ::open("/proc/self/exe", O_RDWR);
    if (program >= 0) close(program);
    for (const DiskAccess access : {DiskAccess::readWrite, DiskAccess::trial}) {
        if (program >= 0) continue;
        EXPECT_EQ(open("/proc/self/exe", disk, access), STATUS_MEDIA_WRITE_PROTECTED);
    }
}

/* Names for the same bytes, and for their neighbours; with loop devices where the system lends them. */
TEST_F(FileDeviceTest, OneDiskIsKnownByAllItsNames) {
    make("disk", ByteVector(4 << 20));
    make("other", ByteVector(4096));
    std::filesystem::create_symlink(path("disk"), path("symbolic"));
    std::filesystem::create_hard_link(path("disk"), path("hard"));
    EXPECT_EQ(disksApart({path("disk"), path("other"), path("missing")}, problem), STATUS_SUCCESS);
    for (const std::string name : {"symbolic", "hard"}) {
        EXPECT_EQ(disksApart({path("other"), path("disk"), path(name)}, problem), STATUS_INVALID_PARAMETER);
        EXPECT_TRUE(problem.text.starts_with(path(name) + ": it is the same disk as " + path("disk")));
    }
    const LoopDevice whole(path("disk"), 0, 0), first(path("disk"), 0, 1 << 20),
        second(path("disk"), 1 << 20, 1 << 20);
    if (whole.name.empty() || first.name.empty() || second.name.empty()) GTEST_SKIP() << "no loop devices";
    EXPECT_EQ(disksApart({first.name, second.name}, problem), STATUS_SUCCESS);
    for (const std::vector<std::string>& two :
         std::vector<std::vector<std::string>>{{path("disk"), second.name}, {whole.name, second.name}}) {
        EXPECT_EQ(disksApart({two[0], two[1]}, problem), STATUS_INVALID_PARAMETER) << two[0];
        EXPECT_EQ(disksApart({two[1], two[0]}, problem), STATUS_INVALID_PARAMETER) << two[0];
        /* as two programs: whoever comes second is refused */
        for (const size_t held : {size_t{0}, size_t{1}}) {
            const BlockDevicePtr disk = opened(two[held]);
            expectRefused(two[1 - held], STATUS_SHARING_VIOLATION, "us");
            EXPECT_NE(opened(path("other")), nullptr);
        }
    }
    const BlockDevicePtr one = opened(first.name), neighbour = opened(second.name);
    EXPECT_TRUE(one && neighbour);
}

TEST_F(FileDeviceTest, KeepsOthersAwayAndStaysAwayFromOthers) {
    make("disk", ByteVector(4096));
    {
        BlockDevicePtr first = opened(path("disk"));
        expectRefused(path("disk"), STATUS_SHARING_VIOLATION, "another program is using it");
        BlockDevicePtr reader;
        EXPECT_EQ(open(path("disk"), reader, DiskAccess::readOnly), STATUS_SHARING_VIOLATION);
    }
    BlockDevicePtr one, two;
    EXPECT_EQ(open(path("disk"), one, DiskAccess::readOnly), STATUS_SUCCESS);
    EXPECT_EQ(open(path("disk"), two, DiskAccess::readOnly), STATUS_SUCCESS);
    expectRefused(path("disk"), STATUS_SHARING_VIOLATION, "another program is using it");
    BlockDevicePtr trial;
    EXPECT_EQ(open(path("disk"), trial, DiskAccess::trial), STATUS_SHARING_VIOLATION);
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

/* Mounted where the system lends that. */
TEST_F(FileDeviceTest, AMountedFileIsRefusedUnderAllItsNames) {
    make("disk", {});
    std::filesystem::resize_file(path("disk"), 4 << 20);
    std::filesystem::create_hard_link(path("disk"), path("hard"));
    std::filesystem::create_directory(path("mount"));
    const std::string command =
        "PATH=$PATH:/usr/sbin:/sbin; cd " + directory.path +
        "; mkntfs -F -Q -q disk >/dev/null 2>&1 && ntfs-3g -o ro disk mount 2>/dev/null";
    if (system(command.c_str()) != 0) GTEST_SKIP() << "no mounts";
    for (const std::string name : {"disk", "hard"}) {
        expectRefused(path(name), STATUS_SHARING_VIOLATION, "it is mounted; unmount it");
    }
    EXPECT_NE(opened(make("other", ByteVector(512))), nullptr);
    EXPECT_EQ(system(("umount " + path("mount")).c_str()), 0);
    EXPECT_NE(opened(path("hard")), nullptr);
}

/* On a loop device, too, where the system lends one. */
TEST_F(FileDeviceTest, HoldsWhatWasWritten) {
    constexpr size_t size = 1 << 20;
    make("file", ByteVector(size, 7));
    make("below", {});
    std::filesystem::resize_file(path("below"), size);
    const LoopDevice loop(path("below"), 0, 0);
    if (!loop.name.empty()) {
        const BlockDevicePtr device = opened(loop.name);
        ASSERT_NE(device, nullptr);
        ASSERT_EQ(device->size(), size);
        EXPECT_EQ(device->holeAt(4096, 8192), 0u);
        compareWithModel(*device, 1);
    }
    const BlockDevicePtr device = opened(path("file"));
    for (const auto& [start, count] : {std::pair<uint64_t, uint64_t>{131072, 131072}, /* sectors: at once */
                                       {300001, 200'003},    /* no sectors, and longer than a piece */
                                       {size - 4096, 4096}}) /* up to the end */
        ASSERT_EQ(device->zero(start, count), 0);
    const bool holes = device->holeAt(131072, 1) != 0;
    EXPECT_EQ(device->holeAt(131072, 131072), holes ? 131072u : 0u);
    EXPECT_EQ(device->holeAt(135168, 500'000), holes ? 126976u : 0u); /* up to the data */
    EXPECT_EQ(device->holeAt(size - 4096, 4096), holes ? 4096u : 0u); /* up to the end */
    EXPECT_EQ(device->holeAt(0, size), 0u);
    compareWithModel(*device, 2);
}

/* Another program cuts the file off while it is in use: nothing is read as zeros, nothing makes it longer,
 * and what was lost stays an error. */
TEST_F(FileDeviceTest, AFileThatBecomesShorterIsADevicesError) {
    const BlockDevicePtr device = opened(make("disk", ByteVector(65536, 1)));
    ByteVector piece(4096);
    std::filesystem::resize_file(path("disk"), 10'000);
    EXPECT_EQ(device->read(8192, piece), deviceShrank);
    EXPECT_EQ(device->read(0, piece), 0);
    EXPECT_EQ(device->write(0, piece), deviceShrank);
    EXPECT_EQ(device->zero(32768, 4096), deviceShrank);
    EXPECT_EQ(device->holeAt(32768, 4096), 0u);
    EXPECT_EQ(device->flush(), deviceShrank);
    EXPECT_EQ(device->reason(deviceShrank), "it became shorter while it was in use");
    EXPECT_EQ(std::filesystem::file_size(path("disk")), 10'000u);
    std::filesystem::resize_file(path("disk"), 65536);
    EXPECT_EQ(device->flush(), deviceShrank);
}

} /* namespace */
} /* namespace offline::test */
