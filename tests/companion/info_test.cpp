/* Looking at systems that are broken in some way: what can be seen is shown, and nothing is written. */
#include <sys/resource.h>

#include <cstring>
#include <fstream>

#include "platform/offline/hive/hive.h"
#include "tests/companion/program.h"

namespace {

struct Info : PracticeTest {
    Outcome info() const { return look({"info", "a.img"}); }
};

/* The line of the output that ends in or contains a text. */
std::string lineWith(const std::string& out, const std::string& text) {
    const size_t at = out.find(text);
    if (at == std::string::npos) return "";
    const size_t start = out.rfind('\n', at) + 1;
    return out.substr(start, out.find('\n', at) - start);
}

TEST_F(Info, RefusesWhatIsNoDisk) {
    writeFile(path("empty"), "");
    writeFile(path("text"), std::string(100000, 'x'));
    for (const std::string name : {"missing", ".", "empty", "text", "/dev/null"}) {
        for (const std::vector<std::string>& arguments :
             std::vector<std::vector<std::string>>{{"info", name}, {"info", "a.img", name}}) {
            const Outcome outcome = quilletOffline(arguments);
            EXPECT_EQ(outcome.status, 2) << name;
            EXPECT_TRUE(isOneLine(outcome.err)) << outcome.err;
            EXPECT_NE(outcome.err.find(name), std::string::npos) << outcome.err;
            EXPECT_EQ(outcome.out.find(practiceSid) != std::string::npos, arguments.size() == 3);
        }
    }
}

TEST_F(Info, ShowsTheRestBesideABrokenHive) {
    OpenImage open(image, offline::DiskAccess::readWrite);
    open.write(configDirectory + u"SECURITY", 0, {'x'});    /* no hive at all */
    open.write(configDirectory + u"SOFTWARE", 4096, {'x'}); /* no bins */
    open.write(u"Users\\bob\\NTUSER.DAT", 4096 + 32, {1});  /* no cells */
    open.close();
    const Outcome outcome = info();
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 3) << outcome.err;
    for (const std::string name : {"config\\SECURITY", "config\\SOFTWARE", "bob\\NTUSER.DAT"}) {
        EXPECT_NE(lineWith(outcome.out, name).find("damaged"), std::string::npos) << outcome.out;
        EXPECT_NE(outcome.err.find(name), std::string::npos) << outcome.err;
    }
    for (const std::string name : {"config\\SAM", "config\\SYSTEM", "alice\\NTUSER.DAT"}) {
        EXPECT_NE(lineWith(outcome.out, name).find("clean"), std::string::npos) << outcome.out;
    }
    EXPECT_NE(outcome.out.find("machine SID " + practiceSid), std::string::npos);
}

TEST_F(Info, TellsDirtyHivesAndMissingOnes) {
    OpenImage open(image, offline::DiskAccess::readWrite);
    const std::u16string sam = configDirectory + u"SAM";
    std::vector<uint8_t> base = open.read(sam);
    base.resize(512);
    base[4]++; /* the primary sequence number, and what it changes in the checksum */
    base[508] = static_cast<uint8_t>(base[508] ^ base[4] ^ static_cast<uint8_t>(base[4] - 1));
    open.write(sam, 0, base);
    open.write(u"Users\\bob\\NTUSER.DAT", 0, {'x'});
    open.write(u"Windows\\ServiceProfiles\\LocalService\\NTUSER.DAT", 0, {'x'});
    open.close();
    const Outcome outcome = info();
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 3) << outcome.err;
    /* A run leaves a user's hive as it is, but does not start without that of a service. */
    EXPECT_NE(lineWith(outcome.err, "bob").find("leaves this user's hive"), std::string::npos) << outcome.err;
    EXPECT_EQ(lineWith(outcome.err, "LocalService").find("leaves"), std::string::npos) << outcome.err;
    EXPECT_NE(lineWith(outcome.out, "config\\SAM").find("dirty"), std::string::npos) << outcome.out;
    EXPECT_NE(lineWith(outcome.out, "machine SID").find("unknown"), std::string::npos) << outcome.out;
    EXPECT_NE(lineWith(outcome.out, "Users\\gone").find("missing"), std::string::npos) << outcome.out;
}

