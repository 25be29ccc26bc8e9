/* What programs that know nothing of this project say of a practice installation. */
#include "tests/companion/program.h"

namespace {

struct Checkers : ProgramTest {
    void SetUp() override { ASSERT_EQ(quilletOffline({"sample", "a.img"}).status, 0); }
};

std::filesystem::path sharedTools() {
    const char* shared = getenv("QUILLET_SHARED");
    if (shared != nullptr && *shared != 0) return std::filesystem::path(shared) / "tools";
    return std::filesystem::path(QUILLET_SOURCE_DIR) / ".." / "shared" / "tools";
}

TEST_F(Checkers, TheSecurityStreamIsWhole) {
    const Outcome audit = start("ntfssecaudit", {"-ar", "a.img"});
    if (audit.status == 127) GTEST_SKIP() << "no ntfssecaudit here";
    EXPECT_NE((audit.out + audit.err).find("All keys are present in all lists"), std::string::npos);
}

TEST_F(Checkers, EveryHiveIsSound) {
    const std::filesystem::path tools = sharedTools();
    if (!exists(tools / "hivecheck") || start("cc", {"--version"}).status != 0) {
        GTEST_SKIP() << "no hivecheck in " << tools << ", or no C compiler";
    }
    const Outcome built = start("cc", {"-O1", "-o", "ntfstool", tools / "ntfstool.c", "-lntfs-3g"});
    ASSERT_EQ(built.status, 0) << built.err;
    const std::string profiles = "/Windows/ServiceProfiles/";
    std::vector<std::string> hives = {profiles + "LocalService/ntuser.dat",
                                      profiles + "NetworkService/ntuser.dat", "/Users/alice/NTUSER.DAT",
                                      "/Users/bob/NTUSER.DAT"};
    for (const std::string name : {"SAM", "SECURITY", "SOFTWARE", "SYSTEM", "DEFAULT"}) {
        hives.push_back("/Windows/System32/config/" + name);
    }
    for (const std::string& hive : hives) {
        const Outcome contents = start(path("ntfstool"), {"cat", "a.img", hive});
        ASSERT_EQ(contents.status, 0) << contents.err;
        writeFile(path("hive"), contents.out);
        const Outcome checked = start(tools / "hivecheck", {"hive"});
        EXPECT_EQ(checked.status, 0) << hive << ": " << checked.out << checked.err;
    }
}

} /* namespace */
