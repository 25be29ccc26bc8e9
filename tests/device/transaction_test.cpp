/* Whatever happens during a commit, a recovery or an undo, the disks are old or new. */
#include <gtest/gtest.h>

#include <cstdlib>

#include "tests/device/sample.h"

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
    ASSERT_NO_FATAL_FAILURE(recoverThroughCuts(sample));
    ASSERT_TRUE(sample.isNew() || (!committed && sample.isOld())) << committed << sample.holds(sample.before) << sample.isNew();
    if (sample.isOld() || !sample.undo.keep) return;
    ASSERT_TRUE(sample.undoThere());

    if (sample.files.anyEnding(".part")) sample.undo.path += ".part";
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

/* A failure at the call: told, and the disks old, new, or to be put right with what is there. */
void commitFails(uint64_t seed, uint64_t call, int error, bool on, bool& reached) {
    Sample sample(seed, 2);
    sample.machine.heal();
    sample.machine.failAt = call;
    sample.machine.failOn = on;
    sample.machine.failWith = error;
    const NTSTATUS status = sample.commit();
    reached = sample.machine.calls > call;
    const std::string said = sample.problem.text;
    if (status >= 0 || sample.report.committed) {
        ASSERT_TRUE(sample.isNew());
        return;
    }
    const bool unchanged = said.find("nothing was changed") != std::string::npos;
    ASSERT_EQ(unchanged, sample.isOld()) << said;
    ASSERT_EQ(said.find('/'), 0u) << said;
    sample.soundMedia();
    ASSERT_GE(sample.recover(), 0) << sample.problem.text << "\nafter " << said;
    ASSERT_TRUE(sample.isOld()) << said;
    ASSERT_FALSE(sample.files.anyEnding("-journal"));
}

void undoFails(uint64_t seed, uint64_t call, int error, bool on, bool& reached) {
    Sample sample(seed, 2);
    sample.undo.keep = true;
    sample.machine.heal();
    ASSERT_GE(sample.commit(), 0);
    sample.machine.heal();
    sample.machine.failAt = call;
    sample.machine.failOn = on;
    sample.machine.failWith = error;
    const UndoOutcome outcome = sample.takeBack();
    reached = sample.machine.calls > call;
    const std::string said = sample.problem.text;
    ASSERT_NE(outcome, UndoOutcome::nothing);
    ASSERT_TRUE(outcome == UndoOutcome::done ? sample.isOld() : !said.empty()) << said;
    sample.soundMedia();
    ASSERT_GE(sample.recover(), 0) << sample.problem.text << "\nafter " << said;
    if (!sample.isOld()) {
        ASSERT_EQ(sample.takeBack(), UndoOutcome::done) << sample.problem.text;
    }
    ASSERT_TRUE(sample.isOld());
    ASSERT_FALSE(sample.files.anyEnding("-journal"));
}

TEST(Transaction, FailureAtEachCall) {
    const uint64_t seed = fromEnvironment("QUILLET_SEED", std::random_device{}());
    for (const auto& [error, on] : {std::pair{EIO, false}, {EIO, true}, {ENOSPC, false}, {ENOSPC, true}}) {
        for (const auto fails : {commitFails, undoFails}) {
            bool reached = true;
            for (uint64_t call = 0; reached; ++call) {
                fails(seed, call, error, on, reached);
                if (HasFatalFailure()) {
                    FAIL() << "QUILLET_SEED=" << seed << " error " << error << " at call " << call << (on ? " and on" : "");
                }
            }
        }
    }
}

}  // namespace
}  // namespace offline::test
