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

TEST(Journal, DamagedIsNotPlayedBack) {
    TamperedJournal journal;
    std::mt19937 random(29);
    for (int round = 0; round < 3000; ++round) {
        ByteVector input(round % 4 == 0 ? 11 : 7);
        for (uint8_t& byte : input) byte = static_cast<uint8_t>(random());
        if (round % 5 != 0) input[0] = input[1] = 0;
        if (round % 3 == 0) input[4] %= 2, input[5] = 0; /* in the head */
        ASSERT_EQ(journal.harm(input), "") << round;
    }
    EXPECT_GT(journal.played, 100);
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
    std::filesystem::create_symlink("loop.img", directory.at("loop.img"));
    EXPECT_LT(journalPlaceOf(directory.at("loop.img"), place, problem), 0) << "where it lies is not known";
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
