/* What an audit finds, before and after a run, and what it does with a system that it can't see whole. */
#include "platform/offline/descriptor/sid_format.h"
#include "platform/offline/hive/hive.h"
#include "platform/offline/hive/hive_paths.h"
#include "platform/offline/security/security.h"
#include "platform/offline/system/hive_files.h"
#include "tests/companion/program.h"

namespace {

using ByteVector = std::vector<uint8_t>;

const std::string plantedSid = "S-1-5-21-77-88-99";
const char* const kinds[] = {"files", "keyDescriptors", "keyNames", "values"};

ByteVector utf16(std::u16string_view text) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
    return {bytes, bytes + text.size() * sizeof(char16_t)};
}

ByteVector operator+(ByteVector left, const ByteVector& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

struct Counts {
    uint64_t treated = 0, left = 0;
    bool operator==(const Counts&) const = default;
};

/* The counts of a kind in the program's JSON. */
Counts countsOf(const std::string& json, const std::string& kind) {
    const auto number = [&](const std::string& name) {
        const size_t at = json.find("\"" + name + "\":", json.find("\"" + kind + "\":{"));
        return at == std::string::npos ? ~uint64_t{0} : std::stoull(json.substr(at + name.size() + 3));
    };
    return {number("remaining"), number("left")};
}

struct AuditTest : PracticeTest {
    /* The program's output; it must end so. */
    Outcome audit(std::vector<std::string> arguments, int status) const {
        arguments.insert(arguments.begin(), "audit");
        Outcome outcome = look(std::move(arguments));
        EXPECT_EQ(outcome.status, status) << outcome.out << outcome.err;
        EXPECT_EQ(outcome.err.empty(), status != 2) << outcome.err;
        return outcome;
    }
};

/* The same places are left by a run, and every other one gets the new SID. */
TEST_F(AuditTest, FindsBeforeARunWhatIsGoneAfterIt) {
    const std::string before = audit({"a.img", "--json"}, 1).out;
    ASSERT_EQ(quilletOffline({"run", "a.img", "--", "-q"}).status, 0);
    const std::string after = audit({"a.img", "--json", "--sid", practiceSid}, 0).out;
    const std::string now = audit({"a.img", "--json"}, 1).out;
    EXPECT_NE(now.find(R"("otherMachines":[{"sid":")" + practiceSid + "\""),
              std::string::npos); /* what stays */
    for (const char* kind : kinds) {
        const Counts was = countsOf(before, kind);
        EXPECT_GT(was.treated, 20u) << kind;
        EXPECT_GT(was.left, 0u) << kind;
        EXPECT_EQ(countsOf(after, kind), (Counts{0, was.left})) << kind;
        EXPECT_EQ(countsOf(now, kind), (Counts{was.treated, 0})) << kind;
    }
    const std::string text = audit({"a.img", practiceSid}, 0).out;
    EXPECT_NE(text.find("\nnothing that quillet treats holds " + practiceSid + "\n"), std::string::npos);
}

TEST_F(AuditTest, TakesNoOtherMachineForThisOne) {
    for (const std::string sid : {"S-1-5-21-1111-2222-333", "S-1-5-21-1111-2222-33333", "S-1-5-21-9-8-7"}) {
        const std::string out = audit({"a.img", "--json", "--all", sid}, 0).out;
        for (const char* kind : kinds) EXPECT_EQ(countsOf(out, kind), (Counts{})) << kind;
        EXPECT_NE(out.find("\"places\":[]"), std::string::npos) << out;
    }
}

/* ---- Places that the test makes ---- */

struct Planted {
    std::u16string key, value;
    uint32_t type;
    ByteVector data;
    std::string sort; /* "treated", why it is left, or "" for no such SID */
};

/* Values of SOFTWARE. */
std::vector<Planted> plantedValues() {
    const std::u16string explorer = u"Microsoft\\Windows\\CurrentVersion\\Explorer";
    const std::u16string profiles = u"Microsoft\\Windows NT\\CurrentVersion\\ProfileList";
    const std::u16string text = u"S-1-5-21-77-88-99", account = text + u"-1000";
    const ByteVector end = {0, 0};
    const ByteVector machine = offline::sidFromText(plantedSid);
    const ByteVector user = offline::sidFromText(plantedSid + "-1000");
    ByteVector cut = user, few = user, many = user, old = user;
    cut.pop_back();
    few[1] = 3;
    many[1] = 16;
    many.resize(8 + 16 * 4);
    old[0] = 2;
    return {
        {explorer, u"binary", REG_BINARY, ByteVector{1, 4, 0} + user, "treated"},
        {explorer, u"no type", REG_NONE, machine, "treated"},
        {explorer, u"cut", REG_BINARY, cut, ""},
        {explorer, u"few", REG_BINARY, few, ""},
        {explorer, u"many", REG_BINARY, many, ""},
        {explorer, u"old", REG_BINARY, old, ""},
        {explorer, u"an account", REG_SZ, utf16(account) + end, "treated"},
        {explorer, u"whole", REG_SZ, utf16(text), "treated"},
        {explorer, u"whole, terminated", REG_SZ, utf16(text) + end, "insideText"},
        {explorer, u"longer", REG_SZ, utf16(text + u"0-1000") + end, ""},
        {explorer, u"middle", REG_SZ, utf16(u"x" + account) + end, "insideText"},
        {explorer, u"list", REG_MULTI_SZ, utf16(u"x") + end + utf16(text) + end + end, "treated"},
        {explorer, u"list, middle", REG_MULTI_SZ, utf16(u"x" + text) + end + end, "insideText"},
        {explorer, u"unaligned text", REG_BINARY, ByteVector{1} + utf16(text), "insideText"},
        {explorer, u"expandable", REG_EXPAND_SZ, utf16(account) + end, "otherValueTypes"},
        {explorer, u"number", REG_DWORD, user, "otherValueTypes"},
        {profiles, u"SECURITY", REG_BINARY, user, "treated"},
        {profiles, u"Other", REG_BINARY, user, "valuesOutside"},
        {u"Practice", u"outside", REG_BINARY, user, "valuesOutside"},
        {u"Practice", u"of " + account, REG_DWORD, ByteVector(4), "valueNames"},
    };
}

