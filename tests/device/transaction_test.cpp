/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Whatever happens during a commit, a recovery or an undo, the disks are old or new. */
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>

#include "platform/offline/device/journal_reader.h"
#include "platform/offline/device/scratch_commit.h"
#include "tests/device/journals.h"

namespace offline::test {
namespace {

uint64_t fromEnvironment(const char* name, uint64_t otherwise) {
    const char* const text = getenv(name);
    return text == nullptr ? otherwise : strtoull(text, nullptr, 10);
}

/* What a cut-off commit or undo leaves is put right, though that is cut off as well. */
void recoverThroughCuts(Sample& sample) {
    for (uint64_t again = sample.machine.below(4); again > 0; --again) {
        sample.machine.cutAt = sample.machine.below(60);
        static_cast<void>(sample.recover());
        sample.reboot();
        ASSERT_TRUE(sample.warns());
    }
    ASSERT_GE(sample.recover(), 0) << sample.problem.text;
    ASSERT_FALSE(sample.files.anyEnding("-journal"));
}

void cutOnce(uint64_t seed) {
    Sample uncut(seed, 1 + seed % 3);
    uncut.machine.calls = 0;
    ASSERT_GE(uncut.commit(), 0) << uncut.problem.text;
    ASSERT_TRUE(uncut.isNew());
    Sample sample(seed, 1 + seed % 3);
    sample.machine.calls = 0;
    sample.machine.random.seed(seed + 1);
    sample.machine.cutAt = sample.machine.below(uncut.machine.calls + 5);
    const bool committed = sample.commit() >= 0;
    sample.reboot();
    ASSERT_TRUE(sample.warns());
    ASSERT_NO_FATAL_FAILURE(recoverThroughCuts(sample));
    ASSERT_TRUE(sample.isNew() || (!committed && sample.isOld()))
        << committed << sample.holds(sample.before) << sample.isNew();
    if (sample.isOld()) {
        ASSERT_NE(JournalReader().open(sample.files, undoCopyPath(sample.undo.path)), JournalState::whole);
    }
    if (sample.isOld() || !sample.undo.keep) return;
    ASSERT_TRUE(sample.undoThere());

    sample.machine.heal();
    sample.machine.cutAt = sample.machine.below(uncut.machine.calls);
    const bool undone = sample.takeBack() == UndoOutcome::done;
    sample.reboot();
    ASSERT_NO_FATAL_FAILURE(recoverThroughCuts(sample));
    ASSERT_TRUE(sample.isOld() || (!undone && sample.isNew()));
    if (sample.isOld()) return;
    ASSERT_EQ(sample.takeBack(), UndoOutcome::done) << sample.problem.text;
    ASSERT_TRUE(sample.isOld());
}

TEST(Transaction, PowerCutLeavesOldOrNew) {
    const uint64_t cuts = fromEnvironment("QUILLET_CUTS", 200);
    const uint64_t first = fromEnvironment("QUILLET_SEED", std::random_device{}());
    for (uint64_t seed = first; seed < first + cuts; ++seed) {
        cutOnce(seed);
        if (HasFatalFailure()) FAIL() << "QUILLET_CUTS=1 QUILLET_SEED=" << seed;
    }
}

/* After a failure the disks are to be put right with what is there. */
void recoverAfter(Sample& sample, const std::string& said) {
    sample.soundMedia();
    ASSERT_GE(sample.recover(), 0) << sample.problem.text << "\nafter " << said;
    ASSERT_FALSE(sample.files.anyEnding("-journal"));
}

/* A failure at a call is told, and the disks are old, new, or to be put right. */
void commitFails(Sample& sample, const Failure& failure) {
    sample.machine.fail(failure);
    const NTSTATUS status = sample.commit();
    const std::string said = sample.problem.text;
    if (status >= 0 || sample.report.committed) {
        ASSERT_TRUE(sample.isNew());
        return;
    }
    const bool unchanged = said.find("nothing was changed") != std::string::npos;
    ASSERT_TRUE(!unchanged || sample.isOld()) << said; /* where nothing could be put back, it may be old */
    ASSERT_EQ(said.find('/'), 0u) << said;
    ASSERT_NO_FATAL_FAILURE(recoverAfter(sample, said));
    ASSERT_TRUE(sample.isOld()) << said;
}

void undoFails(Sample& sample, const Failure& failure) {
    sample.undo.keep = true;
    ASSERT_GE(sample.commit(), 0);
    sample.machine.fail(failure);
    const UndoOutcome outcome = sample.takeBack();
    const std::string said = sample.problem.text;
    ASSERT_NE(outcome, UndoOutcome::nothing);
    ASSERT_TRUE(outcome == UndoOutcome::done ? sample.isOld() : !said.empty()) << said;
    ASSERT_NO_FATAL_FAILURE(recoverAfter(sample, said));
    if (!sample.isOld()) {
        ASSERT_EQ(sample.takeBack(), UndoOutcome::done) << sample.problem.text;
    }
    ASSERT_TRUE(sample.isOld());
}

TEST(Transaction, FailureAtEachCall) {
    const uint64_t seed = fromEnvironment("QUILLET_SEED", std::random_device{}());
    for (const auto& [error, on] : {std::pair{EIO, false}, {EIO, true}, {ENOSPC, false}}) {
        for (const auto fails : {commitFails, undoFails}) {
            for (uint64_t call = 0;; ++call) {
                Sample sample(seed, 2);
                fails(sample, {call, on, error});
                if (HasFatalFailure()) {
                    FAIL() << "QUILLET_SEED=" << seed << " error " << error << " at call " << call
                           << (on ? " and on" : "");
                }
                if (!sample.machine.failed) break;
            }
        }
    }
}

/* The journal's room is told to the byte before anything is written. */
TEST(Transaction, NoRoomForTheJournal) {
    Sample sample(7, 2);
    sample.undo.keep = false;
    sample.files.roomLeft = 100;
    ASSERT_EQ(sample.commit(), STATUS_DISK_FULL);
    const std::string said = sample.problem.text;
    ASSERT_TRUE(sample.isOld());
    ASSERT_TRUE(sample.files.now.empty());
    const uint64_t needed = strtoull(said.c_str() + said.find("needs ") + 6, nullptr, 10);
    sample.files.roomLeft = needed - 1;
    ASSERT_EQ(sample.commit(), STATUS_DISK_FULL) << said;
    sample.files.roomLeft = needed + 4096; /* the pointer */
    ASSERT_EQ(sample.commit(), STATUS_SUCCESS) << said;
    ASSERT_EQ(sample.report.journalLength, needed);
}

/* What has no room was not written, and need not be written back. */
TEST(Transaction, NoRoomOnTheDisks) {
    NTSTATUS status = STATUS_DISK_FULL;
    for (uint64_t room = 0; status < 0; ++room) {
        SCOPED_TRACE(room);
        Sample sample(9, 2);
        for (MachineDisk& disk : sample.disks) disk.roomLeft = room;
        status = sample.commit();
        if (status >= 0) break;
        ASSERT_EQ(status, STATUS_DISK_FULL) << sample.problem.text;
        ASSERT_NE(sample.problem.text.find("nothing was changed"), std::string::npos) << sample.problem.text;
        ASSERT_TRUE(sample.isOld());
        ASSERT_FALSE(sample.files.anyEnding("-journal"));
    }
}

/* Scratch disks hold all of the run, or it is told that they do not; their last unit may be a short one. */
TEST(Transaction, ScratchDisks) {
    for (uint64_t seed = 0; seed < 40; ++seed) {
        Sample sample(seed, 2);
        if (seed % 2 == 1) sample.machine.fail({sample.machine.below(12)});
        const bool failed = commitScratch(sample.system, sample.report, sample.problem) < 0;
        EXPECT_EQ(failed, sample.machine.failed) << seed;
        EXPECT_EQ(sample.report.committed, !failed);
        sample.reboot();
        EXPECT_TRUE(failed || sample.holds(sample.after)) << seed;
    }
}

TEST(Transaction, NothingDiffers) {
    Sample sample(3, 2);
    for (size_t number = 0; number < 2; ++number) {
        ASSERT_EQ(sample.system[number].overlay->write(0, sample.before[number]), 0);
    }
    ASSERT_EQ(sample.commit(), STATUS_SUCCESS);
    EXPECT_TRUE(sample.isOld());
    EXPECT_TRUE(sample.files.now.empty());
}

/* What must not be committed is refused with one line about the disk, and nothing is written. */
TEST(Transaction, Refusals) {
    const std::vector<std::pair<const char*, std::function<void(Sample&)>>> rows = {
        {"identity", [](Sample& sample) { sample.write(0, 100, 9); }},
        {"mark that is there", [](Sample& sample) { sample.marks[0].bytes[70] ^= 1; }},
        {"mark off the sectors", [](Sample& sample) { sample.marks[0].offset += 1; }},
        {"mark off the disk", [](Sample& sample) { sample.marks[0].offset = UINT64_MAX / 512 * 512; }},
        {"undo file is there",
         [](Sample& sample) {
             sample.undo = {true, "/b/mine"};
             sample.files.now["/b/mine"] = std::make_shared<Medium>();
         }},
        {"journal in the way",
         [](Sample& sample) { sample.files.now["/a/disk0.quillet-journal"] = std::make_shared<Medium>(); }},
        {"pointer in the way",
         [](Sample& sample) { sample.files.now["/b/disk1.quillet-journal"] = std::make_shared<Medium>(); }},
    };
    for (const auto& [name, spoil] : rows) {
        SCOPED_TRACE(name);
        Sample sample(11, 2);
        spoil(sample);
        const auto files = sample.files.now;
        EXPECT_LT(sample.commit(), 0);
        EXPECT_NE(sample.problem.text.find("nothing was changed"), std::string::npos) << sample.problem.text;
        EXPECT_TRUE(sample.isOld());
        EXPECT_EQ(sample.files.now, files);
    }
}

/* Ten runs, and back through all their states; nothing that was there before is lost on the way. */
TEST(Undo, RunAfterRun) {
    Sample sample(5, 2);
    std::vector<std::vector<ByteVector>> states;
    for (int run = 0; run < 10; ++run) {
        states.push_back({sample.disks.front().medium.now, sample.disks.back().medium.now});
        sample.overlays.clear();
        for (TransactionDisk& disk : sample.system) {
            disk.overlay = &sample.overlays.emplace_back(*disk.device, "/tmp");
        }
        for (size_t number : {0u, 1u}) sample.write(number, 8192 + sample.machine.below(50000), 5000);
        sample.undo = {true, ""};
        ASSERT_EQ(sample.commit(), STATUS_SUCCESS) << sample.problem.text;
        std::swap(sample.system[0], sample.system[1]); /* their order is free */
        for (DirtyMark& mark : sample.marks) mark.disk ^= 1;
    }
    for (; !states.empty(); states.pop_back()) {
        ASSERT_EQ(sample.takeBack(), UndoOutcome::done) << sample.problem.text;
        ASSERT_TRUE(sample.holds(states.back()));
    }
    EXPECT_TRUE(sample.isOld());
    EXPECT_EQ(sample.takeBack(), UndoOutcome::nothing);
    EXPECT_TRUE(sample.files.now.empty());
}

/* A disk that is not as the run left it, and a system that is not whole. */
TEST(Undo, Refusals) {
    Sample sample(13, 2);
    sample.undo = {true, ""};
    ASSERT_EQ(sample.commit(), STATUS_SUCCESS);
    const auto files = sample.files.now;
    const auto refused = [&](const char* why) {
        const ByteVector first = sample.disks.front().medium.now;
        EXPECT_EQ(sample.takeBack(), UndoOutcome::refused) << why;
        EXPECT_NE(sample.problem.text.find(why), std::string::npos) << sample.problem.text;
        EXPECT_EQ(sample.disks.front().medium.now, first);
        EXPECT_EQ(sample.files.now, files);
    };
    const TransactionDisk second = sample.system.back();
    sample.system.pop_back();
    refused("/b/disk1");
    sample.system.insert(sample.system.begin(), second);
    uint8_t& changed = sample.disks.front().medium.now[8192];
    changed ^= 1;
    refused(": 1 of ");
    changed ^= 1;
    uint8_t& identity = sample.disks.back().medium.now[8191];
    identity ^= 1;
    refused("another disk");
    identity ^= 1;
    EXPECT_EQ(sample.takeBack(), UndoOutcome::done) << sample.problem.text;
    EXPECT_TRUE(sample.isOld());
}

/* A disk of a system whose commit was cut off is not used without the others; a pointer to nothing is no
 * hindrance. */
TEST(Recovery, Pointers) {
    const std::unique_ptr<Sample> cut = cutHalfway(17, 2);
    Sample& sample = *cut;
    const JournalPlace place = sample.system[1].place;
    const std::vector<TransactionDisk> whole = sample.system;
    std::string path;
    EXPECT_EQ(commitStateOf(sample.files, place, path), CommitState::cutOff);
    EXPECT_EQ(path, "/a/disk0.quillet-journal");
    sample.system = {whole[1]};
    EXPECT_LT(sample.recover(), 0);
    sample.system = {whole[0]};
    EXPECT_LT(sample.recover(), 0);
    EXPECT_NE(sample.problem.text.find("/b/disk1"), std::string::npos) << sample.problem.text;
    const MachineFiles::File journal = sample.files.now.extract("/a/disk0.quillet-journal").mapped();
    sample.files.hidden = "/a";
    sample.system = {whole[1]};
    EXPECT_EQ(commitStateOf(sample.files, place, path), CommitState::forRefusal);
    EXPECT_LT(sample.recover(), 0);
    sample.files.hidden = "";
    sample.files.now["/a/disk0.quillet-journal"] = journal;
    sample.system = whole;
    EXPECT_GE(sample.recover(), 0) << sample.problem.text;
    EXPECT_TRUE(sample.isOld());
    EXPECT_TRUE(sample.files.now.empty());
}

}  // namespace
}  // namespace offline::test
