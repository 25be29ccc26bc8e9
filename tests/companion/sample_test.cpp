/* Practice installations: what is on them, and what is refused. */
#include <map>
#include <set>

#include "platform/offline/hive/hive.h"
#include "platform/offline/hive/hive_paths.h"
#include "tests/companion/program.h"

namespace {

using offline::FileRef;

struct Sample : ProgramTest {};

std::vector<uint8_t> bytesAt(const std::string& image, size_t at, size_t count) {
    return {image.begin() + static_cast<ptrdiff_t>(at), image.begin() + static_cast<ptrdiff_t>(at + count)};
}

/* What the SYSTEM hive remembers drive C to be. */
std::vector<uint8_t> rememberedDrive(const OpenImage& image) {
    offline::HivePtr hive;
    offline::Problem problem;
    EXPECT_GE(offline::hiveOpen(image.read(configDirectory + u"SYSTEM"), hive, problem), 0) << problem.text;
    offline::Cell key;
    offline::HiveValue value;
    EXPECT_GE(offline::hiveFindPath(*hive, u"MountedDevices", key), 0);
    if (offline::hiveFindValue(*hive, key, u"\\DosDevices\\C:", value) < 0) return {};
    std::vector<uint8_t> data(value.dataLength);
    offline::hiveValueData(*hive, value, data);
    return data;
}

struct Walk {
    size_t entries = 1;
    size_t deepest = 0;
    std::set<std::vector<uint8_t>> descriptors = {};
    std::set<FileRef> files = {};
};

void walk(const OpenImage& image, Walk& seen) {
    std::vector<std::pair<FileRef, size_t>> left = {{offline::rootDirectory, 0}};
    while (!left.empty()) {
        const auto [directory, depth] = left.back();
        left.pop_back();
        seen.deepest = std::max(seen.deepest, depth);
        offline::DirectoryListing listing;
        ASSERT_GE(offline::volumeList(*image.volume, directory, listing), 0);
        for (const offline::DirectoryEntry& entry : listing.entries) {
            std::span<const uint8_t> descriptor;
            ASSERT_GE(offline::volumeDescriptor(*image.volume, entry.file, descriptor), 0);
            seen.descriptors.emplace(descriptor.begin(), descriptor.end());
            seen.files.insert(entry.file);
            seen.entries++;
            if (entry.directory && !entry.reparse) left.emplace_back(entry.file, depth + 1);
        }
    }
}

TEST_F(Sample, RemembersItsDriveByTheTableOnTheDisk) {
    for (const std::string table : {"none", "mbr", "gpt"}) {
        std::vector<std::string> arguments = {"sample", table + ".img", "--machine", practiceSid};
        if (table != "none") arguments.insert(arguments.end(), {"--whole-disk", table});
        const Outcome made = quilletOffline(arguments);
        ASSERT_EQ(made.status, 0) << made.err;
        EXPECT_EQ(made.out.rfind(table + ".img: machine SID S-1-5-21-1111-2222-3333, ", 0), 0u) << made.out;
        EXPECT_EQ(made.err, "");

        const Outcome info = quilletOffline({"info", table + ".img"});
        EXPECT_EQ(info.status, 0) << info.err;
        EXPECT_EQ(info.err, "");
        for (const std::string& part :
             {practiceSid + "\n", std::string("C:\\Windows\n"), std::string("Windows practice system"),
              std::string("volume      C:")}) {
            EXPECT_NE(info.out.find(part), std::string::npos) << part << info.out;
        }

        const std::string disk = contentsOf(path(table + ".img"));
        std::vector<uint8_t> expected;
        if (table == "mbr") {
            expected = bytesAt(disk, 440, 4);
            expected.insert(expected.end(), {0, 0, 0x10, 0, 0, 0, 0, 0}); /* 1 MiB */
        } else if (table == "gpt") {
            const std::string tag = "DMIO:ID:";
            expected.assign(tag.begin(), tag.end());
            const std::vector<uint8_t> guid = bytesAt(disk, 2 * 512 + 16, 16);
            expected.insert(expected.end(), guid.begin(), guid.end());
        }
        EXPECT_EQ(rememberedDrive(OpenImage(path(table + ".img"))), expected) << table;
    }
}

TEST_F(Sample, HoldsWhatWasAskedForAndOddThings) {
    const Outcome made = quilletOffline({"sample", "a.img", "--files", "90", "--descriptors", "40"});
    ASSERT_EQ(made.status, 0) << made.err;
    OpenImage image(path("a.img"));
    Walk seen;
    walk(image, seen);
    EXPECT_NE(made.out.find(" " + std::to_string(seen.entries) + " entries"), std::string::npos) << made.out;
    EXPECT_GE(seen.descriptors.size(), 40u);
    EXPECT_GT(seen.deepest, 60u);
    EXPECT_EQ(seen.files.size(), seen.entries - 2); /* the root is in no directory, one file in two */
    EXPECT_EQ(image.find(u"Users\\alice\\Documents\\one.txt"), image.find(u"Users\\bob\\Documents\\two.txt"));
    offline::FileInfo junction;
    const FileRef file = image.find(u"Users\\alice\\My Windows");
    ASSERT_GE(offline::volumeFileInfo(*image.volume, file, junction), 0);
    EXPECT_EQ(junction.reparseTag, 0xA0000003u);
}

TEST_F(Sample, IsTheSameForTheSameMachineAndElseNot) {
    for (const char* name : {"a.img", "b.img"}) {
        ASSERT_EQ(quilletOffline({"sample", name, "--machine", practiceSid, "--files", "0"}).status, 0);
    }
    ASSERT_EQ(quilletOffline({"sample", "c.img", "--files", "0"}).status, 0);
    const OpenImage a(path("a.img")), b(path("b.img")), c(path("c.img"));
    for (const char16_t* name : {u"SAM", u"SECURITY", u"SOFTWARE", u"SYSTEM"}) {
        const std::vector<uint8_t> hive = a.read(configDirectory + name);
        EXPECT_EQ(hive, b.read(configDirectory + name));
        EXPECT_NE(hive, c.read(configDirectory + name));
    }
}

TEST_F(Sample, ReplacesNothingUnasked) {
    writeFile(path("there"), "precious");
    std::filesystem::create_symlink("there", path("link"));
    std::filesystem::create_directory(path("directory"));
    const std::vector<std::string> before = files();
    for (const std::vector<std::string>& arguments :
         std::vector<std::vector<std::string>>{{"sample", "there"},
                                               {"sample", "link", "--force"},
                                               {"sample", "directory", "--force"},
                                               {"sample", "/dev/null", "--force"},
                                               {"sample", "nowhere/a.img"},
                                               {"sample", ""},
                                               {"sample", "new", "--size", "33M", "--files", "60000"}}) {
        const Outcome outcome = quilletOffline(arguments);
        EXPECT_EQ(outcome.status, 2) << arguments[1];
        EXPECT_TRUE(isOneLine(outcome.err)) << outcome.err;
        EXPECT_EQ(outcome.out, "");
    }
    /* A limit on files' sizes is an error like others, not the program's end. */
    const Outcome limited =
        start("sh", {"-c", "ulimit -f 1000; exec " QUILLET_OFFLINE_PROGRAM " sample new --size 32M"});
    EXPECT_EQ(limited.status, 2);
    EXPECT_TRUE(isOneLine(limited.err)) << limited.err;
    EXPECT_EQ(files(), before); /* nothing half made is left */
    EXPECT_EQ(contentsOf(path("there")), "precious");

    offline::DiskPtr inUse;
    offline::Problem problem;
    ASSERT_GE(offline::diskOpen(path("there"), offline::DiskAccess::readWrite, inUse, problem), 0);
    EXPECT_EQ(quilletOffline({"sample", "there", "--force"}).status, 2);
    EXPECT_EQ(contentsOf(path("there")), "precious");
    inUse.reset();
    EXPECT_EQ(quilletOffline({"sample", "there", "--force", "--size", "32M"}).status, 0);
    EXPECT_EQ(std::filesystem::file_size(path("there")), 32u << 20);
    EXPECT_EQ(files(), before);
}

TEST_F(Sample, UsageErrorsAreOneLine) {
    for (const std::vector<std::string>& arguments :
         std::vector<std::vector<std::string>>{{},
                                               {"destroy"},
                                               {"sample"},
                                               {"info"},
                                               {"run"},
                                               {"sample", "x", "--size", "1M"},
                                               {"sample", "x", "--size", "much"},
                                               {"sample", "x", "--whole-disk", "dos"},
                                               {"sample", "x", "--machine", "S-1-5-18"},
                                               {"sample", "x", "--machine", "S-1-5-21-1-2-3-500"},
                                               {"sample", "x", "--descriptors", "0"},
                                               {"info", "x", "--", "y"}}) {
        const Outcome outcome = quilletOffline(arguments);
        EXPECT_EQ(outcome.status, 2) << testing::PrintToString(arguments);
        EXPECT_TRUE(isOneLine(outcome.err)) << outcome.err;
    }
    EXPECT_TRUE(files().empty());
    for (const std::vector<std::string>& arguments :
         std::vector<std::vector<std::string>>{{"--help"}, {"sample", "--help"}, {"run", "-h"}}) {
        const Outcome help = quilletOffline(arguments);
        EXPECT_EQ(help.status, 0);
        EXPECT_NE(help.out.find("Examples:"), std::string::npos) << help.out;
    }
    EXPECT_EQ(quilletOffline({"--version"}).out.rfind("quillet-offline ", 0), 0u);
}

} /* namespace */
