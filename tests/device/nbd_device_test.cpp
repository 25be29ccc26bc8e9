/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The NBD device, against servers of nbdkit's. */
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include "platform/offline/device/device_open.h"
#include "platform/offline/device/overlay.h"
#include "tests/device/model.h"
#include "tests/support/scratch_directory.h"

namespace offline::test {
namespace {

struct NbdDeviceTest : testing::Test {
    ScratchDirectory directory;
    Problem problem;
    std::vector<pid_t> servers;

    void SetUp() override {
        if (system("nbdkit --version >/dev/null 2>&1") != 0) GTEST_SKIP() << "no nbdkit";
    }
    void TearDown() override {
        for (const pid_t server : servers) kill(server, SIGTERM);
    }

    /* Its address; it is ready. */
    std::string serve(const std::string& arguments) {
        const std::string path = directory.at(std::to_string(servers.size()));
        const std::string command = "nbdkit -U " + path + " -P " + path + ".pid " + arguments;
        EXPECT_EQ(system(command.c_str()), 0) << command;
        pid_t server = 0;
        while (!(std::ifstream(path + ".pid") >> server)) usleep(1000);
        servers.push_back(server);
        return "nbd+unix:///?socket=" + path;
    }
    BlockDevicePtr opened(const std::string& address) {
        BlockDevicePtr device;
        EXPECT_EQ(deviceOpen(address, DiskAccess::readWrite, device, problem), STATUS_SUCCESS)
            << problem.text;
        return device;
    }
};

TEST_F(NbdDeviceTest, HoldsWhatWasWritten) {
    const std::string whole =
        "--filter=blocksize-policy memory 4M blocksize-minimum=4096 "
        "blocksize-maximum=65536 blocksize-error-policy=error";
    for (const std::string& server : {std::string("memory 4M"), whole}) {
        const BlockDevicePtr device = opened(serve(server));
        ASSERT_NE(device, nullptr);
        EXPECT_EQ(device->sectorSize(), server == whole ? 4096 : 512);
        compareWithModel(*device, 1);
    }
    const BlockDevicePtr below = opened(serve("memory 4M"));
    Overlay overlay(*below, directory.path);
    compareWithModel(overlay, 2);
    EXPECT_EQ(below->holeAt(0, 4 << 20), uint64_t{4 << 20});
}

TEST_F(NbdDeviceTest, TellsARefusalOnceAndTheServersEndForEver) {
    const std::string trouble = directory.at("trouble");
    const BlockDevicePtr device =
        opened(serve("--filter=error memory 1M error=ENOSPC error-pwrite-rate=100% error-file=" + trouble));
    ASSERT_NE(device, nullptr);
    const ByteVector bytes(4096, 7);
    EXPECT_EQ(device->write(0, bytes), 0);
    EXPECT_EQ(device->flush(), 0);
    std::ofstream(trouble).put('x');
    ByteVector there(4096);
    EXPECT_EQ(device->write(0, bytes), 0);
    EXPECT_EQ(device->read(0, there), ENOSPC); /* which does not take it from the flush */
    DeviceError told = device->flush();
    EXPECT_EQ(told, ENOSPC);
    std::filesystem::remove(trouble);
    EXPECT_EQ(device->write(0, bytes), 0);
    EXPECT_EQ(device->flush(), 0);
    kill(servers.back(), SIGKILL);
    for (int turn = 0; turn < 2; ++turn) {
        told = device->write(0, bytes);
        EXPECT_EQ(told == 0 ? device->flush() : told, deviceGone);
        EXPECT_EQ(device->read(0, there), deviceGone);
        EXPECT_EQ(device->holeAt(0, 4096), 0u);
    }
}

TEST_F(NbdDeviceTest, RefusesWhatIsNotSafe) {
    const std::string shell =
        "eval get_size='echo 1048576' pread='head -c $3 /dev/zero' pwrite='cat >/dev/null' ";
    const std::pair<std::string, const char*> unsafe[] = {
        {shell + "can_write='exit 0' can_flush='exit 3'", "can't flush"},
        {"-r memory 1M", "can only be read"},
        {"--filter=blocksize-policy memory 1000448 blocksize-minimum=4096", "can't be right"},
        {"memory 0", "empty"},
    };
    BlockDevicePtr device;
    for (const auto& [server, words] : unsafe) {
        const std::string address = serve(server);
        for (const DiskAccess access : {DiskAccess::readWrite, DiskAccess::trial}) {
            EXPECT_LT(deviceOpen(address, access, device, problem), 0) << server;
            EXPECT_NE(problem.text.find(words), std::string::npos) << problem.text;
        }
    }
    EXPECT_LT(
        deviceOpen("nbd+unix:///?socket=" + directory.at("none"), DiskAccess::readOnly, device, problem), 0);
}

} /* namespace */
} /* namespace offline::test */