/* Changes a machine hive of the image in place. */
template <typename Change>
void changeHive(const std::string& image, std::u16string_view name, const Change& change) {
    OpenImage open(image, offline::DiskAccess::readWrite);
    offline::HivePtr hive;
    std::unique_ptr<offline::HiveStore> store;
    offline::Problem problem;
    const offline::FileRef file = open.find(configDirectory + std::u16string(name));
    ASSERT_GE(offline::readHiveFile(*open.volume, file, "hive", hive, store, problem), 0) << problem.text;
    change(*hive);
    ASSERT_GE(offline::hiveSave(*hive, *store), 0);
    store.reset();
    open.close();
}

TEST_F(AuditTest, TellsEachPlantedValue) {
    changeHive(image, u"SOFTWARE", [](offline::Hive& hive) {
        for (const Planted& one : plantedValues()) {
            offline::Cell key;
            ASSERT_GE(offline::hiveFindPath(hive, one.key, key), 0);
            ASSERT_GE(offline::hiveSetValue(hive, key, one.value, one.type, one.data, 0), 0);
        }
    });
    const std::string out = audit({"a.img", "--all", "--json", plantedSid}, 1).out;
    for (const Planted& one : plantedValues()) {
        const std::string value(one.value.begin(), one.value.end());
        std::string line = R"({"kind":"values","state":)";
        line += one.sort == "treated" ? R"("holds")" : R"("stays","reason":")" + one.sort + "\"";
        const size_t end = out.find("\"value\":\"" + value + "\"}");
        EXPECT_EQ(end == std::string::npos, one.sort.empty()) << value;
        if (end == std::string::npos) continue;
        EXPECT_EQ(out.substr(out.rfind('{', end), line.size()), line) << value;
    }
    EXPECT_EQ(countsOf(out, "values"), (Counts{6, 9}));
    EXPECT_EQ(countsOf(out, "keyNames"), (Counts{}));
}

/* The head of a tree keeps its name; below it, names that begin with the SID are rewritten. */
TEST_F(AuditTest, TellsNamesByWhereTheyLie) {
    changeHive(image, u"SECURITY", [](offline::Hive& hive) {
        for (const std::u16string_view path : {u"Policy", u"RXACT"}) {
            offline::Cell parent, child;
            ASSERT_GE(offline::hiveFindPath(hive, path, parent), 0);
            for (const std::u16string_view name : {u"S-1-5-21-77-88-99", u"S-1-5-21-77-88-99-5",
                                                   u"S-1-5-21-77-88-990", u"x S-1-5-21-77-88-99"}) {
                const auto descriptor = offline::hiveKeyDescriptor(hive, parent);
                ASSERT_GE(offline::hiveCreateSubkey(hive, parent, name, {}, descriptor, 0, 0, child), 0);
            }
        }
    });
    const std::string out = audit({"a.img", "--all", plantedSid}, 1).out;
    for (const char* line :
         {"still old     key name, C:\\Windows\\System32\\config\\SECURITY: "
          "\\Policy\\S-1-5-21-77-88-99\n",
          "SECURITY: \\Policy\\S-1-5-21-77-88-99-5\n", "\\Policy\\x S-1-5-21-77-88-99 (inside other text)\n",
          "stays         key name, C:\\Windows\\System32\\config\\SECURITY: "
          "\\RXACT\\S-1-5-21-77-88-99-5 (outside the table)\n",
          "\n2 places that quillet treats hold S-1-5-21-77-88-99\n"}) {
        EXPECT_NE(out.find(line), std::string::npos) << line << out;
    }
    EXPECT_EQ(out.find("\\S-1-5-21-77-88-990"), std::string::npos);
}

/* ---- What can't be looked at ---- */

TEST_F(AuditTest, SaysWhatItCannotSee) {
    writeFile(path("text"), std::string(100000, 'x'));
    EXPECT_TRUE(isOneLine(audit({"text"}, 2).err));
    EXPECT_TRUE(isOneLine(audit({"a.img", "missing"}, 2).err));
    EXPECT_TRUE(isOneLine(audit({"a.img", "text"}, 2).err)); /* not once more for the audit */
    for (const std::vector<std::string>& wrong : {std::vector<std::string>{"a.img", "a.img"},
                                                  {"a.img", "S-1-5-18"},
                                                  {"a.img", "S-1-5-21-1-2-3-500"},
                                                  {plantedSid},
                                                  {"a.img", "--sid", "x"},
                                                  {"a.img", "--sid", plantedSid, plantedSid}}) {
        const Outcome outcome = audit(wrong, 2);
        EXPECT_TRUE(isOneLine(outcome.err)) << outcome.err;
        EXPECT_EQ(outcome.out, "");
    }
    /* The letters are in SYSTEM; the other hives are found without. */
    std::filesystem::copy_file(image, path("b.img"));
    OpenImage open(image, offline::DiskAccess::readWrite);
    open.write(configDirectory + u"SYSTEM", 4096, {'x'});
    open.close();
    const Outcome outcome = audit({"a.img", "b.img", plantedSid}, 2);
    EXPECT_TRUE(isOneLine(outcome.err)) << outcome.err;
    EXPECT_NE(outcome.out.find("\nnot everything could be looked at; in the rest nothing"),
              std::string::npos);
}

} /* namespace */
