/* SPDX-License-Identifier: GPL-2.0-or-later */
/* A journal's file: damaged, tampered with, and in the real file system. */
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "tests/device/journals.h"
#include "tests/support/scratch_directory.h"

namespace offline::test {
namespace {

/* Played back is what was written, and nothing else: a damaged journal leaves the disk as it is, the resealed
 * one of a forger may be played, but only inside the disk. */
TEST(Journal, DamagedIsNotPlayedBack) {
    const std::unique_ptr<Sample> sample = cutHalfway(23, 1);
    MachineDisk& disk = sample->disks.front();
    const ByteVector half = disk.medium.now, whole = sample->files.now.at(journalOfDisk)->now;
    const size_t body = journal::head::size + numberAt<uint32_t>(whole, journal::head::bodyLength);
    std::mt19937_64 random(29);
    int played = 0;
    for (int round = 0; round < 3000; ++round) {
        ByteVector file = whole;
        const bool sealed = round % 2 == 0;
        const size_t at = random() % (round % 3 == 0 ? body + 256 : file.size() - 4) % (file.size() - 4);
        if (round % 5 == 0)
            file.resize(body + random() % (whole.size() - body));
        else if (round % 7 == 0)
            journal::put(file, at, static_cast<uint32_t>(random() >> (random() % 64)));
        else
            file[at] ^= static_cast<uint8_t>(1 << random() % 8);
        if (sealed) reseal(file);
        sample->files.now[journalOfDisk] = std::make_shared<Medium>(Medium{file, file, {}});
        disk.medium.now = half;
        if (sample->recover() >= 0) {
            ASSERT_TRUE(sealed || file == whole || sample->holds(sample->before)) << round;
            ++played;
        } else {
            ASSERT_EQ(disk.medium.now, half) << round;
            ASSERT_FALSE(sample->problem.text.empty());
        }
    }
    EXPECT_GT(played, 100);
}

TEST(Journal, PlacesAndNames) {
    const ScratchDirectory directory;
    Problem problem;
    JournalPlace place;
    std::ofstream(directory.at("a.img")) << "x";
    std::filesystem::create_symlink("a.img", directory.at("link.img"));
    ASSERT_EQ(journalPlaceOf(directory.at("link.img"), place, problem), STATUS_SUCCESS);
    EXPECT_EQ(journalPath(place), directory.at("a.img.quillet-journal"));

    std::string undo;
    JournalFiles& files = systemJournalFiles();
    ASSERT_EQ(latestUndoPath(files, place, undo), 0);
    EXPECT_EQ(undo, "");
    for (const char* const name :
         {"a.img.quillet-undo", "a.img.quillet-undo.2", "a.img.quillet-undo.10", "a.img.quillet-undo.011",
          "a.img.quillet-undo.12.part", "b.img.quillet-undo.20"}) {
        std::ofstream(directory.at(name)) << "x";
    }
    ASSERT_EQ(latestUndoPath(files, place, undo), 0);
    EXPECT_EQ(undo, directory.at("a.img.quillet-undo.10"));
    ASSERT_EQ(nextUndoPath(files, place, undo), 0);
    EXPECT_EQ(undo, directory.at("a.img.quillet-undo.11"));

    setenv("QUILLET_JOURNAL", directory.at(".").c_str(), 1);
    ASSERT_EQ(journalPlaceOf("nbd://host/a%2Fb", place, problem), STATUS_SUCCESS);
    EXPECT_EQ(journalPath(place), directory.at("nbd:%2F%2Fhost%2Fa%252Fb.quillet-journal"));
    setenv("QUILLET_JOURNAL", directory.at("missing").c_str(), 1);
    EXPECT_LT(journalPlaceOf("/dev/null", place, problem), 0);
    unsetenv("QUILLET_JOURNAL");
}

/* Files are their owner's alone, never overwritten, and not trusted where others may write them. */
TEST(Journal, SystemFiles) {
    const ScratchDirectory directory;
    JournalFiles& files = systemJournalFiles();
    const std::string path = directory.at("j"), link = directory.at("link");
    JournalFile file, other;
    umask(0);
    ASSERT_EQ(file.create(files, path), 0);
    EXPECT_EQ(other.create(files, path), EEXIST);
    struct stat info = {};
    ASSERT_EQ(stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0600u);
    const ByteVector bytes(3000, 7);
    ASSERT_EQ(file.write(5, bytes), 0);
    ASSERT_EQ(file.flush(), 0);
    ByteVector back(3000);
    ASSERT_EQ(other.open(files, path), 0);
    EXPECT_EQ(other.size, 3005u);
    EXPECT_EQ(other.read(5, back), 0);
    EXPECT_EQ(back, bytes);
    EXPECT_EQ(other.read(6, back), deviceShrank);

    ASSERT_EQ(copyFile(files, path, directory.at("copy")), 0);
    EXPECT_EQ(files.rename(path, directory.at("copy")), EEXIST);
    EXPECT_EQ(files.flushDirectory(directory.path), 0);
    std::filesystem::create_symlink(path, link);
    EXPECT_EQ(other.open(files, link), EPERM);
    EXPECT_EQ(other.create(files, link), EEXIST);
    EXPECT_EQ(other.open(files, directory.path), EPERM);
    ASSERT_EQ(chmod(path.c_str(), 0620), 0);
    EXPECT_EQ(other.open(files, path), EPERM);
    ASSERT_EQ(chmod(path.c_str(), 0600), 0);
    if (geteuid() == 0) {
        ASSERT_EQ(chown(path.c_str(), 4711, 4711), 0);
        EXPECT_EQ(other.open(files, path), EPERM);
    }
}

}  // namespace
}  // namespace offline::test
