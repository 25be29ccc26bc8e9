/* Starting quillet on disks. */
#include "tests/companion/program.h"

namespace {

struct Run : ProgramTest {
    std::string program;

    /* A copy, so that what lies beside it is the test's. */
    void SetUp() override {
        program = path("quillet-offline");
        std::filesystem::copy_file(QUILLET_OFFLINE_PROGRAM, program);
    }

    void makeQuillet(const std::filesystem::path& where, const std::string& script) const {
        std::filesystem::create_directories(where);
        writeFile(where / "quillet", "#!/bin/sh\n" + script);
        std::filesystem::permissions(where / "quillet", std::filesystem::perms::owner_all);
    }
};

TEST_F(Run, PassesDisksOptionsAndTheExitStatus) {
    makeQuillet(directory, "echo beside $QUILLET_SYSTEM; for a; do echo \"[$a]\"; done; exit 7\n");
    const Outcome outcome = start(program, {"run", "one.img", "sub/two.img", "--", "-s", "", "--help", "--"});
    EXPECT_EQ(outcome.status, 7);
    EXPECT_EQ(outcome.out, "beside one.img:sub/two.img\n[-s]\n[]\n[--help]\n[--]\n");
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(start(program, {"run", "one.img"}).out, "beside one.img\n");
}

TEST_F(Run, FallsBackToPath) {
    makeQuillet(path("bin"), "echo on the path\n");
    const char* const set = getenv("PATH");
    const std::string before = set == nullptr ? "" : set;
    setenv("PATH", path("bin").c_str(), 1);
    const Outcome found = start(program, {"run", "a.img"});
    std::filesystem::remove(path("bin/quillet"));
    const Outcome missing = start(program, {"run", "a.img"});
    setenv("PATH", before.c_str(), 1);
    EXPECT_EQ(found.out, "on the path\n") << found.err;
    EXPECT_EQ(missing.status, 2);
    EXPECT_TRUE(isOneLine(missing.err)) << missing.err;
}

TEST_F(Run, PassesOnWhateverNamesADisk) {
    makeQuillet(directory, "printf '%s %s' \"$QUILLET_SYSTEM\" \"$QUILLET_FORMAT\"\n");
    const Outcome passed = start(program, {"run", "--format", "auto,vpc", "a:b.img", "c\\.img"});
    EXPECT_EQ(passed.out, "a\\:b.img:c\\\\.img auto,vpc") << passed.err;
    for (const std::vector<std::string>& wrong :
         {std::vector<std::string>{"run", "good.img", ""}, {"run", "--format", "raw,raw", "good.img"}}) {
        const Outcome outcome = start(program, wrong);
        EXPECT_EQ(outcome.status, 2);
        EXPECT_EQ(outcome.out, "");
        EXPECT_TRUE(isOneLine(outcome.err)) << outcome.err;
    }
    const Outcome option = start(program, {"run", "good.img", "-s"});
    EXPECT_EQ(option.status, 2);
    EXPECT_EQ(option.out, "");
}

} /* namespace */