/* The account value with offsets and lengths that lead out of it, or to something else. */
TEST_F(Info, BelievesNoOffsetInTheAccounts) {
    const std::u16string sam = configDirectory + u"SAM";
    const std::vector<uint8_t> original = OpenImage(image).read(sam);
    const uint8_t sid[] = {1, 4, 0, 0, 0, 0, 0, 5, 21, 0, 0, 0, 0x57, 4, 0, 0};
    const auto found = std::search(original.begin(), original.end(), std::begin(sid), std::end(sid));
    ASSERT_NE(found, original.end());
    /* the header lies before the descriptor, whose size is the SID's offset */
    const auto sidOffset = static_cast<size_t>(found - original.begin());
    size_t header = 0;
    for (size_t at = sidOffset - 48; at > 4096 && header == 0; at -= 4) {
        uint32_t offset, length;
        memcpy(&offset, &original[at + 12], 4);
        memcpy(&length, &original[at + 16], 4);
        if (length == 24 && at + 48 + offset == sidOffset) header = at;
    }
    ASSERT_NE(header, 0u);
    for (const auto& [at, number] : {std::pair<size_t, uint32_t>{header + 12, 0xFFFFFFF0},
                                     {header + 12, 0x100000},
                                     {header + 12, 0},
                                     {header + 16, 0xFFFFFFFF},
                                     {header + 16, 28},
                                     {sidOffset, 0x0F01}}) {
        std::vector<uint8_t> bytes = original;
        memcpy(&bytes[at], &number, sizeof number);
        OpenImage open(image, offline::DiskAccess::readWrite);
        open.write(sam, 0, bytes);
        open.close();
        const Outcome outcome = info();
        EXPECT_EQ(outcome.status, 2);
        EXPECT_TRUE(isOneLine(outcome.err)) << outcome.err;
        EXPECT_NE(lineWith(outcome.out, "machine SID").find("unknown"), std::string::npos) << outcome.out;
    }
}

TEST_F(Info, ShowsARefusedVolumeOfADisk) {
    OpenImage open(image, offline::DiskAccess::readWrite);
    open.write(u"Windows\\win.ini", 0, {'x'});
    const std::vector<offline::DirtyMark> marks = offline::diskMarks(*open.disk);
    open.close();
    std::fstream file(image, std::ios::in | std::ios::out | std::ios::binary);
    for (const offline::DirtyMark& mark : marks) { /* as if a commit had ended here */
        file.seekp(static_cast<std::streamoff>(mark.offset));
        file.write(reinterpret_cast<const char*>(mark.bytes.data()), std::ssize(mark.bytes));
    }
    file.close();
    const Outcome outcome = info();
    EXPECT_EQ(outcome.status, 2);
    EXPECT_TRUE(isOneLine(outcome.err)) << outcome.err;
    EXPECT_NE(lineWith(outcome.out, "volume").find("can't be used"), std::string::npos) << outcome.out;
    EXPECT_NE(lineWith(outcome.out, "disk").find("a.img"), std::string::npos) << outcome.out;
}

/* The file of a hive in a vector. */
struct MemoryStore : offline::HiveStore {
    std::vector<uint8_t> bytes;
    NTSTATUS beginChange() override { return STATUS_SUCCESS; }
    NTSTATUS write(uint64_t offset, std::span<const uint8_t> part) override {
        std::copy(part.begin(), part.end(), bytes.begin() + static_cast<ptrdiff_t>(offset));
        return STATUS_SUCCESS;
    }
    NTSTATUS grow(uint64_t size) override {
        bytes.resize(size);
        return STATUS_SUCCESS;
    }
    NTSTATUS flush() override { return STATUS_SUCCESS; }
};

/* Each names the one before 10,000 times: expanded without a bound, they would take gigabytes. */
TEST_F(Info, EnvironmentStringsThatNameEachOtherTakeNoMemory) {
    const std::u16string path = configDirectory + u"SYSTEM";
    MemoryStore store;
    store.bytes = OpenImage(image).read(path);
    offline::HivePtr hive;
    offline::Problem problem;
    ASSERT_GE(offline::hiveOpen(store.bytes, hive, problem), 0) << problem.text;
    offline::Cell key = offline::hiveRoot(*hive);
    for (const std::u16string name : {u"ControlSet001", u"Control", u"Session Manager", u"Environment"}) {
        const offline::Cell parent = key;
        if (offline::hiveFindSubkey(*hive, parent, name, key) >= 0) continue;
        const std::vector<uint8_t> descriptor(offline::hiveKeyDescriptor(*hive, parent).begin(),
                                              offline::hiveKeyDescriptor(*hive, parent).end());
        ASSERT_GE(offline::hiveCreateSubkey(*hive, parent, name, {}, descriptor, 0, 0, key), 0);
    }
    std::u16string text(30'000, u'x');
    for (char16_t digit = u'0'; digit < u'6'; digit++) {
        const auto* bytes = reinterpret_cast<const uint8_t*>(text.c_str());
        const std::u16string name = {u'v', digit};
        ASSERT_GE(offline::hiveSetValue(*hive, key, name, REG_EXPAND_SZ, {bytes, text.size() * 2 + 2}, 0), 0);
        text.clear();
        while (text.size() < 32'000) text.append(u"%").append(name).append(u"%");
    }
    ASSERT_GE(offline::hiveSave(*hive, store), 0);
    OpenImage open(image, offline::DiskAccess::readWrite);
    open.write(path, 0, store.bytes);
    open.close();
    EXPECT_EQ(info().status, 0);
    rusage usage = {};
    ASSERT_EQ(getrusage(RUSAGE_CHILDREN, &usage), 0);
    EXPECT_LT(usage.ru_maxrss, 600 * 1024) << "KiB"; /* sanitizers take most of it */
}

} /* namespace */
