/* Runs the built program in a directory of its own, and looks into the images that it makes. */
#ifndef QUILLET_TESTS_COMPANION_PROGRAM_H
#define QUILLET_TESTS_COMPANION_PROGRAM_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "platform/offline/volume/disk.h"
#include "platform/offline/volume/volume.h"

inline const std::u16string configDirectory = u"Windows\\System32\\config\\";
inline const std::string practiceSid = "S-1-5-21-1111-2222-3333";

struct Outcome {
    int status = -1;
    std::string out, err;
};

inline std::string contentsOf(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary | std::ios::ate);
    std::string contents(static_cast<size_t>(file.tellg()), '\0');
    file.seekg(0).read(contents.data(), static_cast<std::streamsize>(contents.size()));
    return contents;
}

inline void writeFile(const std::filesystem::path& path, const std::string& contents) {
    std::ofstream(path, std::ios::binary) << contents;
}

/* Every error is one line with the program's name before it. */
inline bool isOneLine(const std::string& err) {
    return err.rfind("quillet-offline: ", 0) == 0 && std::count(err.begin(), err.end(), '\n') == 1 &&
           err.back() == '\n';
}

struct ProgramTest : testing::Test {
    std::filesystem::path directory;

    ProgramTest() {
        std::string name = testing::TempDir() + "quillet-offline.XXXXXX";
        directory = mkdtemp(name.data());
    }
    ~ProgramTest() override { std::filesystem::remove_all(directory); }

    /* Runs it there; program may be another than the one that was built. */
    Outcome start(const std::string& program, std::vector<std::string> arguments) const {
        const std::string out = directory / ".out", err = directory / ".err";
        std::vector<char*> argv = {const_cast<char*>(program.c_str())};
        for (std::string& argument : arguments) argv.push_back(argument.data());
        argv.push_back(nullptr);
        const pid_t child = fork();
        if (child == 0) {
            if (chdir(directory.c_str()) != 0) _exit(126);
            dup2(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
            dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDERR_FILENO);
            execvp(program.c_str(), argv.data());
            _exit(127);
        }
        int status = 0;
        waitpid(child, &status, 0);
        Outcome outcome{WIFEXITED(status) ? WEXITSTATUS(status) : -1, contentsOf(out), contentsOf(err)};
        std::filesystem::remove(out);
        std::filesystem::remove(err);
        return outcome;
    }

    Outcome quilletOffline(std::vector<std::string> arguments) const {
        return start(QUILLET_OFFLINE_PROGRAM, std::move(arguments));
    }

    std::string path(const std::string& name) const { return directory / name; }

    /* The names in the directory, sorted. */
    std::vector<std::string> files() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(directory)) {
            names.push_back(entry.path().filename());
        }
        std::sort(names.begin(), names.end());
        return names;
    }
};

/* A practice system to look at. */
struct PracticeTest : ProgramTest {
    std::string image = path("a.img");

    void SetUp() override {
        ASSERT_EQ(
            quilletOffline({"sample", "a.img", "--machine", practiceSid, "--files", "60", "--size", "48M"})
                .status,
            0);
    }

    /* What a command says that must leave the image as it is. */
    Outcome look(std::vector<std::string> arguments) const {
        const std::string before = contentsOf(image);
        Outcome outcome = quilletOffline(std::move(arguments));
        EXPECT_TRUE(contentsOf(image) == before);
        return outcome;
    }
};

/* The first volume of an image. */
struct OpenImage {
    offline::DiskPtr disk;
    std::vector<offline::Partition> partitions;
    offline::VolumePtr volume;

    explicit OpenImage(const std::string& path, offline::DiskAccess access = offline::DiskAccess::readOnly) {
        offline::Problem problem;
        EXPECT_GE(offline::diskOpen(path, access, disk, problem), 0) << problem.text;
        EXPECT_GE(offline::diskPartitions(*disk, partitions, problem), 0) << problem.text;
        EXPECT_GE(offline::volumeOpen(*disk, partitions.at(0), volume, problem), 0) << problem.text;
    }

    offline::FileRef find(std::u16string_view path) const {
        offline::FileRef file = 0;
        EXPECT_GE(offline::volumeFind(*volume, path, file), 0);
        return file;
    }

    std::vector<uint8_t> read(std::u16string_view path) const {
        std::vector<uint8_t> bytes;
        EXPECT_GE(offline::volumeReadFile(*volume, find(path), 1 << 24, bytes), 0);
        return bytes;
    }

    void write(std::u16string_view path, uint64_t offset, const std::vector<uint8_t>& bytes) const {
        EXPECT_GE(offline::volumeWriteFile(*volume, find(path), offset, bytes), 0);
    }

    void close() {
        EXPECT_GE(offline::volumeClose(std::move(volume)), 0);
        EXPECT_GE(offline::diskSync(*disk), 0);
        disk.reset();
    }
};

#endif
