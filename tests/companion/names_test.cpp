/* What a disk is called, what is written on it, and whether it may be changed, as the program shows it. */
#include "tests/companion/program.h"

namespace {

struct Names : PracticeTest {};

TEST_F(Names, ADiskIsNamedOnce) {
    for (const std::string command : {"info", "audit"}) {
        const Outcome outcome = quilletOffline({command, "a.img", "a.img"});
        EXPECT_EQ(outcome.status, 2);
        EXPECT_TRUE(isOneLine(outcome.err) && outcome.err.find("twice") != std::string::npos) << outcome.err;
    }
    const Outcome outcome = quilletOffline({"run", "a.img", "a.img", "--", "-s"});
    EXPECT_NE(outcome.status, 0);
    EXPECT_NE(outcome.err.find("a.img: is named twice"), std::string::npos) << outcome.err;
}

TEST_F(Names, WhoeverTookThePermissionToWriteMeantIt) {
    const std::string first = "disk        a.img, 48.0 MiB, raw, no partition table";
    EXPECT_EQ(quilletOffline({"info", "a.img"}).out.rfind(first + "\n", 0), 0u);
    std::filesystem::permissions(path("a.img"), std::filesystem::perms::owner_read);
    const Outcome outcome = quilletOffline({"info", "a.img"});
    EXPECT_EQ(outcome.out.rfind(first + ", read-only\n", 0), 0u);
    EXPECT_NE(outcome.out.find("machine SID S-1-5-21-"), std::string::npos);
    EXPECT_NE(outcome.out.find("usable      no\n"), std::string::npos);
    EXPECT_EQ(outcome.status, 2);
    EXPECT_TRUE(isOneLine(outcome.err) && outcome.err.find("can only be read") != std::string::npos);
    EXPECT_EQ(quilletOffline({"audit", "a.img"}).status, 1);
}

TEST_F(Names, TextOnTheDiskStaysOnItsLine) {
    const std::u16string name = u"Windows practice system", evil = u"Windows\nhive \x1B[2Jsystem";
    std::string bytes = contentsOf(path("a.img"));
    const auto raw = [](const std::u16string& text) {
        return std::string(reinterpret_cast<const char*>(text.data()), text.size() * sizeof(char16_t));
    };
    const size_t at = bytes.find(raw(name));
    ASSERT_NE(at, std::string::npos);
    ASSERT_EQ(name.size(), evil.size());
    writeFile(path("a.img"), bytes.replace(at, raw(evil).size(), raw(evil)));
    const Outcome outcome = quilletOffline({"info", "a.img"});
    EXPECT_NE(outcome.out.find("product     Windows<U+000A>hive <U+001B>[2Jsystem\n"), std::string::npos)
        << outcome.out;
}

} /* namespace */
